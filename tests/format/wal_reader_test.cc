#include "format/wal_reader.h"

#include <gtest/gtest.h>

#include "tests/inspect/forged_files.h"

namespace Kestrun {
namespace {

using namespace Testing;

struct Walk {
  std::vector<std::string> keys;
  std::vector<std::string> values;
  WalRecordView last;
  WalEnd end = WalEnd::Complete;
  uint64_t offset = 0;
  uint64_t toldEnd = 0;
  uint64_t records = 0;
};

Walk WalkOver(const std::string& bytes) {
  MemorySource source(bytes.data(), bytes.size());
  WalReader reader(source, ReadWalHeader(source).header.used, bytes.size());
  Walk walk;
  while (reader.Next()) {
    std::string value;
    EXPECT_TRUE(reader.ReadValue(&value));
    walk.keys.push_back(reader.Record().key);
    walk.values.push_back(value);
    walk.last = reader.Record();
  }
  walk.end = reader.End();
  walk.offset = reader.Offset();
  walk.toldEnd = reader.ToldEnd();
  walk.records = reader.Records();
  return walk;
}

WalHeaderView HeaderOf(const std::string& bytes) {
  MemorySource source(bytes.data(), bytes.size());
  return ReadWalHeader(source);
}

ForgedEntry Marked(const std::string& key, const std::string& value, uint32_t epoch) {
  ForgedEntry entry{key, value};
  entry.epoch = epoch;
  return entry;
}

TEST(WalReaderTest, ReadsTheRecordsInTheOrderOfTheirWriting) {
  const Walk walk = WalkOver(ForgedLog({{"b", "two"}, {"a", "one"}, {"b", "", true}}, 4096));
  EXPECT_EQ(walk.end, WalEnd::Complete);
  EXPECT_EQ(walk.records, 3u);
  EXPECT_EQ(walk.offset, 128u + 44 + 44 + 41);
  EXPECT_EQ(walk.keys, (std::vector<std::string>{"b", "a", "b"}));
  EXPECT_EQ(walk.values, (std::vector<std::string>{"two", "one", ""}));
  EXPECT_EQ(walk.last.header.deleted, 1);
  EXPECT_EQ(walk.last.valueOffset, walk.offset);
}

TEST(WalReaderTest, FindsNothingInAnEmptyLog) {
  const Walk walk = WalkOver(ForgedLog({}, 4096));
  EXPECT_EQ(walk.end, WalEnd::Complete);
  EXPECT_EQ(walk.records, 0u);
  EXPECT_EQ(walk.offset, 128u);
}

TEST(WalReaderTest, TellsWhichPartOfTheHeaderIsWrong) {
  const std::string good = ForgedLog({{"k", "v"}});
  EXPECT_TRUE(HeaderOf(good).Usable());

  std::string flipped = good;
  flipped[12] = static_cast<char>(flipped[12] ^ 1);
  EXPECT_TRUE(HeaderOf(flipped).complete);
  EXPECT_FALSE(HeaderOf(flipped).checksumMatches);

  std::string foreign = good;
  foreign[0] = 'X';
  Reseal(&foreign, 0, 16);
  EXPECT_TRUE(HeaderOf(foreign).checksumMatches);
  EXPECT_FALSE(HeaderOf(foreign).magicMatches);

  EXPECT_FALSE(HeaderOf(good.substr(0, 23)).complete);
  EXPECT_FALSE(HeaderOf("").Usable());
}

TEST(WalReaderTest, StopsAtTheFirstRecordThatFailsItsChecksum) {
  std::string bytes = ForgedLog({{"a", "1"}, {"b", "2"}, {"c", "3"}});
  const size_t second = 128 + 42;
  bytes[second + 16] = static_cast<char>(bytes[second + 16] ^ 1);
  const Walk walk = WalkOver(bytes);
  EXPECT_EQ(walk.end, WalEnd::BadChecksum);
  EXPECT_EQ(walk.offset, second);
  EXPECT_EQ(walk.keys, std::vector<std::string>{"a"});
}

TEST(WalReaderTest, StopsAtARecordWithoutAKey) {
  const Walk walk = WalkOver(ForgedLog({{"a", "1"}, {"", "2"}, {"c", "3"}}));
  EXPECT_EQ(walk.end, WalEnd::EmptyKey);
  EXPECT_EQ(walk.keys, std::vector<std::string>{"a"});
}

TEST(WalReaderTest, StopsAtARecordThatEndsBeyondTheFile) {
  std::string bytes = ForgedLog({{"a", "1"}, {"b", "2"}});
  const size_t second = 128 + 42;
  for (const uint32_t size : {2u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    Set32(&bytes, second + 4, size);
    Reseal(&bytes, second, second + 36);
    const Walk walk = WalkOver(bytes);
    EXPECT_EQ(walk.end, WalEnd::BeyondFile) << size;
    EXPECT_EQ(walk.offset, second);
  }
}

TEST(WalReaderTest, StopsAtARecordThatEndsBeyondTheUsedAreaAsAStoreDoes) {
  std::string bytes = ForgedLog({{"a", "1"}, {"b", "22"}});
  Set32(&bytes, 12, Get32(bytes, 12) - 1);
  Reseal(&bytes, 0, 16);
  const Walk walk = WalkOver(bytes);
  EXPECT_EQ(walk.end, WalEnd::BeyondUsed);
  EXPECT_EQ(walk.records, 1u);
  EXPECT_EQ(walk.toldEnd, bytes.size());
}

TEST(WalReaderTest, ReadsKeysAndValuesLargerThanItsWindow) {
  const std::string longKey(65535, 'k');
  const std::string longValue(100000, 'v');
  const Walk walk = WalkOver(ForgedLog({Marked(longKey, longValue, 1), {"z", "end"}}));
  EXPECT_EQ(walk.keys, (std::vector<std::string>{longKey, "z"}));
  EXPECT_EQ(walk.values.front(), longValue);
}

TEST(WalReaderTest, AMarkedRecordWhoseContentChangedEndsTheWalk) {
  const std::string good = ForgedLog({{"a", "1"}, Marked("key", "value", 7), Marked("c", "", 7)});
  EXPECT_EQ(WalkOver(good).end, WalEnd::Complete);
  EXPECT_EQ(WalkOver(good).records, 3u);
  const size_t second = 128 + 42;
  for (size_t at = second + 40; at < second + 40 + 8; ++at) {
    std::string bytes = good;
    bytes[at] = static_cast<char>(bytes[at] ^ 0x10);
    EXPECT_EQ(WalkOver(bytes).end, WalEnd::BadContent) << at;
    EXPECT_EQ(WalkOver(bytes).offset, second);
  }
}

TEST(WalReaderTest, ARecordWithoutTheMarkMayHoldAnythingInItsPadding) {
  std::string bytes = ForgedLog({{"a", "1"}, {"b", "2"}});
  for (const size_t at : {9, 12, 15, 28, 31, 35}) {
    bytes[128 + at] = 'x';
    Reseal(&bytes, 128, 128 + 36);
    EXPECT_EQ(WalkOver(bytes).records, 2u) << at;
  }
}

TEST(WalReaderTest, AMarkedRecordOfAnotherEpochEndsTheWalkAndUnmarkedOnesBetweenDoNot) {
  const Walk same = WalkOver(ForgedLog({Marked("a", "1", 9), {"b", "2"}, Marked("c", "3", 9)}));
  EXPECT_EQ(same.records, 3u);
  EXPECT_EQ(EpochOf(same.last.header), 9u);
  const Walk other = WalkOver(ForgedLog({Marked("a", "1", 9), {"b", "2"}, Marked("c", "3", 8)}));
  EXPECT_EQ(other.end, WalEnd::OtherEpoch);
  EXPECT_EQ(other.keys, (std::vector<std::string>{"a", "b"}));
}

TEST(WalReaderTest, FindsTheRecordsAfterABrokenOne) {
  std::string bytes = ForgedLog({{"a", "1"}, {"b", std::string(300, 'x')}, {"c", "3"}, {"d", "4"}}, 4096);
  const size_t second = 128 + 42;
  const size_t third = second + 40 + 1 + 300;
  bytes[second + 36] = static_cast<char>(bytes[second + 36] ^ 1);
  MemorySource source(bytes.data(), bytes.size());
  const uint64_t used = Get32(bytes, 12);
  EXPECT_EQ(FindNextWalRecord(source, used, bytes.size(), second), third);
  WalReader reader(source, used, bytes.size(), third);
  ASSERT_TRUE(reader.Next());
  EXPECT_EQ(reader.Record().key, "c");
  ASSERT_TRUE(reader.Next());
  EXPECT_FALSE(reader.Next());
  EXPECT_EQ(FindNextWalRecord(source, used, bytes.size(), third + 42), 0u);
}

}  // namespace
}  // namespace Kestrun
