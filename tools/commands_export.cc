#include <cerrno>
#include <cstring>

#include "inspect/escape.h"
#include "kestrun/status.h"
#include "tools/commands.h"
#include "tools/csv_rows.h"
#include "tools/failure.h"
#include "tools/field_value.h"
#include "tools/import_rows.h"
#include "tools/json_bytes.h"
#include "tools/key_range.h"
#include "tools/progress.h"
#include "tools/record_type.h"
#include "tools/store.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

struct ExportOptions : CommonOptions {
  std::string file = kStandardInput;  // "-" is standard output here
  std::string format;
  std::optional<std::string> type;
  std::string keyColumn = kKeyColumn;
  bool raw = false;

  bool ToStandardOutput() const { return file == kStandardInput; }
};

using RecordTypes = std::map<uint16_t, std::unique_ptr<RecordMeta>>;

// Where the rows go.
class Output {
 public:
  explicit Output(const ExportOptions& options) : name_(Inspect::Printable(options.file)) {
    if (options.ToStandardOutput()) return;
    file_ = std::fopen(options.file.c_str(), "wbe");
    if (file_ == nullptr) throw InputError(name_ + " can't be written: " + std::strerror(errno));
  }
  ~Output() {
    if (file_ != nullptr) std::fclose(file_);
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void Write(const std::string& bytes) {
    if (file_ == nullptr) {
      WriteData(bytes);
    } else if (std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) {
      Fail();
    }
  }
  void Finish() {
    if (file_ != nullptr && std::fflush(file_) != 0) Fail();
  }

 private:
  [[noreturn]] void Fail() { throw SystemFailure(name_ + " can't be written: " + std::strerror(errno)); }

  std::string name_;
  FILE* file_ = nullptr;
};

[[noreturn]] void RefuseType(const RecordTypes& types, const std::string& why) {
  std::string list;
  for (const auto& [id, meta] : types) {
    list += (list.empty() ? "" : ", ") + ("'" + Inspect::Printable(meta->text) + "'");
  }
  throw UsageError(
      why + "; " +
      (list.empty() ? "the store has no record types" : "the record types of the store are: " + list));
}

// The record type to export, null for raw values. A store with one record type is exported as its records
// unless raw values are asked for.
const RecordMeta* ChooseType(const ExportOptions& options, RowFormat format, const RecordTypes& types) {
  if (options.raw) {
    if (format == RowFormat::Csv || options.type)
      throw UsageError("--raw writes JSON Lines and takes no --type");
    return nullptr;
  }
  if (!options.type) {
    if (types.size() == 1) return types.begin()->second.get();
    if (!types.empty()) RefuseType(types, "--type tells which records to export, --raw exports all as bytes");
    if (format == RowFormat::Csv) RefuseType(types, "CSV holds typed records only; give --format jsonl");
    return nullptr;
  }
  const RecordMeta* found = nullptr;
  for (const auto& [id, meta] : types) {
    if (meta->text == *options.type) return meta.get();
    if (meta->name != *options.type) continue;
    if (found != nullptr)
      RefuseType(types, "more than one record type has this name; give its whole text to --type");
    found = meta.get();
  }
  if (found == nullptr) {
    RefuseType(types, "there is no record type \"" + Inspect::Printable(*options.type) + "\"");
  }
  return found;
}

// Writes the rows of one type.
class RecordWriter {
 public:
  RecordWriter(const RecordMeta& meta, const RecordTypes& types, RowFormat format,
               const std::string& keyColumn)
      : meta_(meta), types_(types), format_(format), keyColumn_(keyColumn) {
    bool isUtf8 = Inspect::IsUtf8(keyColumn);
    for (const Field* field : meta.fields) isUtf8 = isUtf8 && Inspect::IsUtf8(field->name);
    if (format == RowFormat::JsonLines && !isUtf8) {
      throw UsageError("JSON can't hold a column name that is not UTF-8; give --format csv");
    }
    for (const Field* field : meta.fields) {
      if (field->name != keyColumn) continue;
      throw UsageError("the record type has a field \"" + Inspect::Printable(keyColumn) +
                       "\"; choose another column for the keys with --key-column");
    }
  }

  std::string Header() const {
    std::string text;
    if (format_ != RowFormat::Csv) return text;
    std::vector<std::string> names = {keyColumn_};
    for (const Field* field : meta_.fields) names.push_back(field->name);
    AppendCsvRow(names, &text);
    return text;
  }

