// bench.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>

#include "inspect/store_directory.h"
#include "kestrun/status.h"
#include "tools/bytes_text.h"
#include "tools/failure.h"
#include "tools/interrupt.h"
#include "tools/json_writer.h"
#include "tools/progress.h"
#include "tools/quantities.h"
#include "tools/store_access.h"
#include "tools/streams.h"
#include "tools/table.h"

namespace Kestrun::Tools {
namespace {

// A new directory that goes with the object, store and all.
class BenchDirectory {
 public:
  explicit BenchDirectory(const std::string& parent) : path_(parent + "/kestrun-bench-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) {
      throw SystemFailure(ShownPath(parent) + ": no directory can be made there: " + std::strerror(errno),
                          "Name a directory that you may write to.");
    }
  }
  ~BenchDirectory() {
    std::string why;
    if (const auto files = Inspect::ListStore(path_, &why)) {
      for (const std::string& block : files->blocks) unlink(Inspect::BlockPath(path_, block).c_str());
      unlink(Inspect::SchemaPath(path_).c_str());
      unlink(Inspect::ManifestPath(path_).c_str());
      unlink(Inspect::LogPath(path_).c_str());
    }
    rmdir(path_.c_str());
  }
  BenchDirectory(const BenchDirectory&) = delete;
  BenchDirectory& operator=(const BenchDirectory&) = delete;

  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

class Bench {
 public:
  Bench(const Invocation& line, Store& store, uint64_t entries, uint64_t valueSize)
      : line_(line), store_(store), entries_(entries), value_(static_cast<size_t>(valueSize), 'v') {
    // Of a value that a store can't press together by being all the same nothing would be different here.
    for (size_t i = 0; i < value_.size(); ++i) value_[i] = static_cast<char>('a' + i * 7 % 26);
  }

  void Run() {
    Measure("put, one by one", entries_, [this](uint64_t i) { return store_.Put(KeyNumber(i), value_); });
    Measure("put, 100 in a batch", entries_, [this](uint64_t i) {
      if (const uint32_t status = batch_.Put(KeyNumber(entries_ + i), value_); status != kStatusOk)
        return status;
      if (batch_.Count() < 100 && i + 1 != entries_) return kStatusOk;
      const uint32_t status = store_.Write(batch_);
      batch_.Clear();
      return status;
    });
    Measure("get, from log and blocks", entries_,
            [this](uint64_t i) { return store_.Get(KeyNumber(i * 7919 % (2 * entries_)), &found_); });
    std::unique_ptr<Cursor> cursor;
    std::unique_ptr<Snapshot> snapshot;
    Require(store_.TakeSnapshot(&snapshot), "taking a snapshot");
    Require(snapshot->NewCursor(Range::All(), &cursor), "walking");
    cursor->SeekToFirst();
    Measure("scan, keys and values", 2 * entries_, [&cursor](uint64_t) {
      std::string_view value;
      if (!cursor->Valid()) return kStatusInvalid;
      const uint32_t status = cursor->Value(&value);
      cursor->Next();
      return status;
    });
    constexpr uint64_t kSyncs = 20;
    Measure("put and sync to the disk", kSyncs, [this](uint64_t i) {
      const uint32_t status = store_.Put(KeyNumber(i), value_);
      return status != kStatusOk ? status : store_.Sync();
    });
    Measure("compact", 1, [this](uint64_t) { return store_.Compact(); });
    if (!IsJson(line_)) table_.Write();
  }

 private:
  static std::string KeyNumber(uint64_t number) {
    std::string key = std::to_string(number);
    return "key-" + std::string(key.size() < 10 ? 10 - key.size() : 0, '0') + key;
  }

  void Measure(const char* what, uint64_t operations, const std::function<uint32_t(uint64_t)>& operation) {
    Progress progress(what, operations, "operations");
    const auto start = std::chrono::steady_clock::now();
    for (uint64_t i = 0; i < operations; ++i) {
      progress.Update(i, i);
      if ((i & 1023) == 0 && WasInterrupted()) throw Interrupted("interrupted; nothing is left");
      Require(operation(i), what, line_.Store());
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    const double seconds = std::max(took.count(), 1e-9);
    const auto perSecond = static_cast<uint64_t>(static_cast<double>(operations) / seconds);
    const auto micros = static_cast<uint64_t>(seconds * 1e9 / static_cast<double>(operations));
    if (IsJson(line_)) {
      JsonWriter json;
      json.BeginObject().Name("what").Text(what).Name("operations").Number(operations);
      json.Name("perSecond").Number(perSecond).Name("nanoseconds").Number(micros);
      WriteJsonLine(json.EndObject());
      return;
    }
    table_.Add({what, Grouped(operations), Grouped(perSecond),
                Grouped(micros / 1000) + "." + std::to_string(micros % 1000 / 100)});
  }

  const Invocation& line_;
  Store& store_;
  uint64_t entries_;
  std::string value_;
  WriteBatch batch_;
  std::optional<std::string> found_;
  Table table_ = MakeTable();

  static Table MakeTable() {
    Table table({Align::Left, Align::Right, Align::Right, Align::Right});
    table.Add({"OPERATION", "COUNT", "PER SECOND", "MICROSECONDS"});
    return table;
  }
};

}  // namespace

int RunBench(const Invocation& line) {
  constexpr uint64_t kMaxEntries = 100000000;
  const uint64_t entries = NumberOf(line, "--entries", 100000);
  if (entries == 0 || entries > kMaxEntries) throw UsageError("--entries takes a number from 1 to 100000000");
  const std::string* sizeText = line.Find("--value-size");
  const auto valueSize = sizeText == nullptr ? std::optional<uint64_t>(100) : ParseSize(*sizeText, 1 << 20);
  if (!valueSize) throw UsageError("--value-size takes a number of bytes up to 1M");

  const InterruptGuard guard;
  const BenchDirectory directory(line.Store());
  StoreOptions options;
  std::unique_ptr<Store> store;
  Require(Store::Open(directory.Path(), options, &store), ShownPath(directory.Path()), directory.Path());
  Bench(line, *store, entries, *valueSize).Run();
  return kExitDone;
}

}  // namespace Kestrun::Tools
