// Merging: which blocks, by whom, and what must not come back.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <thread>

#include "store/auto_compact.h"
#include "tests/store/store_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

TEST(ChooseMergeTest, TakesRunsOfNeighboursOfSimilarSize) {
  constexpr uint64_t kUnit = 100;
  const struct {
    const char* what;
    std::vector<uint64_t> sizes;
    size_t first;
    size_t count;
  } rows[] = {
      {"nothing", {}, 0, 0},
      {"one", {100}, 0, 0},
      {"three of a size", {100, 100, 100}, 0, 0},
      {"four of a size", {100, 100, 100, 100}, 0, 4},
      {"four smaller than a flush", {1, 200, 50, 10}, 0, 4},
      {"four behind a large one", {100000, 100, 100, 100, 100}, 1, 4},
      {"four before a small one", {800, 800, 800, 800, 100}, 0, 4},
      {"the smaller run first", {800, 800, 800, 800, 100, 100, 100, 100}, 4, 4},
      {"no run across a large one", {100, 100, 100000, 100, 100}, 0, 0},
      {"different tiers", {6400, 1600, 400, 100}, 0, 0},
      {"nothing beyond what may be merged", {uint64_t{2} << 30, uint64_t{2} << 30, uint64_t{2} << 30}, 0, 0},
  };
  for (const auto& row : rows) {
    const MergeChoice choice = ChooseMerge(row.sizes, kUnit);
    EXPECT_EQ(choice.count, row.count) << row.what;
    if (row.count != 0) {
      EXPECT_EQ(choice.first, row.first) << row.what;
    }
  }
}

// Whatever the sizes, a choice lies within the list, stays below 4 GiB, and choosing over and over comes to
// an end with few blocks, each byte having been written few times.
TEST(ChooseMergeTest, EndsWithFewBlocksAndWritesEachByteFewTimes) {
  std::mt19937_64 random = TestRandom(31);
  constexpr uint64_t kUnit = 1000;
  for (const int mode : {0, 1, 2, 3}) {
    std::vector<uint64_t> sizes;
    uint64_t flushed = 0;
    uint64_t written = 0;
    constexpr int kFlushes = 3000;
    for (int flush = 0; flush < kFlushes; ++flush) {
      const uint64_t size = mode == 0   ? kUnit
                            : mode == 1 ? 1 + random() % kUnit
                            : mode == 2 ? (flush % 2 == 0 ? 10 : kUnit)
                                        : kUnit * (1 + random() % 300);
      sizes.push_back(size);
      flushed += size;
      for (int merges = 0;; ++merges) {
        ASSERT_LT(merges, 100);
        const MergeChoice choice = ChooseMerge(sizes, kUnit);
        if (choice.count == 0) break;
        ASSERT_GE(choice.count, 2u);
        ASSERT_LE(choice.first + choice.count, sizes.size());
        uint64_t sum = 0;
        for (size_t i = 0; i < choice.count; ++i) sum += sizes[choice.first + i];
        ASSERT_LT(sum, uint64_t{1} << 32);
        written += sum;
        const auto begin = sizes.begin() + static_cast<ptrdiff_t>(choice.first);
        sizes.erase(begin + 1, begin + static_cast<ptrdiff_t>(choice.count));
        sizes[choice.first] = sum;
      }
    }
    const double levels = std::log2(kFlushes) / 2;  // of fanout 4
    EXPECT_LE(static_cast<double>(sizes.size()), 4 * (levels + 6)) << "mode " << mode;
    EXPECT_LE(static_cast<double>(written), 3 * levels * static_cast<double>(flushed)) << "mode " << mode;
  }
}

