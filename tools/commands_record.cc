#include "inspect/escape.h"
#include "kestrun/status.h"
#include "tools/arguments.h"
#include "tools/commands.h"
#include "tools/failure.h"
#include "tools/field_value.h"
#include "tools/input.h"
#include "tools/json_bytes.h"
#include "tools/record_type.h"
#include "tools/store.h"
#include "tools/streams.h"
#include "tools/table.h"

namespace Kestrun::Tools {
namespace {

constexpr size_t kFirstValue = 3;  // behind STORE, KEY and FORMAT

struct RecordOptions : CommonOptions {
  std::string key;
  std::string format;
  std::vector<std::string> values;  // for the parser to count; the values themselves are positionals
};

// A value of the command line as a cell. Standard input gives a text its bytes, a Binary field its bytes as
// they are, and a number its digits, with or without a line end behind them.
Cell CellOf(const std::string& argument, ValueType type, bool* inputTaken) {
  if (argument != kStandardInput) return {Cell::Kind::Text, argument};
  if (*inputTaken) throw UsageError("standard input can be one VALUE only, not two");
  *inputTaken = true;
  std::string bytes = ReadStandardInput(kMaxValue);
  if (type == ValueType::Binary) return {Cell::Kind::Bytes, std::move(bytes)};
  if (type != ValueType::String && !bytes.empty() && bytes.back() == '\n') bytes.pop_back();
  return {Cell::Kind::Text, std::move(bytes)};
}

RecordValues ParseValues(const RecordMeta& meta, const std::vector<std::string>& positionals) {
  const size_t given = positionals.size() - kFirstValue;
  if (given != meta.fields.size()) {
    throw UsageError("the record type \"" + Inspect::Printable(meta.name) + "\" has " +
                     std::to_string(meta.fields.size()) + " fields and takes as many VALUEs, not " +
                     std::to_string(given));
  }
  RecordValues values;
  bool inputTaken = false;
  for (size_t i = 0; i < given; ++i) {
    const Field& field = *meta.fields[i];
    std::string why;
    if (!AddValue(CellOf(positionals[kFirstValue + i], field.type, &inputTaken), field.type, &values, &why)) {
      throw UsageError("the field \"" + Inspect::Printable(field.name) + "\" " + why);
    }
  }
  return values;
}

int Append(const RecordOptions& options, const std::vector<std::string>& positionals) {
  const Key key = ParseKey(options.key, "KEY");
  const uint32_t ttl = options.Ttl();
  const auto described = ParseRecordType(options.format);
  const RecordValues values = ParseValues(*described, positionals);
  RequireRoom(options, key.Size(), Record(described.get(), values.values).Capacity());

  const auto series = OpenSeries(options);
  const RecordMeta* meta = series->CreateRecordMeta(options.format);
  if (meta == nullptr)
    throw StoreFailure(kStatusCreateFailed, "the record type could not be added to meta_v5");
  MustSucceed("storing the record", [&] { return series->AppendRecord(key, ttl, meta, values.values); });
  if (options.json) {
    WriteJsonLine({{"key", JsonOfBytes(options.key)},
                   {"type", JsonOfBytes(options.format)},
                   {"id", meta->id},
                   {"ttl", ttl}});
  }
  return kExitDone;
}

void WriteRecord(const RecordOptions& options, const RecordMeta& meta, const std::vector<Value>& values) {
  if (options.json) {
    Json fields = Json::object();
    for (size_t i = 0; i < values.size(); ++i) {
      fields[Inspect::IsUtf8(meta.fields[i]->name) ? meta.fields[i]->name
                                                   : Inspect::Printable(meta.fields[i]->name)] =
          JsonOf(values[i]);
    }
    WriteJsonLine({{"key", JsonOfBytes(options.key)},
                   {"type", JsonOfBytes(meta.text)},
                   {"id", meta.id},
                   {"fields", std::move(fields)}});
    return;
  }
  Table table({Align::Left, Align::Left, Align::Left});
  table.Add({"FIELD", "TYPE", "VALUE"});
  for (size_t i = 0; i < values.size(); ++i) {
    table.Add({Inspect::Printable(meta.fields[i]->name), TokenOf(meta.fields[i]->type),
               Inspect::Printable(TextOf(values[i]))});
  }
  WriteLine(Inspect::Printable(meta.name));
  table.Write();
}

// Reads the value and the schema file apart: opening a series would make a schema file where there is none.
int Show(const RecordOptions& options) {
  const Key key = ParseKey(options.key, "KEY");
  const auto store = OpenStore(options, Access::Existing);
  StoredValue value;
  const EntryState state = ReadValue(*store, key, &value);
  if (state != EntryState::Live) {
    PrintMessage("kestrun: key \"" + Inspect::Printable(options.key) + "\" " +
                 (state == EntryState::Missing   ? "is not in the store"
                  : state == EntryState::Expired ? "is expired"
                                                 : "is deleted"));
    return kExitNotFound;
  }
  const std::string_view bytes = value.Bytes();
  if (bytes.size() <= kRecordIdSize) {
    throw StoreFailure(kStatusRecordTypeUnknown, "the value is too short for a record, " +
                                                     std::to_string(bytes.size()) + " of 3 bytes or more");
  }
  const auto id =
      static_cast<uint16_t>(static_cast<unsigned char>(bytes[0]) | static_cast<unsigned char>(bytes[1]) << 8);
  const auto types = ReadRecordTypes(options.store);
  const auto type = types.find(id);
  if (type == types.end()) {
    throw StoreFailure(kStatusRecordTypeUnknown, "the value names the record type " + std::to_string(id));
  }
  const auto size = static_cast<unsigned int>(bytes.size());
  const Record record(type->second.get(), static_cast<unsigned char*>(value.Release()), size);
  WriteRecord(options, *type->second, FieldValues(*type->second, record));
  return kExitDone;
}

Json FieldsOf(const RecordMeta& meta) {
  Json fields = Json::array();
  for (const Field* field : meta.fields) {
    fields.push_back({{"name", JsonOfBytes(field->name)}, {"type", TokenOf(field->type)}});
  }
  return fields;
}

int Types(const RecordOptions& options) {
  RequireStore(options.store);
  const auto types = ReadRecordTypes(options.store);
  if (options.json) {
    for (const auto& [id, meta] : types) {
      WriteJsonLine({{"id", id},
                     {"name", JsonOfBytes(meta->name)},
                     {"text", JsonOfBytes(meta->text)},
                     {"fields", FieldsOf(*meta)}});
    }
    return kExitDone;
  }
  Table table({Align::Right, Align::Left});
  table.Add({"ID", "TYPE"});
  for (const auto& [id, meta] : types) table.Add({std::to_string(id), Inspect::Printable(meta->text)});
  table.Write();
  return kExitDone;
}

}  // namespace

void AddRecordCommands(const Program& program) {
  const auto append = std::make_shared<RecordOptions>();
  const auto* positionals = program.positionals;
  CLI::App* command =
      AddCommand(program.app, "append", "store a typed record under a key", append.get(), program.chosen,
                 [append, positionals] { return Append(*append, *positionals); });
  command->add_option("KEY", append->key, "1 to 65535 bytes")->required();
  command->add_option("FORMAT", append->format, "the record type, such as 'Point x:%i4,y:%i4,label:%s'")
      ->required();
  command->add_option(kValueName, append->values, "one value for each field; '-': standard input")
      ->required();
  AddTtl(command, append.get());
  AddWalSize(command, append.get());

  const auto show = std::make_shared<RecordOptions>();
  command = AddCommand(program.app, "show", "show a typed record field by field", show.get(), program.chosen,
                       [show] { return Show(*show); });
  command->add_option("KEY", show->key, "1 to 65535 bytes")->required();
  AddWalSize(command, show.get());

  const auto types = std::make_shared<RecordOptions>();
  AddCommand(program.app, "types", "list the record types of a store", types.get(), program.chosen,
             [types] { return Types(*types); });
}

}  // namespace Kestrun::Tools
