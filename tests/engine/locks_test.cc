// What the operations lock, and what they say when another process holds a lock.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>

#include "tests/engine/store_fixture.h"
#include "tests/support/byte_locks.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_clock.h"

namespace Kestrun::Testing {
namespace {

constexpr int64_t kGateByte = 0x40000000;
constexpr int64_t kLockRange = 0x40000001;
constexpr int64_t kLockRangeLength = 511;

class LocksTest : public StoreTest {
 protected:
  LocksTest() {
    MakeBlocks(*engine_, 4);
    EXPECT_EQ(Insert(*engine_, "in the log", "value"), kStatusOk);
  }

  std::string Locks(const char* file) const { return LocksOnFile(PathOf(file)); }
  // Enough for the next insertion to flush.
  void FillLog() {
    while (LogUsed() < kWalSize - 200)
      ASSERT_EQ(Insert(*engine_, "filler", std::string(100, 'f')), kStatusOk);
  }

  FakeClock clock_;
  std::unique_ptr<LSDBImpl> engine_ = Open();
};

TEST_F(LocksTest, EveryOperationFailsWhileAnotherProcessWritesTheLog) {
  const auto before = Contents();
  ForeignLock lock(PathOf("wal_v5"), F_WRLCK, kGateByte, 1 + kLockRangeLength);
  CapturedStdout output;
  EXPECT_EQ(Insert(*engine_, "key", "value"), kStatusLockFailed);
  EXPECT_EQ(output.Take(), "Failed lock wal");
  EXPECT_EQ(engine_->Delete("in the log"), kStatusLockFailed);
  EXPECT_EQ(output.Take(), "Failed lock wal");

  const Got got = Get(*engine_, "in the log");
  EXPECT_EQ(got.status, kStatusLockFailed);
  EXPECT_FALSE(got.valueSet);
  EXPECT_FALSE(got.sizeSet);
  EXPECT_EQ(output.Take(), "Failed lock wal");

  DataEntry entry = {1, 2, true, 3, 4};
  EXPECT_EQ(engine_->GetDataEntry("in the log", entry), kStatusLockFailed);
  EXPECT_EQ(entry.valueOffset, 1u);
  EXPECT_EQ(output.Take(), "Failed lock wal");

  EXPECT_TRUE(engine_->Contains("never written")) << "a no is certain, a yes is not";
  EXPECT_EQ(output.Take(), "Failed lock wal");

  int calls = 0;
  EXPECT_EQ(engine_->EnumerateKeys("a", "z", [&calls](const Key&) { return ++calls == 0; }),
            kStatusLockFailed);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(output.Take(), "Failed lock wal");
  EXPECT_EQ(engine_->DeleteByRange("a", "z"), kStatusOk);
  EXPECT_EQ(output.Take(), "Failed lock wal");

  EXPECT_EQ(engine_->ResetWal(), kStatusLockFailed);
  EXPECT_EQ(output.Take(), "Failed lock wal");
  EXPECT_EQ(engine_->Clear(), kStatusLockFailed);
  EXPECT_EQ(output.Take(), "Failed lock wal");
  lock.Release();
  EXPECT_TRUE(Contents() == before);
  EXPECT_EQ(Value(*engine_, "in the log"), "value");
}

TEST_F(LocksTest, CompactionDoesNotLookAtTheLog) {
  ForeignLock lock(PathOf("wal_v5"), F_WRLCK, kGateByte, 1 + kLockRangeLength);
  EXPECT_EQ(engine_->ForceCompact(), kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 1u);
}

TEST_F(LocksTest, ReadersOfTwoProcessesReadAtTheSameTime) {
  ForeignLock wal(PathOf("wal_v5"), F_RDLCK, kLockRange, kLockRangeLength);
  ForeignLock manifest(PathOf("manifest_v5"), F_RDLCK, kLockRange, kLockRangeLength);
  EXPECT_EQ(Value(*engine_, "key0"), "value0");
  EXPECT_TRUE(engine_->Contains("in the log"));
  EXPECT_EQ(Keys(*engine_).size(), 9u);
  CapturedStdout output;
  EXPECT_EQ(Insert(*engine_, "key", "value"), kStatusLockFailed);
  EXPECT_EQ(output.Take(), "Failed lock wal");
}

TEST_F(LocksTest, AWriterThatWaitsAtTheGateKeepsNewReadersOut) {
  ForeignLock lock(PathOf("wal_v5"), F_WRLCK, kGateByte, 1);
  CapturedStdout output;
  EXPECT_EQ(Value(*engine_, "in the log"), "<status 3843>");
  EXPECT_EQ(output.Take(), "Failed lock wal");
}

// Kept: the gate byte of a writer that gave up stays locked until it writes again or closes the file.
TEST_F(LocksTest, AWriterThatGaveUpKeepsTheGateUntilItsNextSuccess) {
  ForeignLock reader(PathOf("wal_v5"), F_RDLCK, kLockRange, kLockRangeLength);
  CapturedStdout output;
  EXPECT_EQ(Insert(*engine_, "key", "value"), kStatusLockFailed);
  EXPECT_EQ(Locks("wal_v5"), "write 40000000+1, read 40000001+1ff");
  reader.Release();
  EXPECT_EQ(Locks("wal_v5"), "write 40000000+1");
  ChildProcess other([this](ChildLink&) { return Value(*Open(), "in the log") == "<status 3843>" ? 0 : 1; });
  EXPECT_EQ(other.Wait(), 0);
  EXPECT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
  EXPECT_EQ(Locks("wal_v5"), "");
}

TEST_F(LocksTest, ALockIsTriedForAboutThreeMilliseconds) {
  ForeignLock lock(PathOf("wal_v5"), F_WRLCK, kGateByte, 1);
  CapturedStdout output;
  const auto start = std::chrono::steady_clock::now();
  constexpr int kCalls = 20;
  for (int i = 0; i < kCalls; ++i) EXPECT_TRUE(engine_->Contains("key"));
  const auto each = (std::chrono::steady_clock::now() - start) / kCalls;
  EXPECT_GE(each, std::chrono::milliseconds(3));
  EXPECT_LT(each, std::chrono::milliseconds(300)) << "it waits for nobody";
}

TEST_F(LocksTest, WithTheManifestLockedTheLogAloneAnswers) {
  ForeignLock lock(PathOf("manifest_v5"), F_WRLCK, kGateByte, 1 + kLockRangeLength);
  CapturedStdout output;
  EXPECT_EQ(Value(*engine_, "in the log"), "value");
  EXPECT_TRUE(engine_->Contains("in the log"));
  EXPECT_EQ(Insert(*engine_, "another", "value"), kStatusOk);
  EXPECT_EQ(output.Take(), "");

  const Got got = Get(*engine_, "key0");
  EXPECT_EQ(got.status, kStatusLockFailed);
  EXPECT_FALSE(got.valueSet);
  EXPECT_FALSE(got.sizeSet);
  EXPECT_EQ(output.Take(), "Failed lock manifest");
  EXPECT_TRUE(engine_->Contains("never written"));
  EXPECT_EQ(output.Take(), "Failed lock manifest");
  DataEntry entry = {};
  EXPECT_EQ(engine_->GetDataEntry("key0", entry), kStatusLockFailed);
  EXPECT_EQ(output.Take(), "Failed lock manifest");
  EXPECT_EQ(engine_->EnumerateKeys("a", "z", [](const Key&) { return false; }), kStatusLockFailed);
  EXPECT_EQ(output.Take(), "Failed lock manifest");
}

TEST_F(LocksTest, AFlushThatCannotBeRecordedLosesNothing) {
  FillLog();
  const uint32_t used = LogUsed();
  const Strings listed = ListedBlocks();
  const std::string manifest = Manifest().Bytes();
  {
    ForeignLock lock(PathOf("manifest_v5"), F_RDLCK, kLockRange, kLockRangeLength);
    CapturedStdout output;
    EXPECT_EQ(Insert(*engine_, "large", std::string(300, 'l')), kStatusLockFailed);
    EXPECT_EQ(output.Take(), std::string(kFull) + "Failed lock manifest");
    EXPECT_EQ(Value(*engine_, "in the log"), "value");
  }
  EXPECT_EQ(LogUsed(), used);
  EXPECT_TRUE(Manifest().Bytes() == manifest);
  EXPECT_EQ(BlockFiles().size(), 5u) << "its file stays, in no list";
  ASSERT_EQ(Insert(*engine_, "large", std::string(300, 'l')), kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 5u);
  EXPECT_EQ(Value(*engine_, "in the log"), "value");
  EXPECT_EQ(Value(*engine_, "large"), std::string(300, 'l'));
}

TEST_F(LocksTest, ACompactionThatCannotBeRecordedChangesNothing) {
  const std::string manifest = Manifest().Bytes();
  const Strings listed = ListedBlocks();
  {
    ForeignLock lock(PathOf("manifest_v5"), F_RDLCK, kLockRange, kLockRangeLength);
    CapturedStdout output;
    EXPECT_EQ(engine_->ForceCompact(), kStatusLockFailed);
    EXPECT_EQ(output.Take(), "Failed lock manifest");
  }
  EXPECT_TRUE(Manifest().Bytes() == manifest);
  EXPECT_EQ(BlockFiles().size(), 5u) << "the merged file stays, in no list";
  EXPECT_EQ(Value(*engine_, "key2"), "value2");
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 1u);
  EXPECT_EQ(BlockFiles().size(), 2u);
}

// Kept: the log is emptied before the manifest is locked.
TEST_F(LocksTest, AClearThatCannotLockTheManifestHasEmptiedTheLog) {
  const std::string manifest = Manifest().Bytes();
  {
    ForeignLock lock(PathOf("manifest_v5"), F_RDLCK, kLockRange, kLockRangeLength);
    CapturedStdout output;
    EXPECT_EQ(engine_->Clear(), kStatusLockFailed);
    EXPECT_EQ(output.Take(), "Failed lock manifest");
  }
  EXPECT_EQ(LogUsed(), 128u);
  EXPECT_EQ(Value(*engine_, "in the log"), "<none>");
  EXPECT_TRUE(Manifest().Bytes() == manifest);
  EXPECT_EQ(BlockFiles().size(), 4u);
  EXPECT_EQ(Value(*engine_, "key0"), "value0");
}

TEST_F(LocksTest, ReadersLockForReadingAndWritersForWriting) {
  Strings seen;
  ASSERT_EQ(engine_->EnumerateKeys("key0", "key1",
                                   [&](const Key&) {
                                     seen.push_back(Locks("wal_v5"));
                                     seen.push_back(Locks("manifest_v5"));
                                     return true;
                                   }),
            kStatusOk);
  EXPECT_EQ(seen, (Strings{"read 40000001+1ff", "read 40000001+1ff"}));

  seen.clear();
  clock_.OnReading([&](int) { seen.push_back(Locks("wal_v5") + "; " + Locks("manifest_v5")); });
  ASSERT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
  clock_.OnReading(nullptr);
  EXPECT_EQ(seen, Strings{"write 40000000+200; "});
  EXPECT_EQ(Locks("wal_v5"), "");
  EXPECT_EQ(Locks("manifest_v5"), "");
}

// The append that is tried again after a flush must not race with other processes: it is done before the
// flush lets go of the log.
TEST_F(LocksTest, TheAppendAfterAFlushHappensUnderTheLockOfTheLog) {
  FillLog();
  Strings seen;
  clock_.OnReading([&](int) { seen.push_back(Locks("wal_v5") + "; " + Locks("manifest_v5")); });
  CapturedStdout output;
  ASSERT_EQ(Insert(*engine_, "large", std::string(300, 'l')), kStatusOk);
  clock_.OnReading(nullptr);
  EXPECT_EQ(output.Take(), kFull);
  // The clock is read for the manifest's record, twice, and last for the entry.
  const std::string recording = "write 40000000+200; write 40000000+200";
  EXPECT_EQ(std::count(seen.begin(), seen.end(), recording), 2);
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.back(), "write 40000000+200; ");
  EXPECT_EQ(Locks("wal_v5"), "");
  EXPECT_EQ(LogUsed(), 128u + 40 + 5 + 300);
}

TEST_F(LocksTest, EveryOperationLetsGoOfItsLocks) {
  engine_->ResetWal();
  engine_->ForceCompact();
  engine_->DeleteByRange("a", "z");
  engine_->Clear();
  Value(*engine_, "key0");
  CapturedStdout output;
  Insert(*engine_, "", "refused");
  EXPECT_EQ(Locks("wal_v5"), "");
  EXPECT_EQ(Locks("manifest_v5"), "");
}

}  // namespace
}  // namespace Kestrun::Testing
