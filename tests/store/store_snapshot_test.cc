// Snapshots stay what they were, whatever becomes of the store.
#include <sys/resource.h>

#include <filesystem>

#include "kestrun/lsdb.h"
#include "tests/store/store_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"
#include "tests/support/process_maps.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

class StoreSnapshotTest : public StoreTest {
 protected:
  // Keys in two blocks and in the log, one of them in all three, one deleted.
  std::unique_ptr<Store> OpenFilled() {
    std::unique_ptr<Store> store = Open();
    for (const char* place : {"one", "two", "log"}) {
      EXPECT_EQ(store->Put(place, place), kStatusOk);
      EXPECT_EQ(store->Put("all", place), kStatusOk);
      EXPECT_EQ(store->Put("gone", place), kStatusOk);
      if (std::string(place) != "log") {
        EXPECT_EQ(store->Flush(), kStatusOk);
      }
    }
    EXPECT_EQ(store->Delete("gone"), kStatusOk);
    return store;
  }
  static void ExpectFilled(const Snapshot& snapshot) {
    EXPECT_EQ(Walk(snapshot), (Pairs{{"all", "log"}, {"log", "log"}, {"one", "one"}, {"two", "two"}}));
    EXPECT_EQ(Get(snapshot, "all"), "log");
    EXPECT_EQ(Get(snapshot, "one"), "one");
    EXPECT_EQ(Get(snapshot, "gone"), kNothing);
    EXPECT_EQ(Get(snapshot, "later"), kNothing);
  }
};

TEST_F(StoreSnapshotTest, StaysThroughEverythingThatHappensAfterIt) {
  std::unique_ptr<Store> store = OpenFilled();
  const std::unique_ptr<Snapshot> snapshot = Take(*store);
  std::unique_ptr<Snapshot> opened;
  ASSERT_EQ(Snapshot::Open(path_, &opened), kStatusOk);
  const auto check = [&](const char* after) {
    SCOPED_TRACE(after);
    ExpectFilled(*snapshot);
    ExpectFilled(*opened);
  };
  check("nothing");
  ASSERT_EQ(store->Put("later", "x"), kStatusOk);
  ASSERT_EQ(store->Put("all", "y"), kStatusOk);
  ASSERT_EQ(store->Delete("log"), kStatusOk);
  check("writes");
  ASSERT_EQ(store->Flush(), kStatusOk);
  ASSERT_EQ(store->Put("gone", "again"), kStatusOk);
  check("a flush");
  ASSERT_EQ(store->Compact(), kStatusOk);
  check("a compaction");
  ASSERT_NE(Open(Options(4 * kLogSize)), nullptr);
  check("growth");
  ASSERT_EQ(store->DeleteRange(Range::All()), kStatusOk);
  check("a deletion of everything");
  ASSERT_EQ(store->Clear(), kStatusOk);
  ASSERT_EQ(store->Put("one", "new"), kStatusOk);
  check("a clear");
  store.reset();
  check("the end of the store");
  std::filesystem::remove_all(path_);
  check("the removal of the directory");
  store = Open();
  ASSERT_EQ(store->Put("one", "anew"), kStatusOk);
  check("a new store in its place");
}

TEST_F(StoreSnapshotTest, StaysWhenAnotherProcessFlushesCompactsAndClears) {
  const std::unique_ptr<Store> store = OpenFilled();
  const std::unique_ptr<Snapshot> snapshot = Take(*store);
  std::unique_ptr<Snapshot> opened;
  ASSERT_EQ(Snapshot::Open(path_, &opened), kStatusOk);
  ChildProcess other([&](ChildLink&) {
    const std::unique_ptr<Store> mine = Open();
    if (mine->Flush() != kStatusOk || mine->Compact() != kStatusOk) return 1;
    for (int i = 0; i < 1000; ++i) {
      if (mine->Put("key" + std::to_string(i), std::string(100, 'x')) != kStatusOk) return 2;
    }
    if (mine->Clear() != kStatusOk) return 3;
    return mine->Put("all", "other") == kStatusOk ? 0 : 4;
  });
  EXPECT_EQ(other.Wait(), 0);
  ExpectFilled(*snapshot);
  ExpectFilled(*opened);
  EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"all", "other"}}));
}

