// import.
#include <algorithm>
#include <memory>

#include "inspect/escape.h"
#include "kestrun/status.h"
#include "tools/bytes_text.h"
#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/json_writer.h"
#include "tools/progress.h"
#include "tools/quantities.h"
#include "tools/row_decoder.h"
#include "tools/seen_keys.h"
#include "tools/store_access.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

constexpr uint64_t kMaxShownProblems = 100;
// A batch is written at once, under one lock; it takes at most a quarter of the log.
constexpr size_t kMaxBatchBytes = 256 << 10;

struct ImportCounts {
  uint64_t rows = 0;
  uint64_t stored = 0;
  uint64_t duplicates = 0;  // of keys that were there, in the store or earlier in the file
  uint64_t skipped = 0;     // bad ones
};

// Where the rows go: batches, and who was there before.
class Destination {
 public:
  Destination(const Invocation& line, ImportCounts* counts)
      : line_(line), noOverwrite_(line.Has("--no-overwrite")), counts_(counts) {
    store_ = OpenStore(line, Access::Create);
    maxUnopened_ = 4 * LogCapacity(line);
    maxBatch_ = std::min<uint64_t>(kMaxBatchBytes, LogCapacity(line) / 4);
    std::unique_ptr<Snapshot> before;
    Require(store_->TakeSnapshot(&before), ShownPath(line.Store()));
    const auto cursor = OpenCursor(*before, Range::All());
    cursor->SeekToFirst();
    wasEmpty_ = !cursor->Valid() && cursor->Status() == kStatusOk;
  }

  // The status of adding or writing. A row that is left alone is counted as a duplicate.
  uint32_t Add(const DecodedRow& row) {
    bool isDuplicate = false;
    if (const uint32_t status = FindDuplicate(row.key, &isDuplicate); status != kStatusOk) return status;
    if (isDuplicate) ++counts_->duplicates;
    if (isDuplicate && noOverwrite_) return kStatusOk;
    if (batch_.ByteSize() + MaxSizeOf(row) > maxBatch_) {
      if (const uint32_t status = Write(); status != kStatusOk) return status;
    }
    if (row.type == nullptr) return batch_.Put(row.key, row.value, row.ttl);
    // Only a store of typed records has a file of their types.
    if (records_ == nullptr) records_ = OpenRecordStore(line_, Access::Existing);
    return records_->AddToBatch(&batch_, row.key, *row.type, row.values, row.ttl);
  }

  uint32_t Write() {
    if (batch_.Count() == 0) return kStatusOk;
    const uint32_t status = store_->Write(batch_);
    if (status == kStatusOk) counts_->stored += batch_.Count();
    unopened_ += batch_.ByteSize();
    batch_.Clear();
    // A store keeps blocks that it has written or looked into in memory; opened anew it has none.
    if (status != kStatusOk || unopened_ < maxUnopened_) return status;
    unopened_ = 0;
    records_.reset();
    store_.reset();
    store_ = OpenStore(line_, Access::Existing);
    return kStatusOk;
  }

 private:
  // A key that was certainly not seen in this file needs no look, where the store was empty.
  uint32_t FindDuplicate(const std::string& key, bool* isDuplicate) {
    const bool maybe = seen_.AddAndTellWhetherMaybeSeen(key);
    if (!maybe && wasEmpty_) return kStatusOk;
    if (maybe) {
      // It may stand in the batch.
      if (const uint32_t status = Write(); status != kStatusOk) return status;
    }
    return store_->Contains(key, isDuplicate);
  }

  // The bytes that the row takes in the log, or fewer.
  static uint64_t MaxSizeOf(const DecodedRow& row) {
    constexpr uint64_t kHeaders = 42;
    uint64_t size = kHeaders + row.key.size() + (row.type == nullptr ? row.value.size() : 0);
    if (row.type == nullptr) return size;
    for (const Value& value : row.values) {
      size += 8;
      if (value.type == ValueType::String) size += value.str.size();
      if (value.type == ValueType::Binary) size += value.binarySize;
    }
    return size;
  }

  const Invocation& line_;
  bool noOverwrite_;
  ImportCounts* counts_;
  std::unique_ptr<Store> store_;
  std::unique_ptr<RecordStore> records_;
  WriteBatch batch_;
  uint64_t maxBatch_ = 0;
  uint64_t unopened_ = 0;  // bytes written since the store was opened
  uint64_t maxUnopened_ = 0;
  bool wasEmpty_ = false;
  SeenKeys seen_;
};

