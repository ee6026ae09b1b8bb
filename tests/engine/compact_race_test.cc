// What lands in the middle of a compaction, between the list of blocks that it begins with and the one that
// it leaves behind. The merge reads the clock: there the test steps in.
#include <gtest/gtest.h>

#include <thread>

#include "tests/engine/store_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_clock.h"

namespace Kestrun::Testing {
namespace {

// Where in the merge the test steps in.
enum class Moment { Beginning, End };

// The merge reads the clock when it begins and then for each of the five keys that it copies.
constexpr int kReadings = 1 + 5;

class CompactRaceTest : public StoreTest, public ::testing::WithParamInterface<Moment> {
 protected:
  void MakeStore() {
    engine_ = Open();
    MakeBlocks(*engine_, 4);
  }

  // Compacts, and does `meanwhile` while the merge is under way and nothing is locked.
  uint32_t CompactWhile(const std::function<void()>& meanwhile) {
    if (engine_ == nullptr) MakeStore();
    const Strings before = BlockFiles();
    const int moment = GetParam() == Moment::Beginning ? 1 : kReadings;
    int readings = 0;
    bool done = false;
    clock_.OnReading([&](int) {
      // The file that is to be written has its name when the merge begins.
      if (done || BlockFiles() == before || ++readings < moment) return;
      done = true;
      meanwhile();
    });
    const uint32_t status = engine_->ForceCompact();
    clock_.OnReading(nullptr);
    EXPECT_TRUE(done);
    return status;
  }
  // The same in another process, which has had the store open since before the compaction.
  uint32_t CompactWhileAnotherProcess(const std::function<void(LSDBImpl&)>& act) {
    ChildProcess other([&](ChildLink& parent) {
      parent.Await();
      const std::unique_ptr<LSDBImpl> engine = Open();
      Value(*engine, "key0");
      parent.Signal();
      parent.Await();
      act(*engine);
      parent.Signal();
      parent.Await();
      return HasFailure() ? 1 : 0;
    });
    MakeStore();
    other.Signal();
    other.Await();
    const uint32_t status = CompactWhile([&other] {
      other.Signal();
      other.Await();
    });
    other.Signal();
    EXPECT_EQ(other.Wait(), 0);
    return status;
  }