class StoreCompactTest : public StoreTest {
 protected:
  static StoreOptions Merging() {
    StoreOptions options = Options();
    options.autoCompact = true;
    return options;
  }
  static uint64_t BlockCount(Store& store) {
    StoreStats stats;
    EXPECT_EQ(store.GetStats(&stats), kStatusOk);
    return stats.blocks;
  }
  // Waits until the thread of the store has merged as much as it wants to: at most `most` blocks are left.
  static bool AwaitBlocks(Store& store, uint64_t most) {
    for (int i = 0; i < 20000; ++i) {
      if (BlockCount(store) <= most) return true;
      usleep(1000);
    }
    return false;
  }
  size_t FileCount() const {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(path_), {}));
  }
};

TEST_F(StoreCompactTest, ManyFlushesLeaveFewBlocks) {
  const std::unique_ptr<Store> store = Open(Merging());
  constexpr int kFlushes = 200;
  for (int i = 0; i < kFlushes; ++i) {
    for (int j = 0; j < 5; ++j) {
      ASSERT_EQ(store->Put("key" + std::to_string(i * 5 + j), std::string(200, 'x')), kStatusOk);
    }
    ASSERT_EQ(store->Flush(), kStatusOk);
  }
  EXPECT_TRUE(AwaitBlocks(*store, 24)) << BlockCount(*store);
  EXPECT_EQ(Walk(*Take(*store)).size(), 5u * kFlushes);
  StoreStats stats;
  ASSERT_EQ(store->GetStats(&stats), kStatusOk);
  EXPECT_GE(stats.compactions, 1u);
  EXPECT_LT(stats.bytesCompacted, 12 * stats.bytesFlushed);
}

// Partial merges keep what hides older versions.
TEST_F(StoreCompactTest, DeletedAndOverwrittenKeysDoNotComeBack) {
  std::mt19937_64 random = TestRandom(32);
  std::unique_ptr<Store> store = Open(Merging());
  std::map<std::string, std::string> model;
  for (int flush = 0; flush < 120; ++flush) {
    for (int i = 0; i < 8; ++i) {
      const std::string key = "key" + std::to_string(random() % 150);
      if (random() % 3 == 0) {
        ASSERT_EQ(store->Delete(key), kStatusOk);
        model.erase(key);
      } else {
        ASSERT_EQ(store->Put(key, std::to_string(flush)), kStatusOk);
        model[key] = std::to_string(flush);
      }
    }
    ASSERT_EQ(store->Flush(), kStatusOk);
    if (flush % 20 == 7) {
      ASSERT_EQ(Walk(*Take(*store)), Pairs(model.begin(), model.end())) << flush;
    }
    if (flush == 60) {
      store.reset();
      store = Open(Merging());
    }
  }
  EXPECT_TRUE(AwaitBlocks(*store, 24));
  EXPECT_EQ(Walk(*Take(*store)), Pairs(model.begin(), model.end()));
  ASSERT_EQ(store->Compact(), kStatusOk);
  EXPECT_EQ(BlockCount(*store), 1u);
  EXPECT_EQ(Walk(*Take(*store)), Pairs(model.begin(), model.end()));
}

// The number of threads of this process, as the system tells it.
size_t CountThreads() {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

// An emulator, under which programs for the other architecture run, has threads of its own.
#if defined(__aarch64__)
constexpr bool kCountsThreads = false;
#else
constexpr bool kCountsThreads = true;
#endif

// A thread that has ended may be listed for a moment longer.
bool AwaitThreads(size_t count) {
  for (int i = 0; i < 5000 && kCountsThreads && CountThreads() != count; ++i) usleep(1000);
  return !kCountsThreads || CountThreads() == count;
}

TEST_F(StoreCompactTest, TheThreadBlocksAllSignalsAndIsGoneBeforeTheDestructorReturns) {
  const size_t before = CountThreads();
  std::unique_ptr<Store> store = Open(Merging());
  ASSERT_EQ(store->Put("key", "value"), kStatusOk);
  EXPECT_TRUE(!kCountsThreads || CountThreads() == before) << "nothing is to be merged before a flush";
  ASSERT_EQ(store->Flush(), kStatusOk);
  EXPECT_TRUE(!kCountsThreads || CountThreads() == before + 1);
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (!kCountsThreads || task.path().filename() == std::to_string(getpid())) continue;
    std::ifstream status(task.path().string() + "/status");
    std::string word;
    std::string mask;
    while (status >> word) {
      if (word == "SigBlk:") status >> mask;
    }
    const uint64_t blocked = std::stoull(mask, nullptr, 16);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGALRM, SIGCHLD, SIGPIPE}) {
      EXPECT_TRUE((blocked >> (number - 1) & 1) != 0) << number;
    }
  }
  for (int i = 0; i < 30; ++i) {
    ASSERT_EQ(store->Put("key" + std::to_string(i), std::string(5000, 'x')), kStatusOk);
    ASSERT_EQ(store->Flush(), kStatusOk);
  }
  store.reset();  // in the middle of merging, perhaps
  EXPECT_TRUE(AwaitThreads(before));
  store = Open();
  EXPECT_EQ(Walk(*Take(*store)).size(), 31u);
  // What a merge that was given up had begun to write is gone.
  EXPECT_EQ(FileCount(), BlockCount(*store) + 2);
}