  // False when the value is no record of the type.
  bool Row(const std::string& key, StoredValue value, std::string* text) const {
    if (!IsOfType(value.Bytes())) return false;
    const auto size = static_cast<unsigned int>(value.Bytes().size());
    const Record record(&meta_, static_cast<unsigned char*>(value.Release()), size);
    const std::vector<Value> values = FieldValues(meta_, record);
    for (size_t i = 0; i < values.size(); ++i) {
      if (values[i].type != meta_.fields[i]->type) return false;
    }
    text->clear();
    if (format_ == RowFormat::Csv) {
      std::vector<std::string> fields = {key};
      for (const Value& field : values) fields.push_back(TextOf(field));
      AppendCsvRow(fields, text);
    } else {
      Json json = {{keyColumn_, JsonOfBytes(key)}};
      for (size_t i = 0; i < values.size(); ++i) json[meta_.fields[i]->name] = JsonOf(values[i]);
      *text = json.dump() + "\n";
    }
    return true;
  }

 private:
  bool IsOfType(std::string_view bytes) const {
    if (bytes.size() <= kRecordIdSize) return false;
    const auto id = static_cast<uint16_t>(static_cast<unsigned char>(bytes[0]) |
                                          static_cast<unsigned char>(bytes[1]) << 8);
    const auto type = types_.find(id);
    return type != types_.end() && *type->second == meta_;
  }

  const RecordMeta& meta_;
  const RecordTypes& types_;
  RowFormat format_;
  const std::string& keyColumn_;
};

std::string RawRow(const std::string& key, const StoredValue& value) {
  const Json json = {{kKeyColumn, JsonOfBytes(key)}, {kValueColumn, JsonOfBytes(value.Bytes())}};
  return json.dump() + "\n";
}

int Export(const ExportOptions& options) {
  const RowFormat format = ChooseFormat(options.format, options.file);
  const auto store = OpenStore(options, Access::Existing);
  const RecordTypes types = ReadRecordTypes(options.store);
  const RecordMeta* type = ChooseType(options, format, types);
  std::optional<RecordWriter> writer;
  if (type != nullptr) writer.emplace(*type, types, format, options.keyColumn);

  Output output(options);
  if (writer) output.Write(writer->Header());
  const std::vector<Key> keys = ListKeys(*store, KeyRange());
  Progress progress("exporting", options.ToStandardOutput() ? 0 : keys.size());
  uint64_t rows = 0;
  uint64_t others = 0;
  uint64_t done = 0;
  for (const Key& key : keys) {
    StoredValue value;
    if (!options.ToStandardOutput()) progress.Update(++done, rows);
    if (ReadValue(*store, key, &value) != EntryState::Live) continue;
    const std::string keyBytes(reinterpret_cast<const char*>(key.Data()), key.Size());
    std::string text;
    if (!writer) {
      text = RawRow(keyBytes, value);
    } else if (!writer->Row(keyBytes, std::move(value), &text)) {
      ++others;
      continue;
    }
    output.Write(text);
    ++rows;
  }
  output.Finish();
  if (others != 0) {
    PrintMessage("kestrun: " + std::to_string(others) + (others == 1 ? " entry is" : " entries are") +
                 " no record of the type \"" + Inspect::Printable(type->name) + "\" and not exported");
  }
  if (options.ToStandardOutput()) return kExitDone;
  if (options.json) {
    WriteJsonLine({{"rows", rows}, {"others", others}});
  } else {
    WriteLine("exported " + std::to_string(rows) + (rows == 1 ? " row" : " rows"));
  }
  return kExitDone;
}

}  // namespace

void AddExportCommand(const Program& program) {
  const auto options = std::make_shared<ExportOptions>();
  CLI::App* command = AddCommand(program.app, "export", "write the live entries as CSV or JSON Lines",
                                 options.get(), program.chosen, [options] { return Export(*options); });
  command->add_option("FILE", options->file, "the file; '-' or nothing: standard output");
  command->add_option("--type", options->type,
                      "export the records of this type, named by its name or its text");
  command->add_flag("--raw", options->raw, "export all entries as bytes, whatever they are");
  command->add_option("--format", options->format, "csv or jsonl; default: csv for *.csv, else jsonl");
  command->add_option("--key-column", options->keyColumn, "the column of the keys; default: key");
  AddWalSize(command, options.get());
}

}  // namespace Kestrun::Tools
