#include "rows.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>

#include "measure.h"
#include "peers/peer.h"

namespace Bench {
namespace {

namespace fs = std::filesystem;

constexpr double kMillion = 1e6;
constexpr uint64_t kBatch = 100;

// 16 decimal digits. The keys of a store are even numbers, those that are asked for in
// vain odd ones between them.
class KeyText {
 public:
  explicit KeyText(uint64_t number) {
    for (size_t at = text_.size(); at-- > 0; number /= 10) text_[at] = static_cast<char>('0' + number % 10);
  }
  operator std::string_view() const { return {text_.data(), text_.size()}; }

 private:
  std::array<char, 16> text_;
};

KeyText KeyOf(uint64_t index) {
  return KeyText(2 * index);
}
KeyText MissingKeyOf(uint64_t index) {
  return KeyText(2 * index + 1);
}

uint64_t Mix(uint64_t number) {
  number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9;
  number = (number ^ (number >> 27)) * 0x94d049bb133111eb;
  return number ^ (number >> 31);
}

// The numbers below `size`, each once, in an order without a pattern and without memory: a Feistel network
// over the next power of four, walked until it falls below `size`.
class Shuffled {
 public:
  Shuffled(uint64_t size, uint64_t seed) : size_(size), seed_(seed) {
    while ((uint64_t{1} << (2 * halfBits_)) < size) ++halfBits_;
  }
  uint64_t operator()(uint64_t index) const {
    const uint64_t mask = (uint64_t{1} << halfBits_) - 1;
    do {
      uint64_t left = index >> halfBits_;
      uint64_t right = index & mask;
      for (uint64_t round = 0; round < 4; ++round) {
        const uint64_t next = left ^ (Mix(right + (round << 32) + seed_) & mask);
        left = right;
        right = next;
      }
      index = left << halfBits_ | right;
    } while (index >= size_);
    return index;
  }

 private:
  uint64_t size_;
  uint64_t seed_;
  unsigned halfBits_ = 1;
};

// Bytes without a pattern; values are cut from them.
class Values {
 public:
  explicit Values(uint64_t size) : bytes_(64 * 1024 + size, '\0'), size_(size) {
    for (size_t i = 0; i < bytes_.size(); ++i) bytes_[i] = static_cast<char>(Mix(i) & 0xff);
  }
  std::string_view Of(uint64_t number) const { return {bytes_.data() + (number * 61) % (64 * 1024), size_}; }

 private:
  std::string bytes_;
  uint64_t size_;
};

// One row in one process: the store, the clock and the results.
class Run {
 public:
  Run(const Setting& setting, int resultDescriptor)
      : setting_(setting),
        result_(resultDescriptor),
        entries_(setting.entries),
        values_(setting.valueBytes),
        lockUnit_(setting.directory + "/lock-unit"),
        peer_(MakePeer()) {
    options_.path = setting.directory + "/store";
    options_.logBytes = setting.logBytes;
    options_.mapBytes = std::max<uint64_t>(uint64_t{1} << 30, 8 * entries_ * (16 + setting.valueBytes));
  }

  // The entries that fit into three quarters of the log.
  uint64_t LogEntries() const { return setting_.logBytes * 3 / 4 / (56 + setting_.valueBytes); }
  uint64_t Entries() const { return entries_; }
  void UseEntries(uint64_t entries) { entries_ = entries; }
  uint64_t LiveBytes() const { return entries_ * (16 + setting_.valueBytes); }
  const Setting& Given() const { return setting_; }
  Options& StoreOptions() { return options_; }
  Peer& Store() { return *peer_; }
  std::string_view ValueOf(uint64_t number) const { return values_.Of(number); }

  void Open() { Require(peer_->Open(options_), "open"); }

  void PutOne(uint64_t index, uint64_t generation = 0) {
    Require(peer_->Put(KeyOf(index), values_.Of(index + generation)), "put");
  }

  // Puts all entries, in an order without a pattern, in batches where the store has them.
  void Fill(uint64_t generation = 0) {
    const Shuffled order(entries_, generation);
    for (uint64_t i = 0; i < entries_; i += kBatch) WriteBatch(order, i, generation);
    AwaitIdle();
  }
  // The same in ascending order, which is quicker: for a store that is compacted next.
  void FillAscending() {
    for (uint64_t i = 0; i < entries_; i += kBatch) WriteBatch([](uint64_t index) { return index; }, i, 0);
    AwaitIdle();
  }