TEST_F(StoreCompactTest, AForkedChildHasNoThreadAndGoesOn) {
  std::unique_ptr<Store> store = Open(Merging());
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(store->Put("key" + std::to_string(i), "parent"), kStatusOk);
    ASSERT_EQ(store->Flush(), kStatusOk);
  }
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(60);
    if (kCountsThreads && CountThreads() != 1) _exit(1);
    for (int i = 0; i < 10; ++i) {
      if (store->Put("child" + std::to_string(i), "child") != kStatusOk) _exit(2);
      if (store->Flush() != kStatusOk) _exit(3);
    }
    if (kCountsThreads && CountThreads() != 1) _exit(4);
    store.reset();
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(Walk(*Take(*store)).size(), 20u);
  EXPECT_EQ(store->Put("after", "x"), kStatusOk);
}

TEST_F(StoreCompactTest, AForkedChildStartsNoThreadForAStoreOfItsParent) {
  std::unique_ptr<Store> store = Open(Merging());
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(60);
    if (store->Put("key", "child") != kStatusOk || store->Flush() != kStatusOk) _exit(1);
    _exit(!kCountsThreads || CountThreads() == 1 ? 0 : 2);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(Get(*store, "key"), "child");
}

TEST_F(StoreCompactTest, SeveralProcessesMergeWithoutLosingAnything) {
  const auto rounds = static_cast<int>(TestSize(60, 2000));
  const auto write = [&](ChildLink& parent, const std::string& name) {
    std::unique_ptr<Store> store = Open(Merging());
    parent.Await();
    for (int i = 0; i < rounds; ++i) {
      if (store->Put(name + std::to_string(i % 40), std::to_string(i)) != kStatusOk) return 1;
      if (i % 3 == 0 && store->Flush() != kStatusOk) return 2;
      if (i % 25 == 24 && store->Compact() != kStatusOk) return 3;
      std::optional<std::string> value;
      if (store->Get(name + std::to_string(i % 40), &value) != kStatusOk) return 4;
      if (value != std::to_string(i)) return 5;
    }
    return 0;
  };
  static_cast<void>(Open());
  ChildProcess first([&](ChildLink& parent) { return write(parent, "first"); });
  ChildProcess second([&](ChildLink& parent) { return write(parent, "second"); });
  first.Signal();
  second.Signal();
  EXPECT_EQ(first.Wait(), 0);
  EXPECT_EQ(second.Wait(), 0);
  const std::unique_ptr<Store> store = Open();
  for (const std::string name : {"first", "second"}) {
    for (int i = std::max(0, rounds - 40); i < rounds; ++i) {
      EXPECT_EQ(Get(*store, name + std::to_string(i % 40)), std::to_string(i)) << name << i;
    }
  }
  EXPECT_EQ(FileCount(), BlockCount(*store) + 2);
}

}  // namespace
}  // namespace Kestrun::Testing
