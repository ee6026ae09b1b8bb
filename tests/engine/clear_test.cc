// Emptying an open store.
#include <gtest/gtest.h>

#include "tests/engine/store_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"
#include "tests/support/process_maps.h"

namespace Kestrun::Testing {
namespace {

class ClearTest : public StoreTest {
 protected:
  void Fill() {
    MakeBlocks(*engine_, 3);
    ASSERT_EQ(Insert(*engine_, "in the log", "value"), kStatusOk);
    ASSERT_EQ(engine_->Delete("key0"), kStatusOk);
  }
  void ExpectEmpty(LSDBImpl& engine) const {
    for (const char* key : {"key0", "key1", "shared", "in the log"}) {
      const Got got = Get(engine, key);
      EXPECT_EQ(got.status, kStatusOk) << key;
      EXPECT_TRUE(got.isNull) << key;
      EXPECT_EQ(got.size, 0u) << key;
      EXPECT_FALSE(engine.Contains(key)) << key;
    }
    EXPECT_TRUE(Keys(engine).empty());
  }

  std::unique_ptr<LSDBImpl> engine_ = Open();
};

TEST_F(ClearTest, NothingIsLeft) {
  Fill();
  CapturedStdout output;
  EXPECT_EQ(engine_->Clear(), kStatusOk);
  ExpectEmpty(*engine_);
  EXPECT_EQ(output.Take(), "");
  EXPECT_EQ(Files(), (Strings{"manifest_v5", "wal_v5"}));
  EXPECT_EQ(Manifest().Bytes().size(), 128u);
  EXPECT_EQ(LogUsed(), 128u);
  ExpectEmpty(*Open());
  engine_.reset();
  engine_ = Open();
  ExpectEmpty(*engine_);
}

TEST_F(ClearTest, AnEmptyStoreIsClearedWithSuccess) {
  const auto before = Contents();
  EXPECT_EQ(engine_->Clear(), kStatusOk);
  EXPECT_TRUE(Contents() == before);
}

// Other processes tell by it that nothing was appended.
TEST_F(ClearTest, TheGenerationStays) {
  Fill();
  EXPECT_EQ(engine_->Clear(), kStatusOk);
  EXPECT_EQ(Generation(), 3u);
  MakeBlock(*engine_, {{"key", "value"}});
  EXPECT_EQ(Generation(), 4u);
  EXPECT_EQ(ListedBlocks().size(), 1u);
}

TEST_F(ClearTest, EveryFileWithTheMarkOfABlockGoesAndNoOther) {
  Fill();
  for (const char* name : {"UNRECORDED.blk_v5", "notes.blk_v5.txt", "x.blk_v5y"})
    WriteFile(PathOf(name), "x");
  const Strings others = {"UPPER.BLK_V5", "blk_v5", "meta_v5",      "notes.txt",
                          "old.blk_v3",   "wal_v3", "x.blk_v.blk_5"};
  for (const std::string& name : others) WriteFile(PathOf(name), "x");
  EXPECT_EQ(engine_->Clear(), kStatusOk);
  Strings expected = others;
  expected.insert(expected.end(), {"manifest_v5", "wal_v5"});
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(Files(), expected);
}

TEST_F(ClearTest, AStoreGoesOnAfterItWasCleared) {
  for (int round = 0; round < 3; ++round) {
    Fill();
    EXPECT_EQ(engine_->Clear(), kStatusOk);
    MakeBlock(*engine_, {{"key1", "new"}});
    ASSERT_EQ(Insert(*engine_, "in the log", "new"), kStatusOk);
    EXPECT_EQ(BlockFiles().size(), 1u);
    EXPECT_EQ(Value(*engine_, "key1"), "new");
    EXPECT_EQ(Value(*engine_, "shared"), "<none>");
    EXPECT_EQ(Keys(*engine_), (Strings{"key1", "in the log"}));
  }
}

// Kept: each call leaves one stream over the directory open.
TEST_F(ClearTest, OneDirectoryStreamStaysOpenForEachCall) {
  Fill();
  for (size_t calls = 1; calls <= 5; ++calls) {
    EXPECT_EQ(engine_->Clear(), kStatusOk);
    EXPECT_EQ(DescriptorsOf(path_).size(), calls);
  }
}

TEST_F(ClearTest, WithoutItsDirectoryTheLogAndTheManifestAreEmptiedAllTheSame) {
  Fill();
  std::filesystem::rename(path_, path_ + ".away");
  CapturedStdout output;
  EXPECT_EQ(engine_->Clear(), kStatusOpenFailed);
  EXPECT_EQ(output.Take(), "");
  std::filesystem::rename(path_ + ".away", path_);
  ExpectEmpty(*engine_);
  EXPECT_EQ(BlockFiles().size(), 3u);
  EXPECT_EQ(Manifest().Bytes().size(), 128u);
  EXPECT_EQ(engine_->Clear(), kStatusOk);
  EXPECT_TRUE(BlockFiles().empty());
}

TEST_F(ClearTest, AnotherEngineOfTheProcessSeesItAtOnce) {
  Fill();
  const std::unique_ptr<LSDBImpl> other = Open();
  EXPECT_EQ(Value(*other, "key1"), "value1");
  EXPECT_EQ(engine_->Clear(), kStatusOk);
  ExpectEmpty(*other);
}

// Kept: the generation has not moved, so another process uses its list, and the blocks that it has loaded,
// until the next block is recorded. The log it sees at once.
TEST_F(ClearTest, AnotherProcessKeepsItsBlocksUntilTheNextOneIsRecorded) {
  Fill();
  ChildProcess other([this](ChildLink& parent) {
    const std::unique_ptr<LSDBImpl> engine = Open();
    EXPECT_EQ(Value(*engine, "key1"), "value1");
    EXPECT_EQ(Value(*engine, "in the log"), "value");
    parent.Signal();
    parent.Await();
    EXPECT_EQ(Value(*engine, "in the log"), "<none>");
    EXPECT_EQ(Value(*engine, "key1"), "value1");
    parent.Signal();
    parent.Await();
    EXPECT_EQ(Value(*engine, "key1"), "<none>");
    EXPECT_EQ(Value(*engine, "new"), "value");
    return HasFailure() ? 1 : 0;
  });
  other.Await();
  EXPECT_EQ(engine_->Clear(), kStatusOk);
  other.Signal();
  other.Await();
  MakeBlock(*engine_, {{"new", "value"}});
  other.Signal();
  EXPECT_EQ(other.Wait(), 0);
}

}  // namespace
}  // namespace Kestrun::Testing