  void WriteBatch(const std::function<uint64_t(uint64_t)>& order, uint64_t begin, uint64_t generation) {
    keys_.clear();
    keys_.reserve(kBatch);
    batch_.clear();
    for (uint64_t i = begin; i < std::min(begin + kBatch, entries_); ++i) {
      const uint64_t index = order(i);
      keys_.push_back(KeyOf(index));
      batch_.emplace_back(keys_.back(), values_.Of(index + generation));
    }
    Require(peer_->Write(batch_), "batch");
  }

  void GetOne(uint64_t index, bool present) {
    bool found = false;
    Require(peer_->Get(present ? KeyOf(index) : MissingKeyOf(index), &value_, &found), "get");
    Require(found == present && (!present || value_.size() == setting_.valueBytes), "finding what was put");
  }

  void GetOneFromSnapshot(uint64_t index) {
    bool found = false;
    Require(peer_->GetFromSnapshot(KeyOf(index), &value_, &found), "get through a snapshot");
    Require(found && value_.size() == setting_.valueBytes, "finding what was put");
  }

  // Times `operation` of 0 to `times` - 1 in slices, each followed by a sample of the lock unit, and reports
  // the means of both and the distribution. The means leave out what the thread waited for a processor. Work
  // that leaves the store as it was may end after `limitNanos`.
  void Time(uint64_t times, const std::function<void(uint64_t)>& operation, double perOperation = 1,
            uint64_t limitNanos = UINT64_MAX) {
    constexpr uint64_t kSlices = 25;
    Histogram histogram;
    const uint64_t writtenBefore = WrittenBytes();
    uint64_t nanos = 0;
    uint64_t wallNanos = 0;
    for (uint64_t slice = 0; slice < kSlices; ++slice) {
      const Stopwatch stopwatch;
      uint64_t last = NowNanos();
      for (uint64_t i = times * slice / kSlices; i < times * (slice + 1) / kSlices && nanos < limitNanos;
           ++i) {
        operation(i);
        const uint64_t now = NowNanos();
        histogram.Add(now - last);
        wallNanos += now - last;
        last = now;
      }
      const uint64_t spent = stopwatch.Nanos();
      nanos += spent;
      lockUnit_.Sample(spent / 10);
    }
    const double mean = static_cast<double>(nanos) / static_cast<double>(histogram.Count()) / perOperation;
    Report("figure", mean / lockUnit_.Nanos());
    Report("mean_ns", mean);
    Report("lock_unit_ns", lockUnit_.Nanos());
    Report("waited_share", std::max(0.0, 1 - static_cast<double>(nanos) / static_cast<double>(wallNanos)));
    Report("p50_ns", static_cast<double>(histogram.Quantile(0.5)));
    Report("p99_ns", static_cast<double>(histogram.Quantile(0.99)));
    Report("p999_ns", static_cast<double>(histogram.Quantile(0.999)));
    Report("max_ns", static_cast<double>(histogram.Max()));
    Report("per_second", 1e9 / mean);
    Report("written_bytes", static_cast<double>(WrittenBytes() - writtenBefore));
  }

  void Report(const char* name, double number) { dprintf(result_, "%s\t%.9g\n", name, number); }
  void ReportImpossible() { dprintf(result_, "impossible\n"); }

  // Figures of the whole process; the store is closed before its files are counted.
  void Finish() {
    AwaitIdle();
    peer_->Close();
    Report("disk_bytes", static_cast<double>(DiskBytes(options_.path)));
    Report("total_written_bytes", static_cast<double>(WrittenBytes()));
    Report("peak_memory_bytes", static_cast<double>(PeakMemory()));
    Report("live_bytes", static_cast<double>(LiveBytes()));
  }

