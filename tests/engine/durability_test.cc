// In which order files reach the disk, and what happens when they don't.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "tests/engine/store_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/interposed_calls.h"

namespace Kestrun::Testing {
namespace {

// Calls of one function, one of which fails.
struct FailingCall {
  int number = 0;  // of the call that fails, counted from 1; or 0
  int error = 0;
  int calls = 0;

  bool IsDue() {
    if (++calls != number) return false;
    errno = error;
    return true;
  }
};

// "block", "manifest" and so on for the path or name of a file of the store.
std::string Kind(const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  if (name.find(".blk_v5") != std::string::npos) return "block";
  return name == "store" ? "directory" : name;
}

// What the tests below want of the engine's calls.
struct DurabilityObserver : CallObserver {
  Strings order;  // "sync block", "remove block" and so on
  FailingCall sync;
  FailingCall read;
  FailingCall write;
  bool readsStumble = false;  // every other pread is interrupted, and the rest are short
  bool directoryAppears = false;

  bool Before(Call& call) override {
    switch (call.function) {
      case Function::FSync:
        order.push_back("sync " + Kind(FileNameOf(call.descriptor)));
        return !sync.IsDue();
      case Function::Remove:
        order.push_back("remove " + Kind(call.path));
        return true;
      case Function::PRead:
        if (read.IsDue()) return false;
        if (readsStumble && read.calls % 2 == 0) {
          errno = EINTR;
          return false;
        }
        if (readsStumble) call.count = std::min<size_t>(call.count, 1000);
        return true;
      case Function::PWrite:
        return !write.IsDue();
      case Function::MkDir:
        // Another process makes the directory at the last moment.
        if (directoryAppears) mkdir(call.path, static_cast<mode_t>(call.flags));
        return true;
      default:
        return true;
    }
  }
};

class DurabilityTest : public StoreTest {
 protected:
  DurabilityTest() { SetCallObserver(&calls_); }
  ~DurabilityTest() override { SetCallObserver(nullptr); }

  void FailSync(int number) {
    calls_.order.clear();
    calls_.sync = {number, EIO};
  }

