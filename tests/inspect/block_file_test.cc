#include "inspect/block_file.h"

#include <gtest/gtest.h>

#include "tests/inspect/forged_files.h"
#include "tests/support/file_bytes.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Inspect {
namespace {

using namespace Kestrun::Testing;

constexpr size_t kEntryTable = 8192;  // with pages of 4096 bytes and little in the sections
constexpr size_t kFirstEntry = kEntryTable + 28;

class BlockFileTest : public ::testing::Test {
 protected:
  ReadOnlyFile Open(const std::string& bytes) {
    WriteFile(scratch_.PathOf("x.blk_v5"), bytes);
    std::string why;
    auto file = ReadOnlyFile::Open(scratch_.PathOf("x.blk_v5"), &why);
    EXPECT_TRUE(file) << why;
    return std::move(*file);
  }

  ScratchDirectory scratch_;
  const std::string good_ = ForgedBlock({{"a", "one"}, {"b", "", true}, {"c", "three"}});
};

TEST_F(BlockFileTest, ReadsEntriesAndKeys) {
  const ReadOnlyFile file = Open(good_);
  BlockFile block(file, 4096);
  ASSERT_TRUE(block.Usable());
  ASSERT_EQ(block.EntryCount(), 3u);
  EXPECT_EQ(block.EntryOffset(1), kFirstEntry + 48);
  BlockDataEntry entry;
  bool right = false;
  ASSERT_TRUE(block.ReadEntry(2, &entry, &right));
  EXPECT_TRUE(right);
  EXPECT_EQ(entry.valueOffset, 159u);
  EXPECT_EQ(entry.valueSize, 5u);
  std::string key;
  ASSERT_TRUE(block.ReadKey(entry, &key));
  EXPECT_EQ(key, "c");
  EXPECT_FALSE(block.ReadEntry(3, &entry, &right));
}

TEST_F(BlockFileTest, ReadsABlockWithoutEntries) {
  const ReadOnlyFile file = Open(ForgedBlock({}));
  BlockFile block(file, 4096);
  EXPECT_TRUE(block.Usable());
  EXPECT_EQ(block.EntryCount(), 0u);
  EXPECT_FALSE(block.Find("a"));
}

TEST_F(BlockFileTest, FindsEveryKeyAndNoOther) {
  std::vector<ForgedEntry> entries;
  for (char letter = 'b'; letter <= 'y'; letter += 2) entries.push_back({std::string(1, letter), "v"});
  const ReadOnlyFile file = Open(ForgedBlock(entries));
  BlockFile block(file, 4096);
  for (char letter = 'a'; letter <= 'z'; ++letter) {
    const bool there = letter % 2 == 'b' % 2 && letter <= 'y';
    EXPECT_EQ(block.Find(std::string(1, letter)).has_value(), there) << letter;
  }
  EXPECT_FALSE(block.Find(""));
  EXPECT_FALSE(block.Find("bb"));
}

TEST_F(BlockFileTest, OrdersKeysByUnsignedBytes) {
  const ReadOnlyFile file = Open(ForgedBlock({{"a", "1"}, {"\x7F", "2"}, {"\x80", "3"}, {"\xFE", "4"}}));
  BlockFile block(file, 4096);
  for (const char* key : {"a", "\x7F", "\x80", "\xFE"}) EXPECT_TRUE(block.Find(key)) << key;
}

TEST_F(BlockFileTest, NeedsEveryHeaderByteThatAChecksumCovers) {
  for (const size_t start : {size_t{0}, size_t{128}, size_t{4096}, kEntryTable}) {
    const size_t covered = start == 0 ? 16 : 28;
    for (size_t i = 0; i < covered; ++i) {
      std::string bytes = good_;
      bytes[start + i] = static_cast<char>(bytes[start + i] ^ 0x10);
      EXPECT_FALSE(BlockFile(Open(bytes), 4096).Usable()) << start + i;
    }
  }
}

TEST_F(BlockFileTest, NeedsEveryByteOfTheFile) {
  for (size_t size = 0; size < good_.size(); size += size < 200 || size > 8150 ? 1 : 97) {
    const ReadOnlyFile file = Open(good_.substr(0, size));
    EXPECT_FALSE(BlockFile(file, 4096).Usable()) << size;
  }
}

TEST_F(BlockFileTest, TakesNoSectionThatDoesNotFitIntoTheFile) {
  for (const size_t section : {size_t{128}, size_t{4096}, kEntryTable}) {
    for (const uint32_t size : {0u, 27u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
      std::string bytes = good_;
      Set32(&bytes, section + 20, size);
      Reseal(&bytes, section, section + 24);
      const ReadOnlyFile file = Open(bytes);
      EXPECT_FALSE(BlockFile(file, 4096).Usable()) << section << " " << size;
    }
  }
}

TEST_F(BlockFileTest, TakesNoEntryTableThatEndsInsideAnEntry) {
  std::string bytes = good_;
  Set32(&bytes, kEntryTable + 20, 28 + 2 * 48 + 47);
  Reseal(&bytes, kEntryTable, kEntryTable + 24);
  const ReadOnlyFile file = Open(bytes);
  BlockFile block(file, 4096);
  EXPECT_FALSE(block.Usable());
  EXPECT_EQ(block.EntryCount(), 2u);
}

TEST_F(BlockFileTest, ReadsNoKeyFromOutsideTheKeyTable) {
  const struct {
    uint32_t offset;
    uint16_t size;
    bool fits;
  } rows[] = {{28, 3, true},  {31, 0, true},          {28, 4, false},
              {27, 1, false}, {0xFFFFFFFF, 1, false}, {0xFFFFFFF0, 0xFFFF, false}};
  const ReadOnlyFile file = Open(good_);
  BlockFile block(file, 4096);
  for (const auto& row : rows) {
    BlockDataEntry entry = {};
    entry.keyOffset = row.offset;
    entry.keySize = row.size;
    std::string key;
    EXPECT_EQ(block.KeyFits(entry), row.fits) << row.offset;
    EXPECT_EQ(block.ReadKey(entry, &key), row.fits) << row.offset;
  }
}

TEST_F(BlockFileTest, FindsNothingThroughADamagedEntry) {
  std::string bytes = good_;
  bytes[kFirstEntry + 48] = static_cast<char>(bytes[kFirstEntry + 48] ^ 1);
  const ReadOnlyFile file = Open(bytes);
  BlockFile block(file, 4096);
  EXPECT_FALSE(block.Find("a"));
}

TEST_F(BlockFileTest, DependsOnThePageSizeAndCanTellAnother) {
  const ReadOnlyFile file = Open(ForgedBlock({{"a", "one"}}, 16384));
  EXPECT_FALSE(BlockFile(file, 4096).Usable());
  EXPECT_TRUE(BlockFile(file, 16384).Usable());
  EXPECT_EQ(OtherPageSize(file, 4096), 16384u);
  EXPECT_EQ(OtherPageSize(file, 16384), 0u);
}

}  // namespace
}  // namespace Kestrun::Inspect