 private:
  Setting setting_;
  int result_;
  uint64_t entries_;
  Values values_;
  LockUnit lockUnit_;
  std::unique_ptr<Peer> peer_;
  Options options_;
  std::vector<KeyText> keys_;  // that batch_ points to
  Bench::Entries batch_;
  std::string value_;
};

// ---- puts and deletes

void PutRandomIntoLog(Run& run) {
  run.UseEntries(run.LogEntries());
  run.Open();
  const Shuffled order(run.Entries(), 1);
  run.Time(run.Entries(), [&](uint64_t i) { run.PutOne(order(i)); });
}

// Goes round a few keys in a log that never fills, after all of them were written once.
void PutAgain(Run& run) {
  run.UseEntries(10'000);
  run.StoreOptions().logBytes = 64 << 20;
  run.Open();
  run.Fill();
  const Shuffled order(run.Entries(), 1);
  run.Time(200'000, [&](uint64_t i) { run.PutOne(order(i % run.Entries())); });
}

void PutRandom(Run& run) {
  run.Open();
  const Shuffled order(run.Entries(), 1);
  run.Time(run.Entries(), [&](uint64_t i) { run.PutOne(order(i)); });
}

void PutAscending(Run& run) {
  run.Open();
  run.Time(run.Entries(), [&](uint64_t i) { run.PutOne(i); });
}

void DeleteRandom(Run& run) {
  run.Open();
  run.Fill();
  const Shuffled order(run.Entries(), 1);
  run.Time(run.Entries(), [&](uint64_t i) { Require(run.Store().Delete(KeyOf(order(i))), "delete"); });
}

void PutBatches(Run& run) {
  if (!run.Store().CanBatch()) return run.ReportImpossible();
  run.Open();
  const Shuffled order(run.Entries(), 1);
  run.Time(
      run.Entries() / kBatch, [&](uint64_t i) { run.WriteBatch(order, i * kBatch, 0); }, kBatch);
}

// ---- gets

// Times `get` of entries in an order without a pattern, after each was read once or a while has passed.
void TimeReads(Run& run, const std::function<void(uint64_t)>& get) {
  constexpr uint64_t kLimitNanos = 4'000'000'000;
  const Shuffled order(run.Entries(), 2);
  const uint64_t start = NowNanos();
  for (uint64_t i = 0; i < run.Entries() && (i % 64 != 0 || NowNanos() - start < kLimitNanos); ++i)
    get(order(i));
  run.Time(
      std::max<uint64_t>(run.Entries(), 100'000), [&](uint64_t i) { get(order(i % run.Entries())); }, 1,
      kLimitNanos);
}

void TimeGets(Run& run, bool present) {
  TimeReads(run, [&](uint64_t index) { run.GetOne(index, present); });
}

void FillLog(Run& run) {
  run.UseEntries(run.LogEntries());
  run.Open();
  run.Fill();
}

void FillOneBlock(Run& run) {
  run.Open();
  run.FillAscending();
  Require(run.Store().Flush() && run.Store().Compact(), "compact");
  AwaitIdle();
}

void GetFromLog(Run& run) {
  FillLog(run);
  TimeGets(run, true);
}
void GetMissingWithoutBlocks(Run& run) {
  FillLog(run);
  TimeGets(run, false);
}
void GetMixed(Run& run) {
  run.Open();
  run.Fill();
  TimeGets(run, true);
}
void GetFromBlock(Run& run) {
  FillOneBlock(run);
  TimeGets(run, true);
}
void GetMissingFromBlock(Run& run) {
  FillOneBlock(run);
  TimeGets(run, false);
}

void TimeSnapshotGets(Run& run) {
  Require(run.Store().TakeSnapshot(), "snapshot");
  TimeReads(run, [&](uint64_t index) { run.GetOneFromSnapshot(index); });
  run.Store().ReleaseSnapshot();
}
void GetFromSnapshotLog(Run& run) {
  if (!run.Store().CanSnapshot()) return run.ReportImpossible();
  FillLog(run);
  TimeSnapshotGets(run);
}
void GetFromSnapshotBlock(Run& run) {
  if (!run.Store().CanSnapshot()) return run.ReportImpossible();
  FillOneBlock(run);
  TimeSnapshotGets(run);
}

// As many blocks of the log's size, over interleaved keys, as the entries take; nothing merges them.
void GetFromManyBlocks(Run& run) {
  constexpr uint64_t kBlocks = 40;
  run.StoreOptions().compactsByItself = false;
  run.StoreOptions().logBytes = run.Entries() / kBlocks * (64 + run.Given().valueBytes) + 4096;
  run.Open();
  for (uint64_t block = 0; block < kBlocks; ++block) {
    for (uint64_t i = block; i < run.Entries(); i += kBlocks) run.PutOne(i);
    Require(run.Store().Flush(), "flush");
  }
  TimeGets(run, true);
}

// ---- scans

void TimeScans(Run& run, bool values) {
  constexpr uint64_t kLength = 100;
  FillOneBlock(run);
  const Shuffled order(run.Entries() - kLength, 3);
  const auto scan = [&](uint64_t i) {
    const uint64_t begin = order(i);
    uint64_t count = 0;
    uint64_t bytes = 0;
    Require(run.Store().Scan(KeyOf(begin), KeyOf(begin + kLength), values, &count, &bytes), "scan");
    Require(count == kLength && bytes == kLength * (16 + (values ? run.Given().valueBytes : 0)),
            "scanning all");
  };
  for (uint64_t i = 0; i < 500; ++i) scan(i);
  run.Time(4000, scan, 1, 4'000'000'000);
}
void ScanHundred(Run& run) {
  TimeScans(run, true);
}
void ScanHundredKeys(Run& run) {
  TimeScans(run, false);
}

void FullScan(Run& run) {
  FillOneBlock(run);
  const auto scan = [&] {
    uint64_t count = 0;
    uint64_t bytes = 0;
    const Stopwatch stopwatch;
    Require(run.Store().Scan(KeyOf(0), KeyOf(run.Entries()), true, &count, &bytes), "scan");
    const uint64_t nanos = stopwatch.Nanos();
    Require(count == run.Entries() && bytes == run.LiveBytes(), "scanning all");
    return nanos;
  };
  std::vector<uint64_t> nanos;
  for (int i = 0; i < 6; ++i) nanos.push_back(scan());
  std::sort(nanos.begin() + 1, nanos.end());  // the first one warms up
  run.Report("figure", static_cast<double>(run.Entries()) * 1e9 / static_cast<double>(nanos[3]) / kMillion);
}

// ---- compaction, opening, processes, pauses, space

// Every entry was written twice. Megabytes of what is alive afterwards, per second.
void TimeCompaction(Run& run) {
  run.Open();
  run.Fill(0);
  run.Fill(1);
  Require(run.Store().Flush(), "flush");
  AwaitIdle();
  const Stopwatch stopwatch;
  Require(run.Store().Compact(), "compact");
  const auto nanos = static_cast<double>(stopwatch.Nanos());
  run.Report("figure", static_cast<double>(run.LiveBytes()) * 1e3 / nanos);
  run.Report("mean_ns", nanos);
  run.Report("bare_ns", static_cast<double>(BareFlush(run.Given().directory, run.LiveBytes())));
}

// Runs `work` in a process of its own, where the store leaves neither threads
// nor anything it remembers behind.
void InChild(const std::function<void()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    work();
    _exit(0);
  }
  int status = 0;
  Require(child > 0 && waitpid(child, &status, 0) == child && status == 0, "work in a process of its own");
}

struct OpeningTimes {
  uint64_t opened = 0;  // nanoseconds until the store was open
  uint64_t read = 0;    // until the first value was there
};

// Fills a store, then opens copies of it and reads one key from each. Milliseconds, the median.
void TimeOpening(Run& run, void (*fill)(Run&)) {
  const std::string original = run.StoreOptions().path;
  InChild([&] {
    fill(run);
    run.Store().Close();
  });
  int pipeEnds[2];
  Require(pipe(pipeEnds) == 0, "pipe");
  std::vector<uint64_t> opening;
  std::vector<uint64_t> nanos;
  for (uint64_t i = 0; i < 7; ++i) {
    // `cp` keeps holes, of which some files consist mostly. A copy stays, or the next one may get its inode.
    run.StoreOptions().path = original + "-" + std::to_string(i);
    const std::string command = "cp -r --sparse=auto '" + original + "' '" + run.StoreOptions().path + "'";
    Require(std::system(command.c_str()) == 0, "copying the store");
    InChild([&] {
      const Stopwatch stopwatch;
      run.Open();
      const uint64_t opened = stopwatch.Nanos();
      run.GetOne(run.Entries() / 2 + i, true);
      const OpeningTimes times = {opened, stopwatch.Nanos()};
      Require(write(pipeEnds[1], &times, sizeof(times)) == sizeof(times), "telling the times");
      run.Store().Close();
    });
    OpeningTimes times;
    Require(read(pipeEnds[0], &times, sizeof(times)) == sizeof(times), "hearing the times");
    opening.push_back(times.opened);
    nanos.push_back(times.read);
  }
  std::sort(opening.begin(), opening.end());
  std::sort(nanos.begin(), nanos.end());
  run.Report("figure", static_cast<double>(nanos[nanos.size() / 2]) / kMillion);
  run.Report("open_ns", static_cast<double>(opening[opening.size() / 2]));
  run.Report("max_ns", static_cast<double>(nanos.back()));
}
void OpenFullLog(Run& run) {
  run.UseEntries(run.Given().logBytes * 95 / 100 / (56 + run.Given().valueBytes));
  TimeOpening(run, [](Run& filled) {
    filled.Open();
    filled.Fill();
  });
}
void OpenEmptyLog(Run& run) {
  TimeOpening(run, FillOneBlock);
}

struct WorkerResult {
  uint64_t done = 0;
  uint64_t failed = 0;
  bool opened = false;
};

// One process of several: opens the store, says so, waits for the others, works for a second.
WorkerResult Work(Run& run, uint64_t number, bool writes, int ready, int start) {
  constexpr uint64_t kWorkNanos = 1'000'000'000;
  WorkerResult result;
  result.opened = run.Store().Open(run.StoreOptions());
  char byte = 1;
  if (write(ready, &byte, 1) != 1 || read(start, &byte, 1) != 1 || !result.opened) return result;
  const Shuffled order(run.Entries(), number);
  std::string value;
  const uint64_t end = NowNanos() + kWorkNanos;
  for (uint64_t i = 0; i % 16 != 0 || NowNanos() < end; ++i) {
    const uint64_t index = order(i % run.Entries());
    bool found = true;
    const bool done = writes ? run.Store().Put(KeyOf(index), run.ValueOf(index))
                             : run.Store().Get(KeyOf(index), &value, &found);
    Require(found, "finding what was put");
    ++(done ? result.done : result.failed);
  }
  return result;
}

// Two writers and two readers, each a process, for a second. Thousands of calls per
// second, and those that failed.
void Processes(Run& run) {
  constexpr uint64_t kWorkers = 4;
  InChild([&] {
    run.Open();
    run.Fill();
    run.Store().Close();
  });
  int ready[2];
  int start[2];
  int results[2];
  Require(pipe(ready) == 0 && pipe(start) == 0 && pipe(results) == 0, "pipe");
  std::vector<pid_t> workers;
  for (uint64_t i = 0; i < kWorkers; ++i) {
    const pid_t worker = fork();
    if (worker == 0) {
      const WorkerResult result = Work(run, i, i < 2, ready[1], start[0]);
      const bool told = write(results[1], &result, sizeof(result)) == sizeof(result);
      run.Store().Close();
      _exit(told ? 0 : 1);
    }
    workers.push_back(worker);
  }
  char bytes[kWorkers] = {};
  for (uint64_t i = 0; i < kWorkers; ++i) Require(read(ready[0], bytes, 1) == 1, "a worker's start");
  Require(write(start[1], bytes, kWorkers) == kWorkers, "the start");
  WorkerResult sum;
  bool opened = true;
  for (uint64_t i = 0; i < kWorkers; ++i) {
    WorkerResult result;
    Require(read(results[0], &result, sizeof(result)) == sizeof(result), "a worker's result");
    sum.done += result.done;
    sum.failed += result.failed;
    opened = opened && result.opened;
  }
  for (const pid_t worker : workers) waitpid(worker, nullptr, 0);
  if (!opened) return run.ReportImpossible();
  run.Report("figure", static_cast<double>(sum.done) / 1e3);
  run.Report("failed_calls", static_cast<double>(sum.failed));
}

// The longest put for each log that is filled, the median of them, beside what a flush can't do without.
void LongestPause(Run& run) {
  run.Open();
  const uint64_t perLog = run.Given().logBytes / (56 + run.Given().valueBytes);
  const Shuffled order(run.Entries(), 1);
  std::vector<uint64_t> longest;
  std::vector<uint64_t> bare;
  uint64_t max = 0;
  for (uint64_t i = 0; i < run.Entries(); ++i) {
    const Stopwatch stopwatch;
    run.PutOne(order(i));
    max = std::max(max, stopwatch.Nanos());
    // In the middle of each filling, so that each has one flush.
    if (i % perLog != perLog / 2) continue;
    if (i > perLog) longest.push_back(max);
    max = 0;
    AwaitIdle();
    bare.push_back(BareFlush(run.Given().directory, run.Given().logBytes));
  }
  Require(!longest.empty(), "filling the log twice");
  std::sort(longest.begin(), longest.end());
  std::sort(bare.begin(), bare.end());
  const auto pause = static_cast<double>(longest[longest.size() / 2]);
  const auto beside = static_cast<double>(bare[bare.size() / 2]);
  run.Report("figure", pause / kMillion);
  run.Report("bare_ns", beside);
  run.Report("times_bare", pause / beside);
  run.Report("max_ns", static_cast<double>(longest.back()));
}

// Every entry was written twice, the store then left to itself. Megabytes on the disk.
void DiskAfterOverwrite(Run& run) {
  run.Open();
  run.Fill(0);
  run.Fill(1);
  run.Store().Close();
  run.Report("figure", static_cast<double>(DiskBytes(run.StoreOptions().path)) / kMillion);
}

// Random puts of everything, then gets of a part: what growth costs, in one process because it takes long.
void Grow(Run& run) {
  run.Open();
  const Shuffled order(run.Entries(), 1);
  run.Time(run.Entries(), [&](uint64_t i) { run.PutOne(order(i)); });
  AwaitIdle();
  run.Report("put_memory_bytes", static_cast<double>(PeakMemory()));
  run.Report("written_per_byte", static_cast<double>(WrittenBytes()) / static_cast<double>(run.LiveBytes()));

  constexpr uint64_t kGets = 1'000'000;
  constexpr uint64_t kLimitNanos = 5'000'000'000;
  const Shuffled again(run.Entries(), 2);
  const Stopwatch stopwatch;
  uint64_t done = 0;
  for (; done < kGets && (done % 64 != 0 || stopwatch.Nanos() < kLimitNanos); ++done) {
    run.GetOne(again(done % run.Entries()), true);
  }
  const uint64_t nanos = stopwatch.Nanos();
  run.Report("get_ns", static_cast<double>(nanos) / static_cast<double>(done));
}

const std::map<std::string, void (*)(Run&)> kRows = {
    {"put-random", PutRandomIntoLog},
    {"put-again", PutAgain},
    {"put-random-flush", PutRandom},
    {"put-ascending", PutAscending},
    {"delete-random", DeleteRandom},
    {"put-batch100", PutBatches},
    {"get-log", GetFromLog},
    {"get-missing-empty", GetMissingWithoutBlocks},
    {"get-missing-block", GetMissingFromBlock},
    {"get-mixed", GetMixed},
    {"get-block", GetFromBlock},
    {"get-snapshot-log", GetFromSnapshotLog},
    {"get-snapshot-block", GetFromSnapshotBlock},
    {"get-40-blocks", GetFromManyBlocks},
    {"scan100", ScanHundred},
    {"scan100-keys", ScanHundredKeys},
    {"full-scan", FullScan},
    {"compaction", TimeCompaction},
    {"open-full-log", OpenFullLog},
    {"open-empty-log", OpenEmptyLog},
    {"processes", Processes},
    {"longest-pause", LongestPause},
    {"disk-after-overwrite", DiskAfterOverwrite},
    {"growth", Grow},
};

}  // namespace

bool MeasureRow(const std::string& name, const Setting& setting, int resultDescriptor) {
  const auto row = kRows.find(name);
  if (row == kRows.end()) return false;
  Run run(setting, resultDescriptor);
  row->second(run);
  if (fs::exists(run.StoreOptions().path)) run.Finish();
  return true;
}

}  // namespace Bench