  DurabilityObserver calls_;
  std::unique_ptr<LSDBImpl> engine_ = Open();
};

TEST_F(DurabilityTest, ABlockAndItsNameAreOnTheDiskBeforeTheManifestNamesIt) {
  ASSERT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
  FailSync(0);
  ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  EXPECT_EQ(calls_.order, (Strings{"sync block", "sync directory", "sync manifest_v5"}));
}

TEST_F(DurabilityTest, OldBlocksGoWhenTheListWithoutThemIsOnTheDisk) {
  MakeBlocks(*engine_, 4);
  FailSync(0);
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  ASSERT_EQ(calls_.order.size() >= 7, true);
  EXPECT_EQ(Strings(calls_.order.begin(), calls_.order.begin() + 2),
            (Strings{"sync block", "sync directory"}));
  const auto manifest = std::find(calls_.order.begin(), calls_.order.end(), "sync manifest_v5");
  ASSERT_NE(manifest, calls_.order.end());
  EXPECT_LT(manifest, std::find(calls_.order.begin(), calls_.order.end(), "remove block"));
  EXPECT_EQ(std::count(calls_.order.begin(), calls_.order.end(), "remove block"), 4);
}

TEST_F(DurabilityTest, AFlushWhoseBlockDoesNotReachTheDiskIsUndone) {
  ASSERT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
  const auto before = Contents();
  for (const int number : {1, 2}) {
    FailSync(number);
    CapturedStdout output;
    EXPECT_EQ(engine_->ResetWal(), kStatusSyncFailed);
    EXPECT_EQ(output.Take(), "Failed to dump wal file");
    EXPECT_TRUE(Contents() == before) << number;
  }
  FailSync(0);
  EXPECT_EQ(engine_->ResetWal(), kStatusOk);
  EXPECT_EQ(Value(*engine_, "key"), "value");
}

// The record is in the file and may yet reach the disk, so the block is used; the log keeps its entries.
TEST_F(DurabilityTest, AFlushWhoseRecordDoesNotReachTheDiskKeepsTheLogAndTheBlock) {
  ASSERT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
  const uint32_t used = LogUsed();
  FailSync(3);
  CapturedStdout output;
  EXPECT_EQ(engine_->ResetWal(), kStatusSyncFailed);
  EXPECT_EQ(output.Take(), "Failed to update manifest");
  FailSync(0);
  EXPECT_EQ(LogUsed(), used);
  EXPECT_EQ(ListedBlocks(), BlockFiles());
  EXPECT_NE(engine_->FindBlock("key"), nullptr);
  EXPECT_EQ(Value(*engine_, "key"), "value");
  EXPECT_EQ(engine_->ResetWal(), kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 2u);
  EXPECT_EQ(Value(*Open(), "key"), "value");
}

TEST_F(DurabilityTest, ABlockWhoseRecordDoesNotReachTheDiskIsInTheCache) {
  ASSERT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
  FailSync(3);
  CapturedStdout output;
  EXPECT_EQ(engine_->ResetWal(), kStatusSyncFailed);
  FailSync(0);
  ASSERT_EQ(BlockFiles().size(), 1u);
  std::filesystem::remove(PathOf(BlockFiles()[0]));
  EXPECT_NE(engine_->FindBlock("key"), nullptr);
}

// Wherever it happens: no source is deleted, and everything can be read.
TEST_F(DurabilityTest, ACompactionWhoseDataDoesNotReachTheDiskDeletesNothing) {
  MakeBlocks(*engine_, 4);
  int number = 1;
  for (;; ++number) {
    const Strings before = BlockFiles();
    FailSync(number);
    CapturedStdout output;
    const uint32_t status = engine_->ForceCompact();
    const bool failed = calls_.sync.calls >= number;
    FailSync(0);
    output.Take();
    const auto readable = [](LSDBImpl& engine) {
      for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(Value(engine, "key" + std::to_string(i)), "value" + std::to_string(i));
      }
      EXPECT_EQ(Value(engine, "shared"), "3");
    };
    readable(*engine_);
    readable(*Open());
    if (!failed) {
      EXPECT_EQ(status, kStatusOk);
      break;
    }
    if (status != kStatusOk) {
      EXPECT_EQ(status, kStatusSyncFailed) << number;
      const Strings after = BlockFiles();
      EXPECT_TRUE(std::includes(after.begin(), after.end(), before.begin(), before.end())) << number;
    }
    while (ListedBlocks().size() < 4) MakeBlocks(*engine_, 4);
  }
  EXPECT_GE(number, 5) << "block, directory, side file, directory and manifest at least";
}

class FailingReadTest : public DurabilityTest {
 protected:
  FailingReadTest() {
    MakeBlocks(*engine_, 5);
    Reopen();
  }

  // With nothing in its cache.
  void Reopen() {
    engine_.reset();
    engine_ = Open();
  }
  void FailRead(int number) { calls_.read = {number, EIO}; }
  void ExpectAll() {
    for (int i = 0; i < 5; ++i) {
      EXPECT_EQ(Value(*engine_, "key" + std::to_string(i)), "value" + std::to_string(i));
    }
    EXPECT_EQ(Value(*engine_, "shared"), "4");
  }
};

TEST_F(FailingReadTest, InterruptedAndPartialReadsAreGoneOnWith) {
  calls_.readsStumble = true;
  ExpectAll();
  EXPECT_EQ(BlockFiles().size(), 5u);
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  Reopen();
  ExpectAll();
  EXPECT_EQ(BlockFiles().size(), 1u);
}

// Only what was really read and is wrong is deleted.
TEST_F(FailingReadTest, ABlockThatCouldNotBeReadIsKept) {
  const auto before = Contents();
  int number = 1;
  for (;; ++number) {
    Reopen();
    FailRead(number);
    const Got got = Get(*engine_, "key2");
    const bool reached = calls_.read.calls >= number;
    FailRead(0);
    EXPECT_TRUE(Contents() == before) << number;
    if (!reached) break;
    EXPECT_EQ(got.status, kStatusBlockShortRead) << number;
    EXPECT_FALSE(got.valueSet);
    EXPECT_EQ(Value(*engine_, "key2"), "value2");
  }
  EXPECT_GE(number, 4) << "headers, entries and the value at least";
}

TEST_F(FailingReadTest, ACompactionThatCouldNotReadChangesNothing) {
  auto before = Contents();
  int number = 1;
  for (;; ++number) {
    Reopen();
    FailRead(number);
    CapturedStdout output;
    const uint32_t status = engine_->ForceCompact();
    const bool reached = calls_.read.calls >= number;
    FailRead(0);
    output.Take();
    if (!reached) break;
    ASSERT_NE(status, kStatusOk) << number;
    // A merged block that could not be recorded stays, in no list.
    const auto after = Contents();
    ASSERT_TRUE(std::includes(after.begin(), after.end(), before.begin(), before.end())) << number;
    ASSERT_LE(after.size(), before.size() + 1) << number;
    before = after;
  }
  EXPECT_GE(number, 20) << "each of five blocks is read in several pieces, and then the manifest";
  EXPECT_EQ(ListedBlocks().size(), 1u);
  ExpectAll();
}

class FailingWriteTest : public DurabilityTest {
 protected:
  void FailWrite(int number) { calls_.write = {number, ENOSPC}; }

