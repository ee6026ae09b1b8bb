// Block files that were cut off, changed or made up by somebody else. None may be read outside its bytes; the
// sanitizers watch.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/block/block_fixture.h"

namespace Kestrun::Testing {
namespace {

class BlockDamageTest : public BlockTest {
 protected:
  BlockDamageTest()
      : image_({{"alpha", "one"}, {"beta-1", "", true}, {"gamma which is on the heap", "three"}}) {}

  uint32_t LoadImage() { return LoadStatus(Store("block", image_.Bytes())); }
  // Verify, which compaction uses, must never judge otherwise.
  uint32_t LoadImageBothWays() {
    const uint32_t status = LoadImage();
    EXPECT_EQ(Block::Verify(PathOf("block")), status);
    return status;
  }

  BlockImage image_;
};

// The last four bytes of an entry are padding that nothing covers.
TEST_F(BlockDamageTest, AFileCutAtAnyLengthIsCorruptUnlessOnlyPaddingIsLost) {
  const std::string path = Store("block", image_.Bytes());
  const size_t whole = image_.Bytes().size();
  EXPECT_EQ(LoadStatus(path), kStatusOk);
  for (size_t length = whole; length-- > 0;) {
    ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(length)), 0);
    const uint32_t expected = length >= whole - 4 ? kStatusOk : kStatusBlockCorrupt;
    ASSERT_EQ(LoadStatus(path), expected) << "cut at " << length;
    ASSERT_EQ(Block::Verify(path), expected) << "cut at " << length;
    if (expected != kStatusOk) continue;
    const std::unique_ptr<Block> block = Load(path);
    EXPECT_EQ(block->Count(), 3u);
    EXPECT_EQ(ReadValue(*block, "gamma which is on the heap").bytes, "three");
  }
}

TEST_F(BlockDamageTest, BytesBehindTheEntryTableAreIgnored) {
  image_.file.Bytes() += "left over from a longer file";
  EXPECT_EQ(LoadImageBothWays(), kStatusOk);
}

TEST_F(BlockDamageTest, AFlippedBitUnderAChecksumIsCorrupt) {
  std::vector<std::pair<size_t, size_t>> covered = {{0, 16}};  // with the checksum itself
  for (const size_t section : {size_t{128}, image_.keyTable, image_.entryTable})
    covered.push_back({section, 28});
  for (const size_t index : {0u, 1u, 2u}) covered.push_back({image_.EntryOffset(index), 44});

  const std::string path = Store("block", image_.Bytes());
  const int file = open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(file, 0);
  for (const auto& [start, length] : covered) {
    for (size_t offset = start; offset < start + length; ++offset) {
      const char sound = image_.Bytes()[offset];
      for (int bit = 0; bit < 8; ++bit) {
        const char flipped = static_cast<char>(sound ^ (1 << bit));
        ASSERT_EQ(pwrite(file, &flipped, 1, static_cast<off_t>(offset)), 1);
        ASSERT_EQ(LoadStatus(path), kStatusBlockCorrupt) << offset << " bit " << bit;
      }
      ASSERT_EQ(pwrite(file, &sound, 1, static_cast<off_t>(offset)), 1);
    }
  }
  EXPECT_EQ(LoadStatus(path), kStatusOk);
  close(file);
}

TEST_F(BlockDamageTest, KeysAndValuesAreProtectedByNothing) {
  image_.file.PutBytes(156, "ONE").PutBytes(image_.keyTable + 28, "ALPHA");
  const std::unique_ptr<Block> block = Load(Store("block", image_.Bytes()));
  EXPECT_EQ(ReadValue(*block, "ALPHA").bytes, "ONE");
  EXPECT_FALSE(block->Contains("alpha"));
}

TEST_F(BlockDamageTest, AKeyOutsideTheKeyTableIsCorrupt) {
  const uint32_t tableSize = image_.file.Get32(image_.keyTable + 20);
  const struct {
    uint32_t offset;
    uint16_t size;
    uint32_t status;
  } rows[] = {
      {tableSize, 0, kStatusOk},
      {tableSize - 1, 1, kStatusOk},
      {0, 28, kStatusOk},  // the table's own header: odd, and within the table
      {tableSize, 1, kStatusBlockCorrupt},
      {tableSize - 1, 2, kStatusBlockCorrupt},
      {tableSize + 1, 0, kStatusBlockCorrupt},
      {28, 65535, kStatusBlockCorrupt},
      {0x7FFFFFFF, 4, kStatusBlockCorrupt},
      {0x80000000, 4, kStatusBlockCorrupt},
      {0xFFFFFFFF, 1, kStatusBlockCorrupt},
      {0xFFFFFFFF, 65535, kStatusBlockCorrupt},
      {0xFFFFFFF0, 16, kStatusBlockCorrupt},
  };
  for (const auto& row : rows) {
    image_.file.Put32(image_.EntryOffset(2) + 32, row.offset).Put16(image_.EntryOffset(2) + 36, row.size);
    image_.SealEntry(2);
    EXPECT_EQ(LoadImageBothWays(), row.status) << row.offset << " of " << row.size;
  }
}

