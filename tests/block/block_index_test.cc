// The index of a block against a map, for keys of every kind.
#include "block/block_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "format/byte_source.h"
#include "kestrun/status.h"
#include "tests/support/block_image.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

std::shared_ptr<const BlockIndex> Read(const std::string& bytes, uint32_t* status) {
  MemorySource source(bytes.data(), bytes.size());
  std::shared_ptr<const BlockIndex> index;
  *status = BlockIndex::Read(source, 4096, &index);
  EXPECT_EQ(index != nullptr, *status == kStatusOk);
  return index;
}

class BlockIndexTest : public ::testing::Test {
 protected:
  // Keys of a common beginning, some of them equal for more than the eight bytes of a prefix.
  std::string RandomKey(const std::string& common) {
    std::string key = common;
    if (random_() % 3 == 0) key += "same for eight bytes and more";
    for (uint64_t i = random_() % 6; i-- > 0;) key += static_cast<char>(random_() % 3 == 0 ? random_() : 'a');
    if (random_() % 100 == 0) key.append(random_() % 3000, 'x');
    return key;
  }

  static void ExpectSame(const BlockIndex& index, const std::map<std::string, BlockImageEntry>& entries,
                         const std::vector<std::string>& probes) {
    ASSERT_EQ(index.Count(), entries.size());
    ASSERT_TRUE(index.IsOrdered());
    uint32_t position = 0;
    uint32_t valueOffset = 156;
    for (const auto& [key, expected] : entries) {
      ASSERT_EQ(index.KeyAt(position), key);
      const DataEntry entry = index.EntryAt(position);
      ASSERT_EQ(entry.valueOffset, valueOffset);
      ASSERT_EQ(entry.valueSize, expected.value.size());
      ASSERT_EQ(entry.deleted, expected.deleted);
      ASSERT_EQ(entry.timestamp, expected.timestamp);
      ASSERT_EQ(entry.ttl, expected.ttl);
      ASSERT_EQ(index.Find(key), position);
      ASSERT_EQ(index.LowerBound(key), position);
      valueOffset += static_cast<uint32_t>(expected.value.size());
      ++position;
    }
    for (const std::string& probe : probes) {
      const auto bound = entries.lower_bound(probe);
      ASSERT_EQ(index.LowerBound(probe), std::distance(entries.begin(), bound)) << probe;
      ASSERT_EQ(index.Find(probe) != index.Count(), entries.count(probe) != 0) << probe;
    }
  }

  std::mt19937_64 random_ = TestRandom(0);
};

TEST_F(BlockIndexTest, AnswersAsAMapDoes) {
  const std::string commons[] = {"", "a", "user-", "a common beginning of all keys-"};
  for (uint64_t round = 0; round < TestSize(200, 20000) && !HasFatalFailure(); ++round) {
    const std::string common = commons[round % 4];
    std::map<std::string, BlockImageEntry> entries;
    for (uint64_t i = random_() % (round % 10 == 0 ? 2000 : 40); i-- > 0;) {
      const std::string key = RandomKey(common);
      entries[key] = {key, std::string(random_() % 20, 'v'), random_() % 5 == 0, random_(),
                      static_cast<uint32_t>(random_())};
    }
    std::vector<std::string> probes = {"", std::string(1, '\0'), "a", common,
                                       "\xff\xff\xff\xff\xff\xff\xff\xff\xff"};
    for (int i = 0; i < 50; ++i) probes.push_back(RandomKey(commons[random_() % 4]));
    for (const auto& [key, entry] : entries) {
      if (random_() % 8 != 0) continue;
      probes.push_back(key + '\0');
      if (!key.empty()) probes.push_back(key.substr(0, key.size() - 1));
    }
    std::vector<BlockImageEntry> sorted;
    for (const auto& [key, entry] : entries) sorted.push_back(entry);
    uint32_t status = kStatusOk;
    const auto index = Read(BlockImage(sorted, 4096).Bytes(), &status);
    ASSERT_EQ(status, kStatusOk);
    ExpectSame(*index, entries, probes);

    // The same entries without a file.
    BlockIndex built;
    uint32_t valueOffset = 156;
    for (const BlockImageEntry& entry : sorted) {
      built.Append(
          entry.key,
          {valueOffset, static_cast<uint32_t>(entry.value.size()), entry.deleted, entry.timestamp, entry.ttl},
          std::nullopt);
      valueOffset += static_cast<uint32_t>(entry.value.size());
    }
    built.Finish();
    ExpectSame(built, entries, probes);
  }
}