void TellAccount(const Invocation& line, const ImportCounts& counts) {
  if (IsJson(line)) {
    JsonWriter json;
    json.BeginObject().Name("rows").Number(counts.rows).Name("stored").Number(counts.stored);
    json.Name("duplicates").Number(counts.duplicates).Name("skipped").Number(counts.skipped);
    WriteJsonLine(json.EndObject());
  }
  std::string text = "stored " + std::to_string(counts.stored) + " of " + Counted(counts.rows, "row", "rows");
  if (counts.duplicates != 0) text += ", " + Counted(counts.duplicates, "duplicate key", "duplicate keys");
  if (counts.skipped != 0) text += ", " + Counted(counts.skipped, "bad row", "bad rows") + " left out";
  PrintAccount(text);
}

class Importer {
 public:
  explicit Importer(const Invocation& line) : line_(line) {}

  int Run() {
    const std::string& path = line_.positionals[1];
    LogSizeOf(line_);
    const RowFormat format = FormatOf(line_, path);
    const InterruptGuard guard;
    source_ = OpenRows(line_, path, format);
    RowDecoder decoder(line_, *source_, format);
    capacity_ = LogCapacity(line_);
    const char* unit = format == RowFormat::Sqlite || format == RowFormat::Json ? " row " : ":";
    place_ = source_->Name() + unit;

    // The store is opened, and perhaps made, when the first row is known to be good.
    Progress progress("importing", source_->Size());
    Row row;
    DecodedRow decoded;
    while (!WasInterrupted() && source_->Next(&row)) {
      ++counts_.rows;
      std::string why;
      if (!decoder.Decode(row, &decoded, &why) || !Fits(decoded, &why)) {
        TakeBadRow(row, why);
        continue;
      }
      if (!destination_) destination_ = std::make_unique<Destination>(line_, &counts_);
      if (const uint32_t status = destination_->Add(decoded); status != kStatusOk) Fail(status, row);
      progress.Update(source_->Position(), counts_.rows);
    }
    if (!destination_ && !WasInterrupted()) destination_ = std::make_unique<Destination>(line_, &counts_);
    if (destination_) {
      if (const uint32_t status = destination_->Write(); status != kStatusOk) Fail(status, row);
    }
    TellAccount(line_, counts_);
    if (WasInterrupted()) throw Interrupted("interrupted; " + SoFar());
    return kExitDone;
  }

 private:
  // What a record takes is known when it is encoded; a raw value is told before.
  bool Fits(const DecodedRow& row, std::string* why) const {
    constexpr uint64_t kRecordHeader = 40;
    const uint64_t needed = kRecordHeader + row.key.size() + row.value.size();
    if (row.type != nullptr || needed <= capacity_) return true;
    *why = "takes " + std::to_string(needed) + " bytes in the log, which holds " + std::to_string(capacity_) +
           "; give a larger --log-size";
    return false;
  }

  std::string SoFar() const {
    if (counts_.stored == 0) return "nothing was stored";
    return Counted(counts_.stored, "row is stored and stays", "rows are stored and stay") +
           "; the same import may be run again";
  }

  void TakeBadRow(const Row& row, const std::string& why) {
    const std::string problem = place_ + std::to_string(row.line) + ": " + why;
    if (line_.Has("--skip-bad-rows")) {
      ++counts_.skipped;
      if (counts_.skipped <= kMaxShownProblems) {
        PrintAccount(problem);
      } else if (counts_.skipped == kMaxShownProblems + 1) {
        PrintAccount(source_->Name() + ": more rows like these are not listed");
      }
      return;
    }
    if (destination_) {
      if (const uint32_t status = destination_->Write(); status != kStatusOk) Fail(status, row);
    }
    TellAccount(line_, counts_);
    throw InputError(problem + "; " + SoFar(),
                     "Correct the row, or leave such rows out with --skip-bad-rows.");
  }

  [[noreturn]] void Fail(uint32_t status, const Row& row) {
    TellAccount(line_, counts_);
    throw StoreFailure(status,
                       place_ + std::to_string(row.line) + ": storing the rows up to here; " + SoFar(),
                       line_.Store());
  }

  const Invocation& line_;
  std::unique_ptr<RowSource> source_;
  std::unique_ptr<Destination> destination_;
  ImportCounts counts_;
  uint64_t capacity_ = 0;
  std::string place_;  // what comes before the number of a row in messages
};

}  // namespace

int RunImport(const Invocation& line) {
  return Importer(line).Run();
}

}  // namespace Kestrun::Tools