TEST_F(BlockDamageTest, ASectionBeyondTheEndOfTheFileIsCorrupt) {
  const uint32_t keys = image_.file.Get32(image_.keyTable + 20);
  const uint32_t entries = image_.file.Get32(image_.entryTable + 20);
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const struct {
    size_t section;
    uint32_t size;
    uint32_t status;
  } rows[] = {
      {image_.keyTable, keys, kStatusOk},
      // Within the same page the entry table is found all the same.
      {image_.keyTable, static_cast<uint32_t>(page), kStatusOk},
      {image_.keyTable, static_cast<uint32_t>(page + 1), kStatusBlockCorrupt},
      {image_.keyTable, 27, kStatusBlockCorrupt},
      {image_.keyTable, 0, kStatusMapFailed},
      {image_.keyTable, 0xFFFFFFFF, kStatusBlockCorrupt},
      {image_.keyTable, 0xFFFFF000, kStatusBlockCorrupt},
      {image_.entryTable, entries, kStatusOk},
      {image_.entryTable, entries - 48, kStatusOk},
      {image_.entryTable, entries + 48, kStatusBlockCorrupt},
      {image_.entryTable, 28 + 48 * 89478484u, kStatusBlockCorrupt},
      {image_.entryTable, 0xFFFFFFFF, kStatusBlockCorrupt},
      {128, static_cast<uint32_t>(page - 128), kStatusOk},
      {128, static_cast<uint32_t>(page - 127), kStatusBlockCorrupt},
      {128, 0xFFFFFFFF, kStatusBlockCorrupt},
      {128, 0xFFFFFF80, kStatusBlockCorrupt},
  };
  for (const auto& row : rows) {
    const uint32_t before = image_.file.Get32(row.section + 20);
    image_.file.Put32(row.section + 20, row.size);
    image_.SealSection(row.section);
    EXPECT_EQ(LoadImageBothWays(), row.status) << "section at " << row.section << " of " << row.size;
    image_.file.Put32(row.section + 20, before);
    image_.SealSection(row.section);
  }
}

// The table is walked as long as an entry begins within it. An entry of zeros fails its checksum.
TEST_F(BlockDamageTest, AnEntryThatBeginsWithinItsTableIsTakenWhole) {
  image_.file.Bytes() += std::string(48, '\0');
  for (uint32_t size = 0; size <= 28 + 48 * 4; ++size) {
    image_.file.Put32(image_.entryTable + 20, size);
    image_.SealSection(image_.entryTable);
    const uint32_t count = size <= 28 ? 0 : (size - 28 + 47) / 48;
    const uint32_t expected = size == 0 ? kStatusMapFailed : count <= 3 ? kStatusOk : kStatusBlockCorrupt;
    ASSERT_EQ(LoadImageBothWays(), expected) << size;
    if (expected == kStatusOk) {
      ASSERT_EQ(Load(PathOf("block"))->Count(), count) << size;
    }
  }
}

TEST_F(BlockDamageTest, AKeyTableShorterThanItsHeaderServesABlockWithoutEntries) {
  BlockImage empty(std::initializer_list<BlockImageEntry>{});
  for (uint32_t size = 0; size <= 28; ++size) {
    empty.file.Put32(empty.keyTable + 20, size);
    empty.SealSection(empty.keyTable);
    const std::string path = Store("block", empty.Bytes());
    EXPECT_EQ(LoadStatus(path), size == 0 ? kStatusMapFailed : kStatusOk) << size;
  }
}

TEST_F(BlockDamageTest, AFailedLoadLeavesNoDescriptorBehind) {
  const int before = dup(0);
  close(before);
  for (int i = 0; i < 100; ++i) {
    LoadStatus(Store("short", std::string(127, 'x')));
    image_.file.Put8(image_.EntryOffset(2), 1);
    LoadStatus(Store("bad", image_.Bytes()));
  }
  const int after = dup(0);
  close(after);
  EXPECT_EQ(after, before);
}

TEST_F(BlockDamageTest, AnEmptyFileAndAFileOfZerosAreCorrupt) {
  EXPECT_EQ(LoadStatus(Store("block", "")), kStatusBlockCorrupt);
  EXPECT_EQ(LoadStatus(Store("block", std::string(127, '\0'))), kStatusBlockCorrupt);
  EXPECT_EQ(LoadStatus(Store("block", std::string(65536, '\0'))), kStatusBlockCorrupt);
}

// Keys are protected by nothing, so a file may be out of order. A search finds what it comes across; a merge
// sorts. Of equal keys in one file the last one counts.
TEST_F(BlockDamageTest, KeysOutOfOrderLoadAndAreSortedByAMerge) {
  BlockImage older(
      {{"c", "old"}, {"d", "4"}, {"b", "2"}, {"a", "1"}, {"b", "2 again"}, {"\xff", "6"}, {"a-1", "7"}});
  BlockImage newer({{"e", "5"}, {"c", "new"}, {"d", "", true}});
  const std::vector<std::string> paths = {Store("older", older.Bytes()), Store("newer", newer.Bytes())};
  EXPECT_EQ(Load(paths[0])->Count(), 7u);
  const std::string expected =
      BlockImage({{"a", "1"}, {"a-1", "7"}, {"b", "2 again"}, {"c", "new"}, {"e", "5"}}).Bytes();
  for (int loaded = 0; loaded < 4; ++loaded) {
    std::vector<BlockSource> sources;
    for (int i = 0; i < 2; ++i) {
      const std::string path = paths[static_cast<size_t>(i)];
      const bool inMemory = ((loaded >> i) & 1) != 0;
      sources.push_back({path, inMemory ? std::shared_ptr<Block>(Load(path)) : nullptr});
    }
    std::remove(PathOf("merged").c_str());
    Block* merged = nullptr;
    ASSERT_EQ(Block::WriteFromBlocks(PathOf("merged"), sources, &merged), kStatusOk) << loaded;
    const std::unique_ptr<Block> block(merged);
    EXPECT_TRUE(ReadFile(PathOf("merged")) == expected) << loaded;
  }
}

}  // namespace
}  // namespace Kestrun::Testing
