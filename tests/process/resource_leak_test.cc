// A program that uses a store for years must not run out of anything: descriptors, mappings and memory are
// the same after many rounds as after a few.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "kestrun/lsdb.h"
#include "kestrun/series.h"
#include "kestrun/status.h"
#include "tests/support/process_maps.h"
#include "tests/support/random_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/thread_diagnostics.h"

namespace Kestrun {
namespace {

using Testing::ScratchDirectory;
using Testing::ThreadDiagnostics;

constexpr unsigned kForEver = 0xFFFFFFFF;
constexpr uint32_t kWalSize = 64 * 1024;

// A lock record for each file that there ever was stays, and a directory stream for each clear.
constexpr size_t kBytesOfALockRecord = 256;
constexpr size_t kBytesOfAStream = 33 * 1024;
constexpr size_t kSlack = 64 * 1024;

// Sanitizers allocate in their own way and tell nobody.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryIsCounted = false;
#else
constexpr bool kMemoryIsCounted = true;
#endif

struct Usage {
  size_t descriptors;
  size_t mappings;
  size_t allocated;    // bytes
  size_t residentKib;  // the whole process
};

size_t ResidentKib() {
  std::ifstream status("/proc/self/status");
  std::string word;
  size_t size = 0;
  while (status >> word) {
    if (word == "VmRSS:") status >> size;
  }
  return size;
}

Usage UsageNow() {
  const struct mallinfo2 memory = mallinfo2();
  return {Testing::CountDescriptors(), Testing::CountMappings(), memory.uordblks + memory.hblkhd,
          ResidentKib()};
}

void ExpectNothingKept(const Usage& before, const Usage& after, uint64_t files, uint64_t clears) {
  EXPECT_EQ(after.descriptors, before.descriptors + clears);
  if (!kMemoryIsCounted) return;
  EXPECT_EQ(after.mappings, before.mappings);
  const size_t kept = files * kBytesOfALockRecord + clears * kBytesOfAStream;
  EXPECT_LE(after.allocated, before.allocated + kept + kSlack);
  // Freed memory may stay in the process for a while, in pieces.
  EXPECT_LE(after.residentKib, before.residentKib + 2 * kept / 1024 + 2048);
  std::printf("%zu bytes allocated and %zu KiB resident before, %zu and %zu after\n", before.allocated,
              before.residentKib, after.allocated, after.residentKib);
}

std::unique_ptr<LSDBImpl> OpenEngine(const std::string& path) {
  LSDBImpl* engine = nullptr;
  EXPECT_EQ(LSDBImpl::Open(path, {kWalSize, 0}, &engine), kStatusOk);
  return std::unique_ptr<LSDBImpl>(engine);
}

std::string ValueOf(LSDBImpl& engine, const std::string& key) {
  const void* value = nullptr;
  unsigned size = 0;
  EXPECT_EQ(engine.Get(key, &value, &size), kStatusOk);
  const std::unique_ptr<void, decltype(&std::free)> owner(const_cast<void*>(value), &std::free);
  return value == nullptr ? std::string() : std::string(static_cast<const char*>(value), size);
}

void Put(LSDBImpl& engine, const std::string& key, const std::string& value) {
  EXPECT_EQ(engine.Insert(key, kForEver, value.data(), static_cast<unsigned>(value.size())), kStatusOk);
}

// Ten rounds leave the store empty: each opens, inserts, flushes, loads with another engine and closes, some
// compact, the last one clears. Returns the number of files that came into being.
uint64_t TenRounds(const std::string& path) {
  const std::string value(1000, 'v');
  uint64_t files = 0;
  for (int round = 0; round < 10; ++round) {
    const std::string key = "key-" + std::to_string(round);
    const std::unique_ptr<LSDBImpl> engine = OpenEngine(path);
    Put(*engine, key, value);
    EXPECT_EQ(engine->ResetWal(), kStatusOk);
    EXPECT_EQ(ValueOf(*OpenEngine(path), key), value);
    ++files;
    if (round % 5 == 4) {
      EXPECT_EQ(engine->ForceCompact(), kStatusOk);
      files += 2;  // the merged block and the manifest's side file
    }
    if (round == 9) {
      EXPECT_EQ(engine->Clear(), kStatusOk);
    }
  }
  return files;
}

// Each clear keeps a descriptor, and the long run has more of them than a program may usually open.
void LetOpenManyFiles() {
  struct rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

TEST(Exhaustion, RoundsOfOpenFlushLoadCompactClearAndCloseKeepNothing) {
  const ScratchDirectory directory(ScratchDirectory::Place::Memory);
  for (int i = 0; i < 5; ++i) TenRounds(directory.Path());
  const Usage before = UsageNow();
  const uint64_t tens = Testing::TestSize(300, 20000) / 10;
  LetOpenManyFiles();
  uint64_t files = 0;
  uint64_t clears = 0;
  for (uint64_t i = 0; i < tens; ++i, ++clears) files += TenRounds(directory.Path());
  ExpectNothingKept(before, UsageNow(), files, clears);
}

// More blocks than are kept loaded: each look at all of them loads each of them.
TEST(Exhaustion, LoadingBlocksAgainAndAgainKeepsNothing) {
  constexpr int kBlocks = 20;
  const ScratchDirectory directory(ScratchDirectory::Place::Memory);
  const std::unique_ptr<LSDBImpl> engine = OpenEngine(directory.Path());
  for (int i = 0; i < kBlocks; ++i) {
    Put(*engine, "key-" + std::to_string(i), std::to_string(i));
    ASSERT_EQ(engine->ResetWal(), kStatusOk);
  }
  const auto look = [&engine] {
    for (int i = 0; i < kBlocks; ++i)
      ASSERT_EQ(ValueOf(*engine, "key-" + std::to_string(i)), std::to_string(i));
  };
  for (int i = 0; i < 5; ++i) look();
  const Usage before = UsageNow();
  const uint64_t rounds = Testing::TestSize(100, 4000);
  for (uint64_t i = 0; i < rounds; ++i) look();
  ExpectNothingKept(before, UsageNow(), 0, 0);
}

TEST(Exhaustion, SeriesThatAreOpenedAndClosedKeepNothing) {
  const ScratchDirectory directory(ScratchDirectory::Place::Memory);
  const auto use = [&directory] {
    Series* opened = nullptr;
    ASSERT_EQ(Series::Open(directory.Path(), {kWalSize, 0}, &opened), kStatusOk);
    const std::unique_ptr<Series> series(opened);
    ASSERT_EQ(series->AppendRecord("key", kForEver, "Note number:%i4,text:%s", 7, "text"), kStatusOk);
    Record* found = nullptr;
    ASSERT_EQ(series->Get("key", &found), kStatusOk);
    const std::unique_ptr<Record> record(found);
    ASSERT_EQ(record->GetValue("text").str, "text");
  };
  for (int i = 0; i < 5; ++i) use();
  const Usage before = UsageNow();
  const uint64_t rounds = Testing::TestSize(300, 20000);
  // The log fills up on the way, so that there is a block now and then.
  for (uint64_t i = 0; i < rounds; ++i) use();
  ExpectNothingKept(before, UsageNow(), rounds / 100, 0);
}

// The engine is open already when the schema turns out not to be a file.
TEST(Exhaustion, ASeriesThatCanNotBeOpenedKeepsNothing) {
  const ThreadDiagnostics diagnostics;
  const ScratchDirectory directory(ScratchDirectory::Place::Memory);
  ASSERT_EQ(mkdir(directory.PathOf("meta_v5").c_str(), 0700), 0);
  const auto fail = [&directory] {
    Series* opened = nullptr;
    ASSERT_EQ(Series::Open(directory.Path(), {kWalSize, 0}, &opened), kStatusOpenFailed);
    ASSERT_EQ(opened, nullptr);
    ThreadDiagnostics::Take();
  };
  for (int i = 0; i < 5; ++i) fail();
  const Usage before = UsageNow();
  for (uint64_t i = 0; i < Testing::TestSize(300, 20000); ++i) fail();
  ExpectNothingKept(before, UsageNow(), 0, 0);
}

}  // namespace
}  // namespace Kestrun