  void ExpectTheFourBlocks(LSDBImpl& engine) {
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(Value(engine, "key" + std::to_string(i)), "value" + std::to_string(i));
    }
  }
  // In this process, which knows what happened, and in one that finds what is on the disk.
  void ExpectEverywhere(const std::function<void(LSDBImpl&)>& expectations) {
    expectations(*engine_);
    ChildProcess later([&](ChildLink&) {
      expectations(*Open());
      return HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(later.Wait(), 0);
  }

  FakeClock clock_;
  std::unique_ptr<LSDBImpl> engine_;
};

TEST_P(CompactRaceTest, ABlockFlushedMeanwhileByTheSameProcessStaysBehindTheMergedOne) {
  EXPECT_EQ(CompactWhile([this] {
              MakeBlock(*engine_, {{"flushed", "meanwhile"}, {"shared", "newest"}});
            }),
            kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 2u);
  EXPECT_EQ(BlockFiles().size(), 2u);
  ExpectEverywhere([this](LSDBImpl& engine) {
    ExpectTheFourBlocks(engine);
    EXPECT_EQ(Value(engine, "flushed"), "meanwhile");
    EXPECT_EQ(Value(engine, "shared"), "newest") << "the later block is the newer one";
  });
}

TEST_P(CompactRaceTest, BlocksFlushedMeanwhileByAnotherThreadKeepTheirOrder) {
  EXPECT_EQ(CompactWhile([this] {
              std::thread other([this] {
                MakeBlock(*engine_, {{"a", "first"}, {"b", "first"}});
                MakeBlock(*engine_, {{"b", "second"}});
              });
              other.join();
            }),
            kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 3u);
  ExpectEverywhere([this](LSDBImpl& engine) {
    ExpectTheFourBlocks(engine);
    EXPECT_EQ(Value(engine, "a"), "first");
    EXPECT_EQ(Value(engine, "b"), "second");
  });
}

TEST_P(CompactRaceTest, ABlockFlushedMeanwhileByAnotherProcessStays) {
  EXPECT_EQ(CompactWhileAnotherProcess([](LSDBImpl& engine) {
              MakeBlock(engine, {{"flushed", "meanwhile"}, {"shared", "newest"}});
            }),
            kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 2u);
  ExpectEverywhere([this](LSDBImpl& engine) {
    ExpectTheFourBlocks(engine);
    EXPECT_EQ(Value(engine, "flushed"), "meanwhile");
    EXPECT_EQ(Value(engine, "shared"), "newest");
  });
}

TEST_P(CompactRaceTest, AKeyDeletedAndFlushedMeanwhileStaysDeleted) {
  EXPECT_EQ(CompactWhileAnotherProcess([](LSDBImpl& engine) {
              EXPECT_EQ(engine.Delete("key1"), kStatusOk);
              Flush(engine);
            }),
            kStatusOk);
  ExpectEverywhere([](LSDBImpl& engine) {
    EXPECT_FALSE(engine.Contains("key1"));
    EXPECT_EQ(Value(engine, "key2"), "value2");
  });
}

TEST_P(CompactRaceTest, TheSecondOfTwoCompactionsGivesWay) {
  const auto compact = [](LSDBImpl& engine) { EXPECT_EQ(engine.ForceCompact(), kStatusOk); };
  EXPECT_EQ(CompactWhileAnotherProcess(compact), kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 1u);
  EXPECT_EQ(BlockFiles(), ListedBlocks()) << "the file that is not needed is gone";
  ExpectEverywhere([this](LSDBImpl& engine) { ExpectTheFourBlocks(engine); });

  MakeBlocks(*engine_, 4);  // five with the merged one
  EXPECT_EQ(CompactWhile([&] { compact(*engine_); }), kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 1u);
  EXPECT_EQ(BlockFiles(), ListedBlocks());
  ExpectEverywhere([this](LSDBImpl& engine) { ExpectTheFourBlocks(engine); });
}

TEST_P(CompactRaceTest, ACompactionAndAFlushMeanwhileAreBothKept) {
  EXPECT_EQ(CompactWhileAnotherProcess([](LSDBImpl& engine) {
              EXPECT_EQ(engine.ForceCompact(), kStatusOk);
              MakeBlock(engine, {{"flushed", "after it"}});
            }),
            kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 2u);
  EXPECT_EQ(BlockFiles().size(), 2u);
  ExpectEverywhere([this](LSDBImpl& engine) {
    ExpectTheFourBlocks(engine);
    EXPECT_EQ(Value(engine, "flushed"), "after it");
  });
}

TEST_P(CompactRaceTest, WhatWasClearedMeanwhileByTheSameProcessStaysCleared) {
  EXPECT_EQ(CompactWhile([this] { EXPECT_EQ(engine_->Clear(), kStatusOk); }), kStatusOk);
  EXPECT_TRUE(ListedBlocks().empty());
  EXPECT_TRUE(BlockFiles().empty());
  ExpectEverywhere([](LSDBImpl& engine) { EXPECT_EQ(Keys(engine), Strings()); });
  MakeBlock(*engine_, {{"new", "value"}});
  ExpectEverywhere([](LSDBImpl& engine) { EXPECT_EQ(Keys(engine), Strings{"new"}); });
}

// Clearing leaves the generation alone, so the list alone does not tell. This process may go on using its own
// list, as without a compaction, but nothing comes back on the disk.
TEST_P(CompactRaceTest, WhatWasClearedMeanwhileByAnotherProcessStaysCleared) {
  EXPECT_EQ(CompactWhileAnotherProcess([](LSDBImpl& engine) { EXPECT_EQ(engine.Clear(), kStatusOk); }),
            kStatusOk);
  EXPECT_TRUE(ListedBlocks().empty());
  EXPECT_TRUE(BlockFiles().empty());
  engine_.reset();
  engine_ = Open();
  ExpectEverywhere([](LSDBImpl& engine) { EXPECT_EQ(Keys(engine), Strings()); });
}

TEST_P(CompactRaceTest, WhatWasWrittenAfterAClearMeanwhileStays) {
  EXPECT_EQ(CompactWhileAnotherProcess([](LSDBImpl& engine) {
              EXPECT_EQ(engine.Clear(), kStatusOk);
              MakeBlock(engine, {{"new", "value"}});
              EXPECT_EQ(Insert(engine, "in the log", "value"), kStatusOk);
            }),
            kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 1u);
  EXPECT_EQ(BlockFiles(), ListedBlocks());
  ExpectEverywhere([](LSDBImpl& engine) { EXPECT_EQ(Keys(engine), (Strings{"new", "in the log"})); });
}

// A forked process draws the names that its parent draws. The one that it draws here is that of the file that
// the parent is writing and that the clearing has taken away.
TEST_P(CompactRaceTest, AForkedProcessDoesNotDrawTheNameOfTheFileThatIsBeingWritten) {
  MakeStore();
  ChildProcess forked([&](ChildLink& parent) {
    const std::unique_ptr<LSDBImpl> engine = Open();
    parent.Await();
    EXPECT_EQ(engine->Clear(), kStatusOk);
    MakeBlock(*engine, {{"new", "value"}});
    parent.Signal();
    parent.Await();
    EXPECT_EQ(Keys(*engine), Strings{"new"});
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(CompactWhile([&forked] {
              forked.Signal();
              forked.Await();
            }),
            kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 1u);
  EXPECT_EQ(BlockFiles(), ListedBlocks());
  forked.Signal();
  EXPECT_EQ(forked.Wait(), 0);
  ExpectEverywhere([](LSDBImpl& engine) { EXPECT_EQ(Keys(engine), Strings{"new"}); });
}

TEST_P(CompactRaceTest, WritesAndReadsMeanwhileGoOn) {
  EXPECT_EQ(CompactWhileAnotherProcess([](LSDBImpl& engine) {
              EXPECT_EQ(Insert(engine, "key0", "overwritten"), kStatusOk);
              EXPECT_EQ(engine.Delete("key1"), kStatusOk);
              EXPECT_EQ(Value(engine, "key2"), "value2");
            }),
            kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 1u);
  ExpectEverywhere([](LSDBImpl& engine) {
    EXPECT_EQ(Value(engine, "key0"), "overwritten");
    EXPECT_FALSE(engine.Contains("key1"));
    EXPECT_EQ(Value(engine, "key2"), "value2");
  });
}

INSTANTIATE_TEST_SUITE_P(At, CompactRaceTest, ::testing::Values(Moment::Beginning, Moment::End),
                         [](const auto& moment) {
                           return moment.param == Moment::Beginning ? "BeginningOfTheMerge" : "EndOfTheMerge";
                         });

}  // namespace
}  // namespace Kestrun::Testing
