// append, show, types.
#include "format/file_names.h"
#include "inspect/escape.h"
#include "inspect/store_directory.h"
#include "inspect/type_check.h"
#include "kestrun/status.h"
#include "tools/bytes_text.h"
#include "tools/failure.h"
#include "tools/field_value.h"
#include "tools/input.h"
#include "tools/json_writer.h"
#include "tools/quantities.h"
#include "tools/record_type.h"
#include "tools/store_access.h"
#include "tools/streams.h"
#include "tools/table.h"

namespace Kestrun::Tools {
namespace {

constexpr size_t kFirstValue = 3;  // after STORE, KEY and FORMAT

// Standard input gives a text its bytes, a Binary field its bytes as they are, and a number its digits, with
// or without a line end after them.
std::vector<Value> ParseValues(const RecordMeta& meta, const std::vector<std::string>& positionals,
                               std::vector<std::string>* bytes, uint64_t* size) {
  const size_t given = positionals.size() - kFirstValue;
  if (given != meta.fields.size()) {
    throw UsageError("the record type \"" + Inspect::Printable(meta.name) + "\" has " +
                     std::to_string(meta.fields.size()) + " fields and takes as many VALUEs, not " +
                     std::to_string(given));
  }
  std::vector<Value> values(given);
  bytes->resize(given);
  bool inputTaken = false;
  *size = kRecordIdSize;
  for (size_t i = 0; i < given; ++i) {
    const Field& field = *meta.fields[i];
    std::string text = positionals[kFirstValue + i];
    Cell cell = {Cell::Kind::Text, text};
    const bool fromInput = text == kStandardInput;
    if (fromInput) {
      if (inputTaken) throw UsageError("standard input can be one VALUE only, not two");
      inputTaken = true;
      text = ReadStandardInput(kMaxValue);
      if (field.type == ValueType::Binary) cell.kind = Cell::Kind::Bytes;
      const bool isNumber = field.type != ValueType::Binary && field.type != ValueType::String;
      if (isNumber && !text.empty() && text.back() == '\n') text.pop_back();
      cell.text = text;
    }
    std::string why;
    if (!ParseFieldValue(cell, field.type, &values[i], &(*bytes)[i], &why)) {
      const std::string message = "the field \"" + Inspect::Printable(field.name) + "\" " + why;
      if (fromInput) throw InputError(message);
      throw UsageError(message);
    }
    *size += 4 + values[i].str.size() + (*bytes)[i].size();
  }
  return values;
}

void WriteRecord(const Invocation& line, const std::string& key, const RecordMeta& meta,
                 const std::vector<FieldView>& fields) {
  if (IsJson(line)) {
    JsonWriter json(IsHex(line));
    json.BeginObject().Name("key").Bytes(key).Name("type").Bytes(meta.text).Name("id").Number(meta.id);
    json.Name("fields").BeginObject();
    for (size_t i = 0; i < fields.size(); ++i) {
      const std::string& name = meta.fields[i]->name;
      AddFieldJson(fields[i], &json.Name(Inspect::IsUtf8(name) ? name : Inspect::Printable(name)));
    }
    WriteJsonLine(json.EndObject().EndObject());
    return;
  }
  Table table({Align::Left, Align::Left, Align::Left});
  table.Add({"FIELD", "TYPE", "VALUE"});
  for (size_t i = 0; i < fields.size(); ++i) {
    std::string text;
    AppendFieldText(fields[i], &text);
    table.Add(
        {Inspect::Printable(meta.fields[i]->name), TokenOf(meta.fields[i]->type), Inspect::Printable(text)});
  }
  WriteLine(Inspect::Printable(meta.name));
  table.Write();
}

// The types stand in a file of their own, which needs no lock; whether the store beside it can be read, and
// whether its first entries are of these types, is looked at all the same, where that is possible.
void RequireWhole(const Invocation& line) {
  constexpr int kLookedAt = 10000;
  std::string damage;
  const auto texts = Inspect::ReadRecordTypeTexts(line.Store(), &damage);
  const std::string shown = ShownPath(line.Store()) + "/" + kSchemaFileName + ": ";
  if (!damage.empty()) throw DamageFound(line.Store(), shown + damage);
  std::unique_ptr<Snapshot> snapshot;
  try {
    snapshot = OpenSnapshot(line.Store());
  } catch (const StoreFailure& failure) {
    if (failure.Status() != kStatusLockFailed) throw;
    return;
  }
  Inspect::TypeCheck check(texts, !texts.empty());
  const auto cursor = OpenCursor(*snapshot, Range::All());
  cursor->SeekToFirst();
  for (int i = 0; i < kLookedAt && cursor->Valid(); ++i, cursor->Next()) {
    std::string_view value;
    Require(cursor->Value(&value), ShownPath(line.Store()) + ": looking for records");
    check.Add(value);
  }
  Require(cursor->Status(), ShownPath(line.Store()) + ": looking for records");
  for (const Inspect::TypeFinding& finding : check.Findings()) {
    if (finding.isDamage) throw DamageFound(line.Store(), shown + Inspect::TypeCheck::TextOf(finding));
  }
  RequireWholeLog(line.Store(), "there may be records of these types that can't be read");
}

}  // namespace

int RunAppend(const Invocation& line) {
  const std::string key = KeyOf(line, line.positionals[1], "KEY");
  const std::string& type = line.positionals[2];
  const uint32_t ttl = TtlOf(line);
  LogSizeOf(line);
  const auto meta = ParseRecordType(type);
  std::vector<std::string> bytes;
  uint64_t size = 0;
  const std::vector<Value> values = ParseValues(*meta, line.positionals, &bytes, &size);
  RequireRoom(line, key.size(), size);

  const auto store = OpenRecordStore(line, Access::Create);
  Require(store->Put(key, type, values, ttl), ShownPath(line.Store()) + ": storing the record", line.Store());
  if (IsJson(line)) {
    const auto types = ReadRecordTypes(line.Store());
    uint16_t id = 0;
    for (const auto& [number, known] : types) {
      if (known->text == type) id = number;
    }
    JsonWriter json(IsHex(line));
    json.BeginObject()
        .Name("key")
        .Bytes(key)
        .Name("type")
        .Text(type)
        .Name("id")
        .Number(id)
        .Name("ttl")
        .Number(ttl);
    WriteJsonLine(json.EndObject());
  }
  return kExitDone;
}

int RunShow(const Invocation& line) {
  const std::string key = KeyOf(line, line.positionals[1], "KEY");
  const std::string value = ReadValue(line, key);
  const std::string shown = ShownPath(line.Store()) + ": ";
  if (value.size() <= kRecordIdSize) {
    throw StoreFailure(kStatusRecordTypeUnknown, shown + "the value is too short for a record, " +
                                                     std::to_string(value.size()) + " of 3 bytes or more");
  }
  const auto types = ReadRecordTypes(line.Store());
  const auto type = types.find(RecordIdOf(value));
  if (type == types.end()) {
    throw StoreFailure(kStatusRecordTypeUnknown,
                       shown + "the value names the record type " + std::to_string(RecordIdOf(value)));
  }
  std::vector<FieldView> fields;
  if (!DecodeFields(*type->second, value, &fields)) {
    PrintAccount("kestrun show: the value does not hold exactly the fields of its record type");
  }
  WriteRecord(line, key, *type->second, fields);
  RequireNewest(line);
  return kExitDone;
}

int RunTypes(const Invocation& line) {
  RequireStoreFiles(line.Store());
  const auto types = ReadRecordTypes(line.Store());
  if (IsJson(line)) {
    for (const auto& [id, meta] : types) {
      JsonWriter json(IsHex(line));
      json.BeginObject().Name("id").Number(id).Name("name").Bytes(meta->name).Name("text").Bytes(meta->text);
      json.Name("fields").BeginArray();
      for (const Field* field : meta->fields) {
        json.BeginObject()
            .Name("name")
            .Bytes(field->name)
            .Name("type")
            .Text(TokenOf(field->type))
            .EndObject();
      }
      WriteJsonLine(json.EndArray().EndObject());
    }
    RequireWhole(line);
    return kExitDone;
  }
  Table table({Align::Right, Align::Left});
  table.Add({"ID", "TYPE"});
  for (const auto& [id, meta] : types) table.Add({std::to_string(id), Inspect::Printable(meta->text)});
  table.Write();
  RequireWhole(line);
  return kExitDone;
}

}  // namespace Kestrun::Tools