TEST_F(StoreSnapshotTest, StaysWhenTheOlderFaceRemovesTheStore) {
  std::unique_ptr<Store> store = OpenFilled();
  const std::unique_ptr<Snapshot> snapshot = Take(*store);
  store.reset();
  CapturedStdout printed;
  ASSERT_EQ(LSDBImpl::Remove(path_), kStatusOk);
  EXPECT_FALSE(std::filesystem::exists(path_));
  ExpectFilled(*snapshot);
}

TEST_F(StoreSnapshotTest, TenThousandAreKeptAtOnceAndEachShowsItsOwnMoment) {
  const std::unique_ptr<Store> store = OpenFilled();
  const size_t count = TestSize(10000, 10000);
  const size_t descriptors = CountDescriptors();
  const size_t mappings = CountMappings();
  std::vector<std::unique_ptr<Snapshot>> snapshots;
  for (size_t i = 0; i < count; ++i) {
    if (i % 10 == 0) {
      ASSERT_EQ(store->Put("number", std::to_string(i)), kStatusOk);
    }
    snapshots.push_back(Take(*store));
    ASSERT_NE(snapshots.back(), nullptr);
  }
  // They share the blocks' descriptors and one copy for each filling of the log.
  EXPECT_LT(CountDescriptors(), descriptors + 40);
  EXPECT_LT(CountMappings(), mappings + 40);
  for (size_t i = 0; i < count; i += 7) {
    ASSERT_EQ(Get(*snapshots[i], "number"), std::to_string(i / 10 * 10));
    ASSERT_EQ(Get(*snapshots[i], "all"), "log");
  }
  std::mt19937_64 random = TestRandom(3);
  std::shuffle(snapshots.begin(), snapshots.end(), random);
  snapshots.resize(count / 2);
  ASSERT_EQ(store->Compact(), kStatusOk);
  for (const auto& snapshot : snapshots) ASSERT_EQ(Get(*snapshot, "one"), "one");
  snapshots.clear();
  ASSERT_NE(Take(*store), nullptr);
  EXPECT_LE(CountDescriptors(), descriptors + 3);
}

// Each snapshot between flushes keeps a filling of its own.
TEST_F(StoreSnapshotTest, ManyFillingsAreKeptAsLongAsTheyAreLookedAt) {
  const std::unique_ptr<Store> store = Open();
  std::vector<std::unique_ptr<Snapshot>> snapshots;
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(store->Put("number", std::to_string(i)), kStatusOk);
    ASSERT_EQ(store->Put("only" + std::to_string(i), "x"), kStatusOk);
    snapshots.push_back(Take(*store));
    ASSERT_EQ(i % 2 == 0 ? store->Flush() : store->Clear(), kStatusOk);
  }
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(Get(*snapshots[static_cast<size_t>(i)], "number"), std::to_string(i));
    ASSERT_EQ(Walk(*snapshots[static_cast<size_t>(i)]).size(), i % 2 == 0 ? 2u : 3u) << i;
  }
}

class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t limit) {
    getrlimit(RLIMIT_NOFILE, &before_);
    struct rlimit now = before_;
    now.rlim_cur = limit;
    setrlimit(RLIMIT_NOFILE, &now);
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  struct rlimit before_ = {};
};