TEST_F(BlockIndexTest, KeysThatLieAnywhereInTheirTableAreRead) {
  BlockImage image({{"a", ""}, {"b", ""}, {"c", ""}}, 4096);
  // "b" and "c" overlap the key of 3 bytes, and 20 KiB of the table belong to nobody.
  image.file.Put32(image.EntryOffset(0) + 32, 28).Put16(image.EntryOffset(0) + 36, 3);
  image.SealEntry(0);
  uint32_t status = kStatusOk;
  const auto index = Read(image.Bytes(), &status);
  ASSERT_EQ(status, kStatusOk);
  EXPECT_EQ(index->KeyAt(0), "abc");
  EXPECT_EQ(index->KeyAt(1), "b");
  EXPECT_EQ(index->KeyAt(2), "c");

  BlockImage apart({{"a", ""}, {std::string(3000, 'b'), ""}, {"c", ""}}, 4096);
  apart.file.Put16(apart.EntryOffset(1) + 36, 1);
  apart.SealEntry(1);
  const auto gap = Read(apart.Bytes(), &status);
  ASSERT_EQ(status, kStatusOk);
  EXPECT_EQ(gap->KeyAt(1), "b");
  EXPECT_EQ(gap->KeyAt(2), "c");
  EXPECT_LT(gap->MemoryUsed(), 1000u);
}

TEST_F(BlockIndexTest, EveryCutAndEveryFlippedByteGivesAStatusOrTheSameEntries) {
  const std::vector<BlockImageEntry> entries = {{"alpha", "one"}, {"beta", "", true}, {"gamma", "three"}};
  const BlockImage image(entries, 4096);
  const std::string& bytes = image.Bytes();
  uint32_t status = kStatusOk;
  for (size_t length = 0; length <= bytes.size(); ++length) {
    Read(bytes.substr(0, length), &status);
    EXPECT_EQ(status, length + 4 >= bytes.size() ? kStatusOk : kStatusBlockCorrupt) << length;
  }
  for (size_t at = 0; at < bytes.size(); ++at) {
    std::string damaged = bytes;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x20);
    const auto index = Read(damaged, &status);
    if (status == kStatusOk) {
      EXPECT_EQ(index->Count(), 3u) << at;
    } else {
      EXPECT_EQ(status, kStatusBlockCorrupt) << at;
    }
  }
}

TEST_F(BlockIndexTest, AnEntryCarriesItsChecksumOnlyWithTheMark) {
  BlockImage image({{"a", "1"}, {"b", "2"}, {"c", "3"}}, 4096);
  image.file.Put32(image.EntryOffset(0) + 28, 0xC0FFEE).Put16(image.EntryOffset(0) + 38, 0x4B43);
  image.file.Put32(image.EntryOffset(1) + 28, 0xC0FFEE).Put16(image.EntryOffset(1) + 38, 0x4B42);
  image.SealEntry(0);
  image.SealEntry(1);
  uint32_t status = kStatusOk;
  const auto index = Read(image.Bytes(), &status);
  ASSERT_EQ(status, kStatusOk);
  EXPECT_TRUE(index->RecordAt(0).hasChecksum);
  EXPECT_EQ(index->RecordAt(0).checksum, 0xC0FFEEu);
  EXPECT_FALSE(index->RecordAt(1).hasChecksum);
  EXPECT_FALSE(index->RecordAt(2).hasChecksum);
}

TEST_F(BlockIndexTest, AKeyOf16BytesCosts56) {
  std::vector<BlockImageEntry> entries;
  for (int i = 10000; i < 20000; ++i) entries.push_back({"sixteen-byt" + std::to_string(i), ""});
  uint32_t status = kStatusOk;
  const auto index = Read(BlockImage(entries, 4096).Bytes(), &status);
  ASSERT_EQ(status, kStatusOk);
  EXPECT_LE(index->MemoryUsed(), 10000u * 56 + 200);
}

}  // namespace
}  // namespace Kestrun::Testing
