// What one handle does shows through every other one: of another process, and of the older face.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "kestrun/diagnostics.h"
#include "kestrun/lsdb.h"
#include "tests/store/store_fixture.h"
#include "tests/support/byte_locks.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

class StoreProcessesTest : public StoreTest {
 protected:
  std::unique_ptr<LSDBImpl> OpenOlder() {
    LSDBImpl* opened = nullptr;
    EXPECT_EQ(LSDBImpl::Open(path_, {kLogSize, 0}, &opened), kStatusOk);
    return std::unique_ptr<LSDBImpl>(opened);
  }
  static std::string GetOlder(LSDBImpl& engine, const std::string& key) {
    const void* value = nullptr;
    unsigned int size = 0;
    const uint32_t status = engine.Get(Key(key), &value, &size);
    const std::unique_ptr<void, decltype(&std::free)> owner(const_cast<void*>(value), &std::free);
    if (status != kStatusOk) return StatusWord(status);
    return value == nullptr ? kNothing : std::string(static_cast<const char*>(value), size);
  }
};

TEST_F(StoreProcessesTest, AClearShowsAtOnceToEveryHandle) {
  const std::unique_ptr<Store> store = Open();
  const std::unique_ptr<LSDBImpl> older = OpenOlder();
  ASSERT_EQ(store->Put("flushed", "1"), kStatusOk);
  ASSERT_EQ(store->Flush(), kStatusOk);
  ASSERT_EQ(store->Put("logged", "2"), kStatusOk);
  ChildProcess other([&](ChildLink& parent) {
    const std::unique_ptr<Store> mine = Open();
    const std::unique_ptr<LSDBImpl> olderMine = OpenOlder();
    if (Get(*mine, "flushed") != "1" || GetOlder(*olderMine, "flushed") != "1") return 1;
    parent.Signal();
    parent.Await();
    if (Get(*mine, "flushed") != kNothing || Get(*mine, "logged") != kNothing) return 2;
    if (olderMine->Contains(Key("flushed")) || olderMine->Contains(Key("logged"))) return 3;
    if (GetOlder(*olderMine, "flushed") != kNothing) return 4;
    if (!Walk(*Take(*mine)).empty()) return 5;
    if (mine->Put("after", "x") != kStatusOk) return 6;
    return 0;
  });
  ASSERT_TRUE(other.Await());
  EXPECT_EQ(GetOlder(*older, "flushed"), "1");
  ASSERT_EQ(store->Clear(), kStatusOk);
  other.Signal();
  EXPECT_EQ(other.Wait(), 0);
  EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"after", "x"}}));
  EXPECT_EQ(GetOlder(*older, "flushed"), kNothing);
  EXPECT_EQ(GetOlder(*older, "after"), "x");
}

TEST_F(StoreProcessesTest, BothFacesSeeEachOthersWritesFlushesAndMerges) {
  const std::unique_ptr<Store> store = Open();
  const std::unique_ptr<LSDBImpl> older = OpenOlder();
  const CapturedStdout quiet;
  std::mt19937_64 random = TestRandom(41);
  std::map<std::string, std::string> model;
  for (int step = 0; step < 3000; ++step) {
    const std::string key = "key" + std::to_string(random() % 60);
    const std::string value = std::to_string(step);
    switch (random() % 14) {
      case 0:
      case 1:
      case 2:
      case 3:
        ASSERT_EQ(store->Put(key, value), kStatusOk);
        model[key] = value;
        break;
      case 4:
      case 5:
      case 6:
      case 7:
        ASSERT_EQ(older->Insert(Key(key), 0xFFFFFFFF, value.data(), static_cast<unsigned>(value.size())),
                  kStatusOk);
        model[key] = value;
        break;
      case 8:
        ASSERT_EQ(store->Delete(key), kStatusOk);
        model.erase(key);
        break;
      case 9:
        ASSERT_EQ(older->Delete(Key(key)), kStatusOk);
        model.erase(key);
        break;
      case 10:
        ASSERT_EQ(random() % 8 != 0 ? store->Flush() : store->Compact(), kStatusOk);
        break;
      case 11:
        ASSERT_EQ(random() % 8 != 0 ? older->ResetWal() : older->ForceCompact(), kStatusOk);
        break;
      case 12:
        ASSERT_EQ(store->Transact([&](Transaction& transaction) { return transaction.Put(key, value); }),
                  kStatusOk);
        model[key] = value;
        break;
      default:
        const auto found = model.find(key);
        const std::string expected = found == model.end() ? kNothing : found->second;
        ASSERT_EQ(Get(*store, key), expected) << step;
        ASSERT_EQ(older->Contains(Key(key)), found != model.end()) << step;
        if (found != model.end()) {
          ASSERT_EQ(GetOlder(*older, key), expected) << step;
        }
    }
    if (step % 300 == 0) {
      ASSERT_EQ(Walk(*Take(*store)), Pairs(model.begin(), model.end())) << step;
    }
  }
}

