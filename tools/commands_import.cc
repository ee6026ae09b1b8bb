#include "inspect/escape.h"
#include "kestrun/status.h"
#include "tools/commands.h"
#include "tools/failure.h"
#include "tools/import_rows.h"
#include "tools/input.h"
#include "tools/json_bytes.h"
#include "tools/progress.h"
#include "tools/store.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

constexpr uint64_t kMaxShownProblems = 100;

struct ImportOptions : CommonOptions {
  std::string file;
  std::string format;
  std::optional<std::string> type;
  std::optional<std::string> key;
  bool skipBadRows = false;
};

struct ImportCounts {
  uint64_t rows = 0;
  uint64_t stored = 0;
  uint64_t bad = 0;
  uint64_t unflushed = 0;  // stored under keys that a flush drops
};

void SayProblem(const InputFile& file, const Row& row, const std::string& problem, uint64_t number) {
  if (number <= kMaxShownProblems) {
    PrintMessage(file.Name() + ":" + std::to_string(row.line) + ": " + problem);
  } else if (number == kMaxShownProblems + 1) {
    PrintMessage(file.Name() + ": more rows like these are not listed");
  }
}

// Reads every row without storing one, so that a file with bad rows leaves the store as it was.
ImportCounts Check(const ImportOptions& options, InputFile* file, RowReader* reader,
                   const RowDecoder& decoder) {
  const uint64_t capacity = LogCapacity(options);
  ImportCounts counts;
  Progress progress("checking", file->Size());
  Row row;
  while (reader->Next(&row)) {
    ++counts.rows;
    DecodedRow decoded;
    std::string problem;
    if (!decoder.Decode(row, capacity, &decoded, &problem)) SayProblem(*file, row, problem, ++counts.bad);
    progress.Update(file->Position(), counts.rows);
  }
  return counts;
}

class Destination {
 public:
  Destination(const ImportOptions& options, const RowDecoder& decoder) : ttl_(options.Ttl()) {
    if (decoder.Type() == nullptr) {
      store_ = OpenStore(options, Access::Create);
      return;
    }
    series_ = OpenSeries(options);
    meta_ = series_->CreateRecordMeta(decoder.Type()->text);
    if (meta_ == nullptr)
      throw StoreFailure(kStatusCreateFailed, "the record type could not be added to meta_v5");
  }

  uint32_t Store(const DecodedRow& row) {
    const Key key(row.key);
    return WithRetries([&] {
      if (series_ != nullptr) return series_->AppendRecord(key, ttl_, meta_, row.record.values);
      return store_->Insert(key, ttl_, row.value.data(), static_cast<uint32_t>(row.value.size()));
    });
  }

 private:
  uint32_t ttl_;
  std::unique_ptr<LSDBImpl> store_;
  std::unique_ptr<Series> series_;
  const RecordMeta* meta_ = nullptr;
};

ImportCounts Store(const ImportOptions& options, InputFile* file, RowReader* reader,
                   const RowDecoder& decoder) {
  ImportCounts counts;
  Destination destination(options, decoder);
  const uint64_t capacity = LogCapacity(options);
  Progress progress("importing", file->Size());
  Row row;
  while (reader->Next(&row)) {
    ++counts.rows;
    DecodedRow decoded;
    std::string problem;
    if (!decoder.Decode(row, capacity, &decoded, &problem)) {
      SayProblem(*file, row, problem, ++counts.bad);
      if (options.skipBadRows) continue;
      throw InputError(file->Name() + " changed while it was read; " + std::to_string(counts.stored) +
                       " rows before line " + std::to_string(row.line) + " are stored");
    }
    if (const uint32_t status = destination.Store(decoded); status != kStatusOk) {
      throw StoreFailure(status, file->Name() + ":" + std::to_string(row.line) +
                                     ": the row was not stored, the " + std::to_string(counts.stored) +
                                     " before it were");
    }
    ++counts.stored;
    if (IsDroppedByFlush(decoded.key)) ++counts.unflushed;
    progress.Update(file->Position(), counts.rows);
  }
  return counts;
}

int Import(const ImportOptions& options) {
  options.Ttl();
  options.WalSize();
  const RowFormat format = ChooseFormat(options.format, options.file);
  const RowDecoder decoder(format, options.type, options.key);
  InputFile file(options.file);
  const auto reader = MakeRowReader(&file, format);
  if (reader->Columns() != nullptr) decoder.RequireColumns(*reader->Columns());

  if (!options.skipBadRows) {
    const ImportCounts checked = Check(options, &file, reader.get(), decoder);
    if (checked.bad != 0) {
      throw InputError(
          std::to_string(checked.bad) + " of " + std::to_string(checked.rows) +
          " rows can't be stored, so none was; correct them, or leave them out with --skip-bad-rows");
    }
    reader->Restart();
  }
  const ImportCounts counts = Store(options, &file, reader.get(), decoder);
  if (counts.unflushed != 0) {
    PrintMessage("kestrun: " + std::to_string(counts.unflushed) +
                 " of the rows have keys that begin with the byte 0xFF: they "
                 "stay in the log and are lost when it fills, in this import or later");
  }
  if (options.json) {
    WriteJsonLine({{"rows", counts.rows}, {"stored", counts.stored}, {"bad", counts.bad}});
  } else {
    WriteLine("stored " + std::to_string(counts.stored) + " of " + std::to_string(counts.rows) + " rows");
  }
  return kExitDone;
}

}  // namespace

void AddImportCommand(const Program& program) {
  const auto options = std::make_shared<ImportOptions>();
  CLI::App* command = AddCommand(program.app, "import", "store the rows of a CSV or JSON Lines file",
                                 options.get(), program.chosen, [options] { return Import(*options); });
  command->add_option("FILE", options->file, "the file; '-': standard input")->required();
  command->add_option("--type", options->type,
                      "store typed records of this type, such as 'Weather date:%s,temp_max:%d'");
  command->add_option("--key", options->key, "how keys are made of columns, such as 'seattle-{date}'");
  command->add_option("--format", options->format, "csv or jsonl; default: csv for *.csv, else jsonl");
  command->add_flag("--skip-bad-rows", options->skipBadRows, "leave out rows that can't be stored");
  AddTtl(command, options.get());
  AddWalSize(command, options.get());
}

}  // namespace Kestrun::Tools