TEST_F(StoreSnapshotTest, DescriptorsThatRunOutGiveAStatusAndLeakNothing) {
  constexpr int kBlocks = 30;
  {
    const std::unique_ptr<Store> store = Open();
    for (int i = 0; i < kBlocks; ++i) {
      ASSERT_EQ(store->Put("key" + std::to_string(i), std::to_string(i)), kStatusOk);
      ASSERT_EQ(store->Flush(), kStatusOk);
    }
  }
  const std::unique_ptr<Store> store = Open();
  const size_t before = CountDescriptors();
  int refused = 0;
  for (rlim_t limit = before + 1; limit < before + kBlocks + 8; ++limit) {
    std::unique_ptr<Snapshot> snapshot;
    uint32_t taken = 0;
    uint32_t opened = 0;
    {
      const std::unique_ptr<Store> fresh = Open();  // which has no block open
      const DescriptorLimit scarce(limit);
      opened = Snapshot::Open(path_, &snapshot);
      EXPECT_EQ(snapshot != nullptr, opened == kStatusOk);
      snapshot.reset();
      taken = fresh->TakeSnapshot(&snapshot);
      EXPECT_EQ(snapshot != nullptr, taken == kStatusOk);
    }
    for (const uint32_t status : {taken, opened}) {
      EXPECT_TRUE(status == kStatusOk || status == kStatusOpenFailed || status == kStatusWalOpenFailed ||
                  status == kStatusManifestUnreadable)
          << status;
      if (status != kStatusOk) ++refused;
    }
    if (snapshot != nullptr) {
      EXPECT_EQ(Walk(*snapshot).size(), static_cast<size_t>(kBlocks));
    }
    snapshot.reset();
    EXPECT_EQ(CountDescriptors(), before) << limit;
  }
  EXPECT_GT(refused, kBlocks);
  EXPECT_EQ(Walk(*Take(*store)).size(), static_cast<size_t>(kBlocks));
}

// More blocks than descriptors: merging them is the way out, and must not need them all at once.
TEST_F(StoreSnapshotTest, CompactMergesMoreBlocksThanThereAreDescriptors) {
  constexpr int kBlocks = 150;
  const std::unique_ptr<Store> store = Open();
  for (int i = 0; i < kBlocks; ++i) {
    ASSERT_EQ(store->Put("key" + std::to_string(i), std::to_string(i)), kStatusOk);
    ASSERT_EQ(store->Put("same", std::to_string(i)), kStatusOk);
    if (i > 0) {
      ASSERT_EQ(store->Delete("key" + std::to_string(i - 1)), kStatusOk);
    }
    ASSERT_EQ(store->Flush(), kStatusOk);
  }
  {
    const DescriptorLimit scarce(CountDescriptors() + 60);
    EXPECT_EQ(store->Compact(), kStatusOk);
  }
  StoreStats stats;
  ASSERT_EQ(store->GetStats(&stats), kStatusOk);
  EXPECT_EQ(stats.blocks, 1u);
  EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"key149", "149"}, {"same", "149"}}));
}

TEST_F(StoreSnapshotTest, ArgumentsThatCannotBeAreRefused) {
  const std::unique_ptr<Store> store = OpenFilled();
  EXPECT_EQ(store->TakeSnapshot(nullptr), kStatusInvalid);
  EXPECT_EQ(Snapshot::Open(path_, nullptr), kStatusInvalid);
  EXPECT_EQ(store->GetStats(nullptr), kStatusInvalid);
  EXPECT_EQ(store->Get("all", nullptr), kStatusInvalid);
  EXPECT_EQ(store->Contains("all", nullptr), kStatusInvalid);
  EXPECT_EQ(Store::Open(path_, Options(), nullptr), kStatusInvalid);
  const std::unique_ptr<Snapshot> snapshot = Take(*store);
  EXPECT_EQ(snapshot->Get("all", nullptr), kStatusInvalid);
  EXPECT_EQ(snapshot->NewCursor(Range::All(), nullptr), kStatusInvalid);
  EXPECT_EQ(Get(*snapshot, ""), "<kStatusInvalid>");
  EXPECT_EQ(Get(*snapshot, "\xFF"), "<kStatusInvalid>");
  EXPECT_EQ(Get(*snapshot, std::string(65536, 'k')), "<kStatusInvalid>");
}

}  // namespace
}  // namespace Kestrun::Testing