  // Does `operation` with its first write failing, then with its second one, and so on, until all succeed.
  // Each failure is reported, and leaves what there was and at most one file in no list. Returns the number
  // of writes.
  int FailEachWriteOf(const std::function<uint32_t()>& operation) {
    auto before = Contents();
    for (int number = 1;; ++number) {
      FailWrite(number);
      CapturedStdout output;
      const uint32_t status = operation();
      const bool reached = calls_.write.calls >= number;
      FailWrite(0);
      output.Take();
      if (!reached) {
        EXPECT_EQ(status, kStatusOk);
        return number - 1;
      }
      EXPECT_TRUE(status == kStatusCreateFailed || status == kStatusBlockWriteFailed ||
                  status == kStatusManifestWriteFailed)
          << status << " at write " << number;
      const auto after = Contents();
      EXPECT_TRUE(std::includes(after.begin(), after.end(), before.begin(), before.end())) << number;
      EXPECT_LE(after.size(), before.size() + 1) << number;
      before = after;
      if (HasFailure()) return number;
    }
  }
};

// Also when the disk is full for one moment only: a block with a hole would be deleted as corrupt later.
TEST_F(FailingWriteTest, AFlushThatCouldNotWriteLosesNothing) {
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(Insert(*engine_, "key" + std::to_string(i), std::string(100, 'v')), kStatusOk);
  }
  EXPECT_GE(FailEachWriteOf([this] { return engine_->ResetWal(); }), 5)
      << "header, values, keys, entries and the manifest's record";
  EXPECT_EQ(ListedBlocks().size(), 1u);
  const std::unique_ptr<LSDBImpl> later = Open();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(Value(*later, "key" + std::to_string(i)), std::string(100, 'v'));
}

TEST_F(FailingWriteTest, ACompactionThatCouldNotWriteLosesNothing) {
  MakeBlocks(*engine_, 5);
  EXPECT_GE(FailEachWriteOf([this] { return engine_->ForceCompact(); }), 6)
      << "header, values, keys, entries, the manifest's side file and the manifest";
  EXPECT_EQ(ListedBlocks().size(), 1u);
  engine_.reset();
  engine_ = Open();
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(Value(*engine_, "key" + std::to_string(i)), "value" + std::to_string(i));
  }
}

TEST_F(DurabilityTest, ADirectoryThatAnotherProcessMakesAtTheSameMomentIsAsGood) {
  path_ += " of two";
  calls_.directoryAppears = true;
  CapturedStdout output;
  const std::unique_ptr<LSDBImpl> engine = Open();
  calls_.directoryAppears = false;
  EXPECT_EQ(output.Take(), "");
  ASSERT_NE(engine, nullptr);
  EXPECT_EQ(Insert(*engine, "key", "value"), kStatusOk);
}

}  // namespace
}  // namespace Kestrun::Testing
