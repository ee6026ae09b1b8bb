// kestrun_bench: what the store's operations cost, each beside what it can't do without. Results go to
// standard error and, with --benchmark_out, to a file: the library prints its diagnostics to standard output.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "kestrun/kestrun.h"

namespace {

namespace fs = std::filesystem;
using Kestrun::Key;
using Kestrun::LSDBImpl;

constexpr unsigned int kLongLife = 4294967295;
constexpr unsigned int kValueSize = 100;

void Require(uint32_t status, const char* what) {
  if (status == Kestrun::kStatusOk) return;
  std::cerr << what << ": " << Kestrun::StatusName(status) << '\n';
  std::exit(1);
}

// A directory below the current one that goes with its owner: the numbers are about the disk that is
// measured.
class Scratch {
 public:
  Scratch() {
    std::string name = (fs::current_path() / "bench-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) Require(Kestrun::kStatusDirectoryFailed, "scratch directory");
    path_ = name;
  }
  ~Scratch() { fs::remove_all(path_); }
  std::string Path(const std::string& name) const { return (path_ / name).string(); }

 private:
  fs::path path_;
};

std::unique_ptr<LSDBImpl> OpenStore(const std::string& path, uint32_t walSize) {
  LSDBImpl* store = nullptr;
  Require(LSDBImpl::Open(path, {walSize, 0}, &store), "open");
  return std::unique_ptr<LSDBImpl>(store);
}

std::string KeyText(uint64_t number) {
  char text[32];
  std::snprintf(text, sizeof(text), "key%010llu", static_cast<unsigned long long>(number));
  return text;
}

void Insert(LSDBImpl& store, uint64_t number) {
  const std::string value(kValueSize, static_cast<char>('a' + number % 26));
  Require(store.Insert(KeyText(number), kLongLife, value.data(), kValueSize), "insert");
}

std::string FillName(uint64_t blocks, uint64_t perBlock) {
  return std::to_string(blocks) + "x" + std::to_string(perBlock);
}

// A store of equal blocks over disjoint, interleaved keys.
std::unique_ptr<LSDBImpl> FillBlocks(const std::string& path, uint64_t blocks, uint64_t perBlock) {
  std::unique_ptr<LSDBImpl> store = OpenStore(path, static_cast<uint32_t>(4096 + perBlock * 160));
  for (uint64_t block = 0; block < blocks; ++block) {
    for (uint64_t i = 0; i < perBlock; ++i) Insert(*store, i * blocks + block);
    Require(store->ResetWal(), "flush");
  }
  return store;
}

bool SetLock(int descriptor, short type, off_t start, off_t length) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = start;
  lock.l_len = length;
  return fcntl(descriptor, F_SETLK, &lock) == 0;
}

// The four calls that order a writer, or a reader, among processes: no operation can be quicker.
void LockCalls(benchmark::State& state, short gateType, bool releaseGateEarly) {
  const Scratch scratch;
  const int descriptor = open(scratch.Path("locked").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  constexpr off_t kGate = 0x40000000;
  for (auto _ : state) {
    bool done = SetLock(descriptor, gateType, kGate, 1) && SetLock(descriptor, gateType, kGate + 1, 511);
    if (releaseGateEarly) {
      done = done && SetLock(descriptor, F_UNLCK, kGate, 1) && SetLock(descriptor, F_UNLCK, kGate + 1, 511);
    } else {
      done = done && SetLock(descriptor, F_UNLCK, kGate + 1, 511) && SetLock(descriptor, F_UNLCK, kGate, 1);
    }
    if (!done) state.SkipWithError("the lock was not obtained");
  }
  close(descriptor);
}
void WriterLockCalls(benchmark::State& state) {
  LockCalls(state, F_WRLCK, false);
}
void ReaderLockCalls(benchmark::State& state) {
  LockCalls(state, F_RDLCK, true);
}
BENCHMARK(WriterLockCalls);
BENCHMARK(ReaderLockCalls);

// An insert into a log that never fills: the entries go round a set of keys.
void InsertIntoLog(benchmark::State& state) {
  const Scratch scratch;
  const auto keys = static_cast<uint64_t>(state.range(0));
  const std::unique_ptr<LSDBImpl> store = OpenStore(scratch.Path("store"), 512u << 20);
  std::vector<Key> names;
  for (uint64_t i = 0; i < keys; ++i) names.emplace_back(KeyText(i * 7919 % keys));
  const std::string value(kValueSize, 'v');
  uint64_t next = 0;
  uint64_t left = 3000000;
  for (auto _ : state) {
    if (--left == 0) {
      state.PauseTiming();
      Require(store->Clear(), "clear");
      left = 3000000;
      state.ResumeTiming();
    }
    Require(store->Insert(names[next], kLongLife, value.data(), kValueSize), "insert");
    if (++next == keys) next = 0;
  }
}
BENCHMARK(InsertIntoLog)->Arg(10000);

void Get(benchmark::State& state, LSDBImpl& store, uint64_t keys) {
  std::vector<Key> names;
  for (uint64_t i = 0; i < keys; ++i) names.emplace_back(KeyText(i * 7919 % keys));
  uint64_t next = 0;
  for (auto _ : state) {
    const void* value = nullptr;
    unsigned int size = 0;
    Require(store.Get(names[next], &value, &size), "get");
    if (size != kValueSize) state.SkipWithError("a key is missing");
    std::free(const_cast<void*>(value));
    if (++next == keys) next = 0;
  }
}

void GetFromLog(benchmark::State& state) {
  const Scratch scratch;
  const auto keys = static_cast<uint64_t>(state.range(0));
  const std::unique_ptr<LSDBImpl> store = OpenStore(scratch.Path("store"), 64u << 20);
  for (uint64_t i = 0; i < keys; ++i) Insert(*store, i);
  Get(state, *store, keys);
}
BENCHMARK(GetFromLog)->Arg(10000);

void GetFromBlock(benchmark::State& state) {
  const Scratch scratch;
  const auto keys = static_cast<uint64_t>(state.range(0));
  const std::unique_ptr<LSDBImpl> store = FillBlocks(scratch.Path("store"), 1, keys);
  Get(state, *store, keys);
}
BENCHMARK(GetFromBlock)->Arg(10000);

// A flush of a full log; it ends with the disk's own part, two fsyncs of files and one of the directory.
void Flush(benchmark::State& state) {
  const Scratch scratch;
  const auto entries = static_cast<uint64_t>(state.range(0));
  const std::unique_ptr<LSDBImpl> store =
      OpenStore(scratch.Path("store"), static_cast<uint32_t>(4096 + entries * 160));
  for (auto _ : state) {
    state.PauseTiming();
    Require(store->Clear(), "clear");
    for (uint64_t i = 0; i < entries; ++i) Insert(*store, i);
    state.ResumeTiming();
    Require(store->ResetWal(), "flush");
  }
  state.SetBytesProcessed(
      static_cast<int64_t>(static_cast<uint64_t>(state.iterations()) * entries * kValueSize));
}
BENCHMARK(Flush)->Arg(26000)->Unit(benchmark::kMillisecond);

// A hundred keys out of stores of growing size: the cost must follow the range.
void ListHundredKeys(benchmark::State& state) {
  const Scratch scratch;
  const auto perBlock = static_cast<uint64_t>(state.range(0));
  const std::unique_ptr<LSDBImpl> store = FillBlocks(scratch.Path("store"), 4, perBlock);
  const uint64_t middle = perBlock * 2;
  const Key from(KeyText(middle));
  const Key to(KeyText(middle + 100));
  for (auto _ : state) {
    int keys = 0;
    Require(store->EnumerateKeys(from, to,
                                 [&keys](const Key&) {
                                   ++keys;
                                   return false;
                                 }),
            "list");
    if (keys != 100) state.SkipWithError("keys are missing");
  }
}
BENCHMARK(ListHundredKeys)->Arg(1000)->Arg(10000)->Arg(100000);

// Ten blocks of 4 MiB. The entries count with their keys and values; the fsyncs are part of it.
void Compact(benchmark::State& state) {
  const Scratch scratch;
  const uint64_t blocks = 10;
  const auto perBlock = static_cast<uint64_t>(state.range(0));
  int round = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const std::string path = scratch.Path(FillName(blocks, perBlock) + "-" + std::to_string(round++));
    std::unique_ptr<LSDBImpl> store = FillBlocks(path, blocks, perBlock);
    uint64_t bytes = 0;
    for (const auto& file : fs::directory_iterator(path)) {
      if (file.path().extension() == ".blk_v5") bytes += file.file_size();
    }
    state.ResumeTiming();
    Require(store->ForceCompact(), "compact");
    state.PauseTiming();
    state.counters["bytes_per_second"] =
        benchmark::Counter(static_cast<double>(bytes), benchmark::Counter::kIsIterationInvariantRate);
    store.reset();
    Require(LSDBImpl::Remove(path), "remove");
    state.ResumeTiming();
  }
}
BENCHMARK(Compact)->Arg(26000)->Unit(benchmark::kMillisecond)->Iterations(3);

// What compaction can't do without: writing and forcing as many bytes as it reads.
void WriteAndSync(benchmark::State& state) {
  const Scratch scratch;
  const std::vector<char> piece(256 * 1024, 'x');
  const int64_t bytes = state.range(0);
  for (auto _ : state) {
    const int descriptor = open(scratch.Path("file").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    for (int64_t done = 0; done < bytes; done += static_cast<int64_t>(piece.size())) {
      if (write(descriptor, piece.data(), piece.size()) < 0) state.SkipWithError("write failed");
    }
    if (fsync(descriptor) != 0) state.SkipWithError("fsync failed");
    close(descriptor);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * bytes);
}
BENCHMARK(WriteAndSync)->Arg(40 << 20)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::ConsoleReporter console;
  console.SetOutputStream(&std::cerr);
  console.SetErrorStream(&std::cerr);
  benchmark::RunSpecifiedBenchmarks(&console);
  return 0;
}
