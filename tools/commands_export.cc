// export.
#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "format/file_names.h"
#include "inspect/escape.h"
#include "inspect/type_check.h"
#include "kestrun/status.h"
#include "tools/bytes_text.h"
#include "tools/failure.h"
#include "tools/input.h"
#include "tools/interrupt.h"
#include "tools/json_writer.h"
#include "tools/output_file.h"
#include "tools/progress.h"
#include "tools/quantities.h"
#include "tools/record_type.h"
#include "tools/row_writer.h"
#include "tools/store_access.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

[[noreturn]] void RefuseType(const RecordTypes& types, const std::string& why) {
  std::string list;
  for (const auto& [id, meta] : types)
    list += (list.empty() ? "" : ", ") + ("'" + Inspect::Printable(meta->text) + "'");
  throw UsageError(
      why + "; " +
      (list.empty() ? "the store has no record types" : "the record types of the store are: " + list));
}

const RecordMeta* FindType(const RecordTypes& types, const std::string& wanted) {
  const RecordMeta* found = nullptr;
  for (const auto& [id, meta] : types) {
    if (meta->text == wanted) return meta.get();
    if (meta->name != wanted) continue;
    if (found != nullptr) {
      RefuseType(types, "more than one record type has this name; give its whole text to --type");
    }
    found = meta.get();
  }
  if (found == nullptr) RefuseType(types, "there is no record type \"" + Inspect::Printable(wanted) + "\"");
  return found;
}

class Exporter {
 public:
  explicit Exporter(const Invocation& line)
      : line_(line), path_(line.positionals.size() > 1 ? line.positionals[1] : kStandardInput) {}

  int Run() {
    const Range range = RangeOf(line_);
    const uint64_t limit = NumberOf(line_, "--limit", UINT64_MAX);
    const bool toFile = path_ != kStandardInput;
    options_.format = FormatOf(line_, path_);
    options_.delimiter = DelimiterOf(line_, options_.format);
    options_.hex = IsHex(line_);
    options_.withEntry = line_.Has("--with-entry");
    if (const std::string* name = line_.Find("--key-column")) options_.keyColumn = *name;
    if (const std::string* name = line_.Find("--table")) options_.table = *name;
    if (line_.Has("--table") && options_.format != RowFormat::Sqlite)
      throw UsageError("--table is for SQLite only");
    if (options_.format == RowFormat::Sqlite && !toFile) throw UsageError("SQLite is written to a FILE only");

    if (toFile) RequireOutside(line_.Store(), path_);
    const auto snapshot = OpenSnapshot(line_.Store());
    if (toFile) RequireWholeLog(line_.Store(), ShownPath(path_) + " was not written");
    types_ = ReadRecordTypes(line_.Store());
    ChooseTypes();
    CheckNames();
    if (!line_.Has("--raw")) {
      std::string damage;
      const auto texts = Inspect::ReadRecordTypeTexts(line_.Store(), &damage);
      check_.emplace(texts, !texts.empty() || !damage.empty());
    }
    const InterruptGuard guard;
    std::optional<OutputFile> file;
    if (toFile) file.emplace(path_);
    if (options_.format == RowFormat::Sqlite) {
      writer_ = MakeSqliteWriter(options_, file->PartialPath());
    } else if (toFile) {
      writer_ = MakeTextWriter(options_, [&file](std::string_view text) { file->Write(text); });
    } else {
      writer_ = MakeTextWriter(options_, [](std::string_view text) { WriteData(text); });
    }
    Walk(*snapshot, range, limit);
    writer_->Finish();
    if (WasInterrupted()) {
      throw Interrupted("interrupted; " + (toFile ? ShownPath(path_) + " was not written"
                                                  : Counted(rows_, "row was", "rows were") + " written"));
    }
    RequireTypes(toFile);
    if (file) file->Commit();
    TellAccount(toFile);
    RequireWholeLog(line_.Store(), "entries may be missing, or older than the newest ones");
    return kExitDone;
  }

 private:
  // Which entries are exported: the records of one type, of all of them, or all entries as bytes. A store
  // with one record type is exported as its records.
  void ChooseTypes() {
    const std::string* wanted = line_.Find("--type");
    const bool isTable = options_.format == RowFormat::Csv || options_.format == RowFormat::Tsv;
    if (line_.Has("--raw")) {
      if (wanted != nullptr) throw UsageError("--raw exports all entries as bytes and takes no --type");
    } else if (wanted != nullptr) {
      options_.type = FindType(types_, *wanted);
    } else if (types_.size() == 1) {
      options_.type = types_.begin()->second.get();
    } else if (types_.size() > 1) {
      if (isTable)
        RefuseType(types_, "a table holds one record type; --type tells which, --raw exports all as bytes");
      options_.namesTypes = true;
    }
    if (options_.type != nullptr) wantedTypes_[options_.type->text] = options_.type;
    if (options_.namesTypes) {
      for (const auto& [id, meta] : types_) wantedTypes_[meta->text] = meta.get();
    }
    if (options_.namesTypes && !options_.table.empty()) {
      throw UsageError("--table names one table, and the store has several record types; give --type");
    }
  }

