// Single keys: writing, reading, deleting, expiry, limits.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "block/block.h"
#include "tests/engine/store_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/fake_clock.h"

namespace Kestrun::Testing {
namespace {

class PointTest : public StoreTest {
 protected:
  FakeClock clock_;
  std::unique_ptr<LSDBImpl> engine_ = Open();
};

TEST_F(PointTest, WhatWasWrittenIsRead) {
  ASSERT_EQ(Insert(*engine_, "key", std::string("a\0b", 3)), kStatusOk);
  const Got got = Get(*engine_, "key");
  EXPECT_EQ(got.status, kStatusOk);
  EXPECT_EQ(got.bytes, std::string("a\0b", 3));
  EXPECT_TRUE(engine_->Contains("key"));
  ASSERT_EQ(Insert(*engine_, "key", "newer"), kStatusOk);
  EXPECT_EQ(Value(*engine_, "key"), "newer");
}

TEST_F(PointTest, AMissingKeyIsNoError) {
  MakeBlock(*engine_, {{"another", "value"}});
  CapturedStdout output;
  const Got got = Get(*engine_, "key");
  EXPECT_EQ(got.status, kStatusOk);
  EXPECT_TRUE(got.isNull);
  EXPECT_EQ(got.size, 0u);
  EXPECT_FALSE(engine_->Contains("key"));
  EXPECT_EQ(engine_->FindBlock("key"), nullptr);
  EXPECT_EQ(output.Take(), "");
}

TEST_F(PointTest, AnEmptyKeyIsRefusedAndNothingWritten) {
  const auto before = Contents();
  CapturedStdout output;
  EXPECT_EQ(Insert(*engine_, "", "value"), kStatusInvalid);
  EXPECT_EQ(output.Take(), "Invalid key");
  EXPECT_EQ(engine_->Delete(""), kStatusInvalid);
  EXPECT_EQ(output.Take(), "Invalid key");
  EXPECT_TRUE(Contents() == before);
  EXPECT_EQ(Value(*engine_, ""), "<none>");
  EXPECT_FALSE(engine_->Contains(""));
}

TEST_F(PointTest, AKeyThatWasMovedFromIsAnEmptyKey) {
  Key key("a key that lies on the heap");
  const Key taken(std::move(key));
  CapturedStdout output;
  EXPECT_EQ(engine_->Insert(key, kLong, "v", 1), kStatusInvalid);  // NOLINT: on purpose
  EXPECT_EQ(output.Take(), "Invalid key");
  EXPECT_FALSE(engine_->Contains(key));
  EXPECT_EQ(engine_->Insert(taken, kLong, "v", 1), kStatusOk);
}

TEST_F(PointTest, AMissingValueWithASizeIsRefusedInSilence) {
  const auto before = Contents();
  CapturedStdout output;
  EXPECT_EQ(engine_->Insert("key", kLong, nullptr, 1), kStatusInvalid);
  EXPECT_EQ(engine_->Insert("key", kLong, nullptr, 0xFFFFFFFF), kStatusInvalid);
  EXPECT_EQ(output.Take(), "");
  EXPECT_TRUE(Contents() == before);
  EXPECT_EQ(engine_->Insert("key", kLong, nullptr, 0), kStatusOk);
  EXPECT_TRUE(engine_->Contains("key"));
}

TEST_F(PointTest, MissingOutPointersAreRefused) {
  ASSERT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
  const void* value = nullptr;
  unsigned int size = 7;
  EXPECT_EQ(engine_->Get("key", nullptr, &size), kStatusInvalid);
  EXPECT_EQ(size, 7u);
  EXPECT_EQ(engine_->Get("key", &value, nullptr), kStatusInvalid);
  EXPECT_EQ(value, nullptr);
}

TEST_F(PointTest, AnEmptyValueIsThereAndReadsAsNull) {
  for (const bool inBlock : {false, true}) {
    ASSERT_EQ(Insert(*engine_, "key", ""), kStatusOk);
    if (inBlock) Flush(*engine_);
    const Got got = Get(*engine_, "key");
    EXPECT_EQ(got.status, kStatusOk);
    EXPECT_TRUE(got.isNull);
    EXPECT_EQ(got.size, 0u);
    EXPECT_TRUE(got.sizeSet);
    EXPECT_TRUE(engine_->Contains("key"));
  }
}

TEST_F(PointTest, EachReadHandsOutABufferOfItsOwn) {
  for (const bool inBlock : {false, true}) {
    ASSERT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
    if (inBlock) Flush(*engine_);
    const void* first = nullptr;
    const void* second = nullptr;
    unsigned int size = 0;
    ASSERT_EQ(engine_->Get("key", &first, &size), kStatusOk);
    ASSERT_EQ(engine_->Get("key", &second, &size), kStatusOk);
    EXPECT_NE(first, second);
    std::free(const_cast<void*>(first));
    EXPECT_EQ(std::string(static_cast<const char*>(second), size), "value");
    std::free(const_cast<void*>(second));
  }
}

TEST_F(PointTest, ADeletedKeyIsGoneWhetherOrNotItWasThere) {
  ASSERT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
  for (const char* key : {"key", "never written"}) {
    EXPECT_EQ(engine_->Delete(key), kStatusOk);
    const Got got = Get(*engine_, key);
    EXPECT_EQ(got.status, kStatusOk);
    EXPECT_TRUE(got.isNull);
    EXPECT_EQ(got.size, 0u);
    EXPECT_FALSE(engine_->Contains(key));
  }
  EXPECT_EQ(LogUsed(), 128u + (40 + 3 + 5) + (40 + 3) + (40 + 13)) << "the marker is written all the same";
  ASSERT_EQ(Insert(*engine_, "key", "again"), kStatusOk);
  EXPECT_EQ(Value(*engine_, "key"), "again");
}

TEST_F(PointTest, ADeletionInTheLogHidesABlockAndANewerBlockHidesAnOlderOne) {
  MakeBlock(*engine_, {{"a", "old"}, {"b", "old"}, {"c", "old"}});
  ASSERT_EQ(engine_->Delete("a"), kStatusOk);
  ASSERT_EQ(Insert(*engine_, "b", "new"), kStatusOk);
  const auto check = [this] {
    EXPECT_EQ(Value(*engine_, "a"), "<none>");
    EXPECT_FALSE(engine_->Contains("a"));
    EXPECT_EQ(Value(*engine_, "b"), "new");
    EXPECT_EQ(Value(*engine_, "c"), "old");
  };
  check();
  ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  check();
}

TEST_F(PointTest, AnEntryLivesThroughItsLastSecondInTheLogAndInABlock) {
  for (const bool inBlock : {false, true}) {
    ASSERT_EQ(Insert(*engine_, "now", "value", 0), kStatusOk);
    ASSERT_EQ(Insert(*engine_, "later", "value", 5), kStatusOk);
    if (inBlock) Flush(*engine_);
    EXPECT_EQ(Value(*engine_, "now"), "value");
    clock_.Advance(1);
    CapturedStdout output;
    EXPECT_EQ(Get(*engine_, "now").status, inBlock ? kStatusInvalid : kStatusExpired);
    EXPECT_EQ(output.Take(), "TTL verification failed");
    clock_.Advance(4);
    EXPECT_EQ(Value(*engine_, "later"), "value");
    EXPECT_EQ(output.Take(), "");
    clock_.Advance(1);
    EXPECT_EQ(Get(*engine_, "later").status, inBlock ? kStatusInvalid : kStatusExpired);
    EXPECT_EQ(output.Take(), "TTL verification failed");
    EXPECT_TRUE(engine_->Contains("now"));
    EXPECT_TRUE(engine_->Contains("later"));
    DataEntry entry = {};
    EXPECT_EQ(engine_->GetDataEntry("now", entry), kStatusOk);
    EXPECT_EQ(entry.valueSize, 5u);
  }
}

// Callers tell the log from a block by what an expired entry leaves of their variables.
TEST_F(PointTest, AnExpiredEntryLeavesTheValueAloneAndInABlockNotTheSize) {
  ASSERT_EQ(Insert(*engine_, "key", "value", 0), kStatusOk);
  clock_.Advance(1);
  CapturedStdout output;
  Got got = Get(*engine_, "key");
  EXPECT_EQ(got.status, kStatusExpired);
  EXPECT_FALSE(got.valueSet);
  EXPECT_FALSE(got.sizeSet);

  ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  got = Get(*engine_, "key");
  EXPECT_EQ(got.status, kStatusInvalid);
  EXPECT_FALSE(got.valueSet);
  EXPECT_EQ(got.size, 5u);
}

TEST_F(PointTest, ADeletionMarkerNeverExpiresInTheLogAndDoesInABlock) {
  ASSERT_EQ(engine_->Delete("key"), kStatusOk);
  clock_.Advance(10);
  CapturedStdout output;
  EXPECT_EQ(Value(*engine_, "key"), "<none>");
  EXPECT_EQ(output.Take(), "");
  ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  const Got got = Get(*engine_, "key");
  EXPECT_EQ(got.status, kStatusInvalid);
  EXPECT_EQ(got.size, 0u);
  EXPECT_EQ(output.Take(), "TTL verification failed");
  EXPECT_FALSE(engine_->Contains("key"));
}

TEST_F(PointTest, TheLongestTimeToLiveDoesNotWrap) {
  ASSERT_EQ(Insert(*engine_, "key", "value", 0xFFFFFFFF), kStatusOk);
  clock_.Advance(0xFFFFFFFF);
  EXPECT_EQ(Value(*engine_, "key"), "value");
  clock_.Advance(1);
  CapturedStdout output;
  EXPECT_EQ(Value(*engine_, "key"), "<status 4098>");
}

TEST_F(PointTest, GetDataEntryCopiesTheNewestEntryAndLeavesTheRestAlone) {
  const DataEntry marked = {1, 2, true, 3, 4};
  DataEntry entry = marked;
  const auto untouched = [&entry] {
    return entry.valueOffset == 1 && entry.valueSize == 2 && entry.deleted && entry.timestamp == 3 &&
           entry.ttl == 4;
  };
  EXPECT_EQ(engine_->GetDataEntry("missing", entry), kStatusOk);
  EXPECT_TRUE(untouched());

  ASSERT_EQ(Insert(*engine_, "key", "value", 9), kStatusOk);
  EXPECT_EQ(engine_->GetDataEntry("key", entry), kStatusOk);
  EXPECT_EQ(entry.valueOffset, 128u + 40 + 3);
  EXPECT_EQ(entry.valueSize, 5u);
  EXPECT_FALSE(entry.deleted);
  EXPECT_EQ(entry.timestamp, clock_.Now());
  EXPECT_EQ(entry.ttl, 9u);

  // A deletion marker in the log is not copied, one in a block is.
  entry = marked;
  ASSERT_EQ(engine_->Delete("key"), kStatusOk);
  EXPECT_EQ(engine_->GetDataEntry("key", entry), kStatusOk);
  EXPECT_TRUE(untouched());
  ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  EXPECT_EQ(engine_->GetDataEntry("key", entry), kStatusOk);
  EXPECT_TRUE(entry.deleted);
  EXPECT_EQ(entry.timestamp, clock_.Now());
  EXPECT_EQ(entry.valueSize, 0u);
}

TEST_F(PointTest, FindBlockGivesTheNewestBlockThatHoldsTheKey) {
  MakeBlock(*engine_, {{"a", "old"}, {"b", "old"}});
  MakeBlock(*engine_, {{"b", "newer"}});
  ASSERT_EQ(engine_->Delete("b"), kStatusOk);
  ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  EXPECT_EQ(engine_->FindBlock("a")->Count(), 2u);
  const std::shared_ptr<Block> block = engine_->FindBlock("b");
  ASSERT_NE(block, nullptr);
  DataEntry entry = {};
  ASSERT_EQ(block->Lookup("b", &entry), kStatusOk);
  EXPECT_TRUE(entry.deleted);
}

TEST_F(PointTest, AFullLogIsFlushedOnceAndThenHoldsTheNewEntryAlone) {
  const std::string value(1000, 'v');
  for (const char* key : {"a", "b", "c"}) ASSERT_EQ(Insert(*engine_, key, value), kStatusOk);
  EXPECT_TRUE(BlockFiles().empty());
  CapturedStdout output;
  ASSERT_EQ(Insert(*engine_, "d", value), kStatusOk);
  EXPECT_EQ(output.Take(), kFull);
  EXPECT_EQ(BlockFiles().size(), 1u);
  EXPECT_EQ(ListedBlocks(), BlockFiles());
  EXPECT_EQ(Generation(), 1u);
  EXPECT_EQ(LogUsed(), 128u + 40 + 1 + 1000);
  for (const char* key : {"a", "b", "c", "d"}) EXPECT_EQ(Value(*engine_, key), value);
}

TEST_F(PointTest, ADeletionFlushesAFullLogToo) {
  ASSERT_EQ(Insert(*engine_, "a", std::string(kWalSize - 128 - 41, 'v')), kStatusOk);
  EXPECT_EQ(LogUsed(), kWalSize) << "an entry that ends exactly at the end fits";
  CapturedStdout output;
  ASSERT_EQ(engine_->Delete("a"), kStatusOk);
  EXPECT_EQ(output.Take(), kFull);
  EXPECT_EQ(ListedBlocks().size(), 1u);
  EXPECT_EQ(LogUsed(), 128u + 41);
  EXPECT_EQ(Value(*engine_, "a"), "<none>");
}

TEST_F(PointTest, AnEntryThatDoesNotFitIntoAnEmptyLogIsRefusedAfterOneFlush) {
  ASSERT_EQ(Insert(*engine_, "kept", "value"), kStatusOk);
  CapturedStdout output;
  EXPECT_EQ(Insert(*engine_, "a", std::string(kWalSize - 128 - 40, 'v')), kStatusWalFull);
  EXPECT_EQ(output.Take(), std::string(kFull) + kFull);
  EXPECT_EQ(ListedBlocks().size(), 1u);
  EXPECT_EQ(LogUsed(), 128u);
  EXPECT_EQ(Value(*engine_, "kept"), "value");
  EXPECT_EQ(Value(*engine_, "a"), "<none>");
}

TEST_F(PointTest, ASizeThatWouldWrapIn32BitsDoesNotFit) {
  // The bytes are never touched: the entry is refused for its size alone.
  const char byte = 0;
  CapturedStdout output;
  for (const unsigned int size : {0xFFFFFFFFu, 0xFFFFFFFFu - 40, 0xFFFFFFFFu - 168 - 3, 0x80000000u}) {
    EXPECT_EQ(engine_->Insert("key", kLong, &byte, size), kStatusWalFull) << size;
    EXPECT_EQ(output.Take(), std::string(kFull) + kFull) << size;
  }
  EXPECT_EQ(LogUsed(), 128u);
}

TEST_F(PointTest, TheLongestKeyHas65535BytesAndOneMoreIsAnEmptyKey) {
  engine_.reset();
  const std::unique_ptr<LSDBImpl> engine = Open(256 * 1024);
  const std::string longest(65535, 'k');
  for (const bool inBlock : {false, true}) {
    ASSERT_EQ(Insert(*engine, longest, "value"), kStatusOk);
    if (inBlock) Flush(*engine);
    EXPECT_EQ(Value(*engine, longest), "value");
    EXPECT_EQ(Value(*engine, longest.substr(1)), "<none>");
  }
  CapturedStdout output;
  EXPECT_EQ(Insert(*engine, longest + "k", "value"), kStatusInvalid);
  EXPECT_EQ(output.Take(), "Invalid key");
}

TEST_F(PointTest, ADamagedLogHeaderRefusesWrites) {
  ASSERT_EQ(Insert(*engine_, "key", "value"), kStatusOk);
  const std::string damaged = "\x01";
  const int file = open(PathOf("wal_v5").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(pwrite(file, damaged.data(), 1, 18), 1);
  close(file);
  CapturedStdout output;
  EXPECT_EQ(Insert(*engine_, "another", "value"), kStatusWalChecksum);
  EXPECT_EQ(output.Take(), "Invalid wal checksumFailed to reserve write space\n");
  EXPECT_EQ(engine_->Delete("key"), kStatusWalChecksum);
  EXPECT_EQ(output.Take(), "Invalid wal checksumFailed to reserve write space\n");
  EXPECT_TRUE(BlockFiles().empty()) << "only a full log is flushed";
}

TEST_F(PointTest, AnEntryThatPointsOutOfTheLogIsRefused) {
  engine_.reset();
  std::filesystem::remove(PathOf("wal_v5"));
  FileImage log;
  log.PutBytes(0, std::string("KESTRUN\0", 8)).Put32(8, 5).Put32(12, 128 + 40 + 3 + 5).PutChecksum(16, 0, 16);
  log.Put32(128, kWalSize - 4).Put32(132, 5).Put64(144, clock_.Now()).Put32(152, 60).Put16(160, 3);
  log.PutChecksum(164, 128, 36).PutBytes(168, "key").PutBytes(171, "value").Put8(kWalSize - 1, 0);
  WriteFile(PathOf("wal_v5"), log.Bytes());
  engine_ = Open();
  CapturedStdout output;
  const Got got = Get(*engine_, "key");
  EXPECT_EQ(got.status, kStatusInvalid);
  EXPECT_TRUE(got.isNull);
  EXPECT_EQ(got.size, 0u);
  EXPECT_EQ(output.Take(), "wal boundary verification failed");
}

TEST_F(PointTest, ABlockFileCutUnderAReaderGivesAShortRead) {
  MakeBlock(*engine_, {{"key", std::string(2000, 'v')}});
  std::filesystem::resize_file(PathOf(BlockFiles()[0]), 1000);
  CapturedStdout output;
  const Got got = Get(*engine_, "key");
  EXPECT_EQ(got.status, kStatusBlockShortRead);
  EXPECT_FALSE(got.valueSet);
  EXPECT_EQ(got.size, 2000u);
  EXPECT_EQ(output.Take(), "");
}

TEST_F(PointTest, ACorruptBlockIsDeletedAndStaysListed) {
  MakeBlock(*engine_, {{"key", "old"}});
  MakeBlock(*engine_, {{"key", "new"}});
  const Strings blocks = ListedBlocks();
  engine_.reset();
  WriteFile(PathOf(blocks[1]), "not a block");
  engine_ = Open();
  EXPECT_EQ(Value(*engine_, "key"), "old");
  EXPECT_EQ(BlockFiles(), Strings{blocks[0]});
  EXPECT_EQ(ListedBlocks(), blocks);
}

// An older block may hold an older value; nobody gets that in the place of the newer one.
TEST_F(PointTest, ABlockThatCannotBeReadForNowIsAFailureAndNotAMissingKey) {
  MakeBlock(*engine_, {{"key", "old"}});
  MakeBlock(*engine_, {{"key", "new"}});
  const std::string newest = PathOf(ListedBlocks()[1]);
  engine_.reset();
  std::filesystem::rename(newest, newest + ".away");
  std::filesystem::create_directory(newest);
  engine_ = Open();
  const Got got = Get(*engine_, "key");
  EXPECT_EQ(got.status, kStatusBlockShortRead);
  EXPECT_FALSE(got.valueSet);
  EXPECT_FALSE(got.sizeSet);
  EXPECT_TRUE(engine_->Contains("key"));
  DataEntry entry = {};
  EXPECT_EQ(engine_->GetDataEntry("key", entry), kStatusBlockShortRead);
  EXPECT_EQ(engine_->FindBlock("key"), nullptr);

  std::filesystem::remove(newest);
  std::filesystem::rename(newest + ".away", newest);
  EXPECT_EQ(Value(*engine_, "key"), "new");
}

}  // namespace
}  // namespace Kestrun::Testing