TEST_F(StoreProcessesTest, ALockThatIsHeldIsWaitedForAsLongAsAskedFor) {
  static_cast<void>(Open());
  for (const unsigned int timeout : {0u, 50u}) {
    StoreOptions options = Options();
    options.busyTimeout = timeout;
    const std::unique_ptr<Store> store = Open(options);
    ASSERT_EQ(store->Put("key", "before"), kStatusOk);
    ForeignLock lock(path_ + "/wal_v5", F_WRLCK, 0x40000000, 512);
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(store->Put("key", "after"), kStatusLockFailed);
    const auto took = std::chrono::steady_clock::now() - begun;
    EXPECT_GE(took, std::chrono::milliseconds(timeout == 0 ? 2 : timeout));
    EXPECT_LT(took, std::chrono::seconds(3));
    EXPECT_EQ(Get(*store, "key"), "<kStatusLockFailed>");
    std::unique_ptr<Snapshot> snapshot;
    EXPECT_EQ(store->TakeSnapshot(&snapshot), kStatusLockFailed);
    EXPECT_EQ(store->Transact([](Transaction&) {
      ADD_FAILURE() << "the body runs without the lock";
      return kStatusOk;
    }),
              kStatusLockFailed);
    StoreStats stats;
    ASSERT_EQ(store->GetStats(&stats), kStatusOk);  // takes no file lock
    EXPECT_EQ(stats.lockFailures, 4u);
    EXPECT_GE(stats.lockRetries, 4u);
    lock.Release();
    EXPECT_EQ(LocksOnFile(path_ + "/wal_v5"), "");
    EXPECT_EQ(Get(*store, "key"), "before");
    EXPECT_EQ(store->Put("key", "after"), kStatusOk);
  }
}

TEST_F(StoreProcessesTest, ALockThatIsReleasedInTimeIsHad) {
  StoreOptions options = Options();
  options.busyTimeout = 60000;
  const std::unique_ptr<Store> store = Open(options);
  for (const short type : {short{F_WRLCK}, short{F_RDLCK}}) {
    ForeignLock lock(path_ + "/wal_v5", type, 0x40000001, 511);
    StoreStats before;
    ASSERT_EQ(store->GetStats(&before), kStatusOk);
    uint32_t status = kStatusLockFailed;
    std::thread writer([&] { status = store->Put("key", "value"); });
    StoreStats stats;
    do {
      static_cast<void>(store->GetStats(&stats));
      std::this_thread::yield();
    } while (stats.lockRetries == before.lockRetries);
    lock.Release();
    writer.join();
    EXPECT_EQ(status, kStatusOk);
    ASSERT_EQ(store->GetStats(&stats), kStatusOk);
    EXPECT_EQ(stats.lockFailures, before.lockFailures);
    EXPECT_EQ(LocksOnFile(path_ + "/wal_v5"), "");
  }
}

TEST_F(StoreProcessesTest, DeleteRangeDeletesWhatIsAliveAndNothingElse) {
  const std::unique_ptr<Store> store = Open();
  for (int i = 100; i < 200; ++i) ASSERT_EQ(store->Put(std::to_string(i), "x"), kStatusOk);
  ASSERT_EQ(store->Flush(), kStatusOk);
  ASSERT_EQ(store->Delete("150"), kStatusOk);
  StoreStats before;
  ASSERT_EQ(store->GetStats(&before), kStatusOk);
  ASSERT_EQ(store->DeleteRange({"149", "152"}), kStatusOk);
  StoreStats after;
  ASSERT_EQ(store->GetStats(&after), kStatusOk);
  EXPECT_EQ(after.logUsed - before.logUsed, 2 * 43u);
  EXPECT_EQ(Walk(*Take(*store)).size(), 97u);
  ASSERT_EQ(store->DeleteRange({"2", "1"}), kStatusOk);
  ASSERT_EQ(store->DeleteRange(Range::Prefix("14")), kStatusOk);
  EXPECT_EQ(Walk(*Take(*store)).size(), 88u);
}