  void CheckNames() const {
    const bool isJson = options_.format == RowFormat::Json || options_.format == RowFormat::JsonLines;
    if (isJson && !Inspect::IsUtf8(options_.keyColumn)) throw UsageError("--key-column takes UTF-8");
    std::set<std::string> taken = {options_.keyColumn};
    if (options_.namesTypes) taken.insert("type");
    if (options_.withEntry) taken.insert({"written", "ttl"});
    for (const auto& [text, meta] : wantedTypes_) {
      for (const Field* field : meta->fields) {
        if (taken.count(field->name) != 0) {
          throw UsageError("the record type \"" + Inspect::Printable(meta->name) + "\" has a field \"" +
                           Inspect::Printable(field->name) + "\", which is a column of its own; " +
                           (field->name == options_.keyColumn
                                ? "choose another one for the keys with --key-column"
                                : "leave that column out, or choose one --type"));
        }
        if (isJson && !Inspect::IsUtf8(field->name)) {
          throw UsageError("JSON can't hold a column name that is not UTF-8; give --format csv");
        }
      }
    }
  }

  void Walk(const Snapshot& snapshot, const Range& range, uint64_t limit) {
    const auto cursor = OpenCursor(snapshot, range);
    Progress progress("exporting", 0);
    const uint64_t now = snapshot.Seconds();
    ExportedEntry entry;
    entry.fields = &fields_;
    if (limit != 0) cursor->SeekToFirst();
    for (; rows_ < limit && cursor->Valid() && !WasInterrupted(); cursor->Next()) {
      std::string_view value;
      if (const uint32_t status = cursor->Value(&value); status != kStatusOk) Fail(status, cursor->Key());
      entry.key = cursor->Key();
      entry.value = value;
      entry.type = TypeOf(value);
      if (entry.type == nullptr && check_ && !check_->Add(value) && IsWanted(value) &&
          line_.Has("--skip-bad-records")) {
        ++others_;
        continue;
      }
      if (entry.type == nullptr && options_.type != nullptr) {
        ++others_;
        continue;
      }
      if (options_.withEntry) {
        const DataEntry& times = cursor->Entry();
        entry.written = times.timestamp;
        const uint64_t end = times.timestamp + times.ttl;
        // An entry of this very second lives at least one more.
        entry.ttl = times.ttl == kTtlForever
                        ? kTtlForever
                        : static_cast<uint32_t>(std::max<uint64_t>(1, end < now ? 0 : end - now));
      }
      writer_->Add(entry);
      ++rows_;
      progress.Update(0, rows_);
    }
    if (const uint32_t status = cursor->Status(); status != kStatusOk) Fail(status, "");
  }

  // The type of a record that is to be exported, its fields taken apart; null for what is none.
  const RecordMeta* TypeOf(std::string_view value) {
    if (wantedTypes_.empty()) return nullptr;
    const auto type = types_.find(RecordIdOf(value));
    if (type == types_.end()) return nullptr;
    const auto wanted = wantedTypes_.find(type->second->text);
    if (wanted == wantedTypes_.end() || !DecodeFields(*wanted->second, value, &fields_)) return nullptr;
    return wanted->second;
  }

  // Whether the value has the number of a type whose records are exported.
  bool IsWanted(std::string_view value) const {
    const auto type = types_.find(RecordIdOf(value));
    return type != types_.end() && wantedTypes_.count(type->second->text) != 0;
  }

  // Values that are records and can't be exported as such.
  void RequireTypes(bool toFile) const {
    if (!check_ || line_.Has("--skip-bad-records")) return;
    for (const Inspect::TypeFinding& finding : check_->Findings()) {
      // That all of many values look like records is no chance either; --raw is at hand where it is one.
      constexpr uint64_t kMany = 16;
      const bool isWanted = finding.text.empty() ? finding.isDamage || finding.values >= kMany
                                                 : wantedTypes_.count(finding.text) != 0;
      if (!isWanted) continue;
      throw DamageFound(line_.Store(),
                        ShownPath(line_.Store()) + "/" + kSchemaFileName + ": " +
                            Inspect::TypeCheck::TextOf(finding) +
                            (toFile ? "; " + ShownPath(path_) + " was not written" : "") +
                            "; --skip-bad-records leaves them out, --raw exports all entries as bytes");
    }
  }

  [[noreturn]] void Fail(uint32_t status, std::string_view key) const {
    std::string text = ShownPath(line_.Store()) + ": " + Counted(rows_, "row", "rows") + " can be read";
    if (!key.empty()) text += " before \"" + Inspect::Printable(key) + "\"";
    throw StoreFailure(status, text);
  }

  void TellAccount(bool toFile) const {
    if (others_ != 0) {
      PrintAccount("kestrun export: " + Counted(others_, "entry is", "entries are") +
                   " no record of the type \"" + Inspect::Printable(options_.type->name) +
                   "\" and not exported");
    }
    if (toFile && IsJson(line_)) {
      JsonWriter json;
      WriteJsonLine(json.BeginObject().Name("rows").Number(rows_).Name("others").Number(others_).EndObject());
    }
    if (toFile) PrintAccount("exported " + Counted(rows_, "row", "rows"));
  }

  const Invocation& line_;
  std::string path_;
  RowWriterOptions options_;
  RecordTypes types_;
  std::map<std::string, const RecordMeta*> wantedTypes_;  // by their texts
  std::vector<FieldView> fields_;
  std::optional<Inspect::TypeCheck> check_;  // of the values that are not exported as records
  std::unique_ptr<RowWriter> writer_;
  uint64_t rows_ = 0;
  uint64_t others_ = 0;
};

}  // namespace

int RunExport(const Invocation& line) {
  return Exporter(line).Run();
}

}  // namespace Kestrun::Tools
