// A loaded block: searching it, reading its values, listing its keys.
#include "block/block.h"

#include <gtest/gtest.h>

#include "tests/block/block_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/fake_clock.h"

namespace Kestrun::Testing {
namespace {

class LoadedBlockTest : public BlockTest {
 protected:
  std::unique_ptr<Block> LoadWith(const std::vector<BlockImageEntry>& entries) const {
    return Load(Store("block", BlockImage(entries).Bytes()));
  }
};

TEST_F(LoadedBlockTest, AnEmptyBlockHoldsNothing) {
  const std::unique_ptr<Block> block = LoadWith({});
  EXPECT_EQ(block->Count(), 0u);
  EXPECT_FALSE(block->Contains("a"));
  DataEntry entry = {};
  EXPECT_EQ(block->Lookup("a", &entry), kStatusInvalid);
  EXPECT_TRUE(KeysOf(*block).empty());
}

TEST_F(LoadedBlockTest, FindsEveryKeyAndNoOther) {
  std::vector<BlockImageEntry> entries;
  for (int i = 100; i < 200; i += 2) entries.push_back({"k" + std::to_string(i), "v" + std::to_string(i)});
  const std::unique_ptr<Block> block = LoadWith(entries);
  EXPECT_EQ(block->Count(), 50u);
  for (int i = 98; i < 203; ++i) {
    const std::string key = "k" + std::to_string(i);
    const bool stored = i >= 100 && i < 200 && i % 2 == 0;
    EXPECT_EQ(block->Contains(key), stored) << key;
    const Value value = ReadValue(*block, key);
    EXPECT_EQ(value.status, stored ? kStatusOk : kStatusInvalid) << key;
    EXPECT_EQ(value.bytes, stored ? "v" + std::to_string(i) : "");
  }
  for (const char* absent : {"", "a", "k1", "k1000", "k1980", "z"}) {
    EXPECT_FALSE(block->Contains(absent)) << absent;
  }
}

TEST_F(LoadedBlockTest, LookupCopiesTheEntryAsTheFileHasIt) {
  const std::unique_ptr<Block> block =
      LoadWith({{"a", "first", false, 1700000000, 60}, {"b", "", true, 1700000001, 0}});
  DataEntry entry = {};
  ASSERT_EQ(block->Lookup("a", &entry), kStatusOk);
  EXPECT_EQ(entry.valueOffset, 156u);
  EXPECT_EQ(entry.valueSize, 5u);
  EXPECT_FALSE(entry.deleted);
  EXPECT_EQ(entry.timestamp, 1700000000u);
  EXPECT_EQ(entry.ttl, 60u);
  ASSERT_EQ(block->Lookup("b", &entry), kStatusOk);
  EXPECT_EQ(entry.valueOffset, 161u);
  EXPECT_TRUE(entry.deleted);
  EXPECT_EQ(entry.timestamp, 1700000001u);
  EXPECT_EQ(entry.ttl, 0u);
}

TEST_F(LoadedBlockTest, ALiveDeletionMarkerAndAnEmptyValueReadAsNull) {
  FakeClock clock;
  const std::unique_ptr<Block> block =
      LoadWith({{"empty", "", false, clock.Now(), 0}, {"gone", "", true, clock.Now(), 0}});
  CapturedStdout output;
  for (const char* key : {"empty", "gone"}) {
    const Value value = ReadValue(*block, key);
    EXPECT_EQ(value.status, kStatusOk) << key;
    EXPECT_TRUE(value.isNull) << key;
  }
  EXPECT_EQ(output.Take(), "");
}

TEST_F(LoadedBlockTest, AnEntryExpiresWithTheSecondAfterItsLastOne) {
  FakeClock clock;
  const std::unique_ptr<Block> block =
      LoadWith({{"gone", "", true, clock.Now(), 3}, {"key", "value", false, clock.Now(), 3}});
  CapturedStdout output;
  clock.Advance(3);
  EXPECT_EQ(ReadValue(*block, "key").bytes, "value");
  EXPECT_EQ(output.Take(), "");

  clock.Advance(1);
  for (const char* key : {"key", "gone"}) {
    const Value value = ReadValue(*block, key);
    EXPECT_EQ(value.status, kStatusInvalid) << key;
    EXPECT_FALSE(value.isNull) << "the out-pointer is left alone";
    EXPECT_EQ(output.Take(), "TTL verification failed") << key;
    EXPECT_TRUE(block->Contains(key)) << key;
  }
}

TEST_F(LoadedBlockTest, WriteTimeAndTimeToLiveAreAddedIn64Bits) {
  FakeClock clock;
  clock.Set(5000000000);
  const std::unique_ptr<Block> block =
      LoadWith({{"a", "1", false, 1000000000, 4000000000}, {"b", "2", false, 999999999, 4000000000}});
  CapturedStdout output;
  EXPECT_EQ(ReadValue(*block, "a").bytes, "1");
  EXPECT_EQ(ReadValue(*block, "b").status, kStatusInvalid);
}

TEST_F(LoadedBlockTest, AnExpiredValueIsNotRead) {
  FakeClock clock;
  BlockImage image({{"key", "value", false, clock.Now() - 10, 5}});
  image.file.Put32(image.EntryOffset(0), 0x7FFFFFFF);  // far beyond the end of the file
  image.SealEntry(0);
  CapturedStdout output;
  EXPECT_EQ(ReadValue(*Load(Store("block", image.Bytes())), "key").status, kStatusInvalid);
  EXPECT_EQ(output.Take(), "TTL verification failed");
}

TEST_F(LoadedBlockTest, AValueBeyondTheEndOfTheFileIsAShortRead) {
  BlockImage image({{"key", "value"}});
  image.file.Put32(image.EntryOffset(0), static_cast<uint32_t>(image.Bytes().size() - 4));
  image.SealEntry(0);
  CapturedStdout output;
  const Value value = ReadValue(*Load(Store("cut", image.Bytes())), "key");
  EXPECT_EQ(value.status, kStatusBlockShortRead);
  EXPECT_FALSE(value.isNull) << "the out-pointer is left alone";
  EXPECT_EQ(output.Take(), "");

  image.file.Put32(image.EntryOffset(0), 0xFFFFFFFF).Put32(image.EntryOffset(0) + 4, 1000);
  image.SealEntry(0);
  EXPECT_EQ(ReadValue(*Load(Store("far", image.Bytes())), "key").status, kStatusBlockShortRead);
}

TEST_F(LoadedBlockTest, AFileThatWasRemovedStaysReadable) {
  const std::unique_ptr<Block> block = LoadWith({{"key", "value"}});
  ASSERT_EQ(std::remove(PathOf("block").c_str()), 0);
  EXPECT_EQ(ReadValue(*block, "key").bytes, "value");
}

TEST_F(LoadedBlockTest, ARangeIncludesItsLowerBoundAndNotItsUpperOne) {
  const std::unique_ptr<Block> block = LoadWith({{"a", ""}, {"b", ""}, {"b-1", ""}, {"c", ""}, {"\xff", ""}});
  using Keys = std::vector<std::string>;
  EXPECT_EQ(KeysOf(*block), (Keys{"a", "b", "b-1", "c"}));
  EXPECT_EQ(KeysOf(*block, "b", "c"), (Keys{"b", "b-1"}));
  EXPECT_EQ(KeysOf(*block, "aa", "b-"), (Keys{"b"}));
  EXPECT_EQ(KeysOf(*block, "", "b"), (Keys{"a"}));
  EXPECT_EQ(KeysOf(*block, "b", "b"), Keys());
  EXPECT_EQ(KeysOf(*block, "c", "a"), Keys());
  EXPECT_EQ(KeysOf(*block, "d", Key(std::string("\xff\0", 2))), (Keys{"\xff"}));
}

TEST_F(LoadedBlockTest, AVisitorThatReturnsTrueIsNotCalledAgain) {
  const std::unique_ptr<Block> block = LoadWith({{"a", ""}, {"b", ""}, {"c", ""}});
  int calls = 0;
  block->ForEachInRange("a", "z", [&calls](const Key& key) {
    ++calls;
    return key == Key("b");
  });
  EXPECT_EQ(calls, 2);
}

TEST_F(LoadedBlockTest, AnEmptyVisitorIsHarmlessOverAnEmptyRange) {
  const std::unique_ptr<Block> block = LoadWith({{"a", ""}});
  block->ForEachInRange("b", "z", nullptr);
  EXPECT_EQ(block->Count(), 1u);
}

TEST_F(LoadedBlockTest, AnEmptyVisitorAbortsWhenAKeyLiesInTheRange) {
  const std::unique_ptr<Block> block = LoadWith({{"a", ""}});
  EXPECT_EXIT(block->ForEachInRange("a", "b", nullptr), ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(LoadedBlockTest, AMissingFileCannotBeOpenedAndIsNotCreated) {
  EXPECT_EQ(LoadStatus(PathOf("missing")), kStatusOpenFailed);
  EXPECT_NE(access(PathOf("missing").c_str(), F_OK), 0);
}

TEST_F(LoadedBlockTest, ADirectoryCannotBeRead) {
  EXPECT_EQ(LoadStatus(directory_.Path()), kStatusBlockShortRead);
}

}  // namespace
}  // namespace Kestrun::Testing