// More tombstones than the log takes at once.
TEST_F(StoreProcessesTest, DeleteRangeOfMoreThanTheLogTakesGoesInSteps) {
  const std::unique_ptr<Store> store = Open(Options(2048));
  for (int i = 0; i < 300; ++i) ASSERT_EQ(store->Put("key" + std::to_string(i), "x"), kStatusOk);
  ASSERT_EQ(store->Put("other", "x"), kStatusOk);
  ASSERT_EQ(store->DeleteRange(Range::Prefix("key")), kStatusOk);
  EXPECT_EQ(Walk(*Take(*store)), (Pairs{{"other", "x"}}));
}

TEST_F(StoreProcessesTest, FiguresTellWhatWasDone) {
  const std::unique_ptr<Store> store = Open();
  StoreStats stats;
  ASSERT_EQ(store->GetStats(&stats), kStatusOk);
  EXPECT_EQ(stats.logCapacity, kLogSize);
  EXPECT_EQ(stats.logUsed, 128u);
  EXPECT_EQ(stats.logEntries + stats.blocks + stats.blockBytes + stats.flushes + stats.compactions, 0u);
  ASSERT_EQ(store->Put("a", "1"), kStatusOk);
  ASSERT_EQ(store->Put("a", "2"), kStatusOk);
  ASSERT_EQ(store->Delete("b"), kStatusOk);
  ASSERT_EQ(store->GetStats(&stats), kStatusOk);
  EXPECT_EQ(stats.logEntries, 2u);
  EXPECT_EQ(stats.logUsed, 128u + 42 + 42 + 41);
  ASSERT_EQ(store->Flush(), kStatusOk);
  ASSERT_EQ(store->Flush(), kStatusOk);  // nothing to do
  ASSERT_EQ(store->GetStats(&stats), kStatusOk);
  EXPECT_EQ(stats.flushes, 1u);
  EXPECT_EQ(stats.blocks, 1u);
  EXPECT_EQ(stats.bytesFlushed, stats.blockBytes);
  EXPECT_EQ(stats.logEntries, 0u);
  EXPECT_EQ(Get(*store, "a"), "2");
  ASSERT_EQ(store->Put("c", "3"), kStatusOk);
  ASSERT_EQ(store->Compact(), kStatusOk);
  ASSERT_EQ(store->GetStats(&stats), kStatusOk);
  EXPECT_EQ(stats.flushes, 2u);
  EXPECT_EQ(stats.compactions, 1u);
  EXPECT_EQ(stats.blocks, 1u);
  EXPECT_EQ(stats.bytesCompacted, stats.blockBytes);
  EXPECT_GT(stats.blockHits + stats.blockLoads, 0u);
  EXPECT_EQ(stats.lockFailures, 0u);
}

struct Heard {
  std::atomic<int> pieces{0};
  std::atomic<int> others{0};
};

void Hear(void* context, std::string_view message) {
  auto* heard = static_cast<Heard*>(context);
  ++(message.substr(0, 9) == "Directory" || message.find("not a directory") != std::string_view::npos
         ? heard->pieces
         : heard->others);
}

TEST_F(StoreProcessesTest, MessagesGoToTheHandlerFromEveryThreadAndToNobodyAfterItsReset) {
  CapturedStdout printed;
  const std::string file = directory_.PathOf("file");
  std::ofstream(file) << "text";
  Heard heard;
  SetDiagnosticHandler(&Hear, &heard);
  const auto fail = [&] {
    for (int i = 0; i < 50; ++i) {
      std::unique_ptr<Store> store;
      EXPECT_EQ(Store::Open(file, Options(), &store), kStatusNotAStore);
    }
  };
  std::thread first(fail);
  std::thread second(fail);
  first.join();
  second.join();
  EXPECT_EQ(heard.pieces, 100);
  EXPECT_EQ(heard.others, 0);
  // The older face speaks to it, too, piece by piece as it would print.
  const std::unique_ptr<LSDBImpl> older = OpenOlder();
  EXPECT_EQ(older->Insert(Key(""), 1, "x", 1), kStatusInvalid);
  EXPECT_GT(heard.others, 0);
  EXPECT_EQ(printed.Take(), "");
  SetDiagnosticHandler(nullptr, nullptr);
  const int others = heard.others;
  fail();
  EXPECT_EQ(heard.pieces, 100);
  EXPECT_EQ(printed.Take(), "");
  EXPECT_EQ(older->Insert(Key(""), 1, "x", 1), kStatusInvalid);
  EXPECT_EQ(heard.others, others);
  EXPECT_NE(printed.Take(), "");
}

}  // namespace
}  // namespace Kestrun::Testing
