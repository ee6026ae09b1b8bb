// The bytes of a block file.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/block/block_fixture.h"
#include "tests/support/doc_hex.h"
#include "tests/support/fake_clock.h"

namespace Kestrun::Testing {
namespace {

using BlockFormatTest = BlockTest;

size_t MachinePage() {
  return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// One entry, key "k" and value "abc", written in second 1700000000 to live 60 seconds, on a machine with
// pages of 4096 bytes. Every number stands here once more, on purpose.
std::string OneEntryFile() {
  FileImage file;
  file.PutBytes(0, FromHex("4b 45 53 54 52 55 4e 00 05 00 00 00 65 1f 9f bc"));
  file.PutBytes(128, FromHex("00 00 5f 5f 44 41 54 41 5f 5f 00 00 00 00 00 00 00 00 00 00 1f 00 00 00"));
  file.PutChecksum(152, 128, 24);
  file.PutBytes(156, "abc");
  file.PutBytes(4096, FromHex("01 00 5f 5f 4b 45 59 54 41 42 5f 5f 00 00 00 00 00 00 00 00 1d 00 00 00"));
  file.PutChecksum(4120, 4096, 24);
  file.PutBytes(4124, "k");
  file.PutBytes(8192, FromHex("02 00 5f 5f 45 4e 54 52 59 5f 5f 00 00 00 00 00 00 00 00 00 4c 00 00 00"));
  file.PutChecksum(8216, 8192, 24);
  file.PutBytes(8220, FromHex("9c 00 00 00 03 00 00 00 00 00 00 00 00 00 00 00"
                              " 00 f1 53 65 00 00 00 00 3c 00 00 00 00 00 00 00"
                              " 1c 00 00 00 01 00 00 00"));
  file.PutChecksum(8260, 8220, 40);
  file.Put32(8264, 0);
  return file.Bytes();
}

TEST_F(BlockFormatTest, AOneByteKeyWithThreeBytesOfValueTakes8268BytesWherePagesHave4096) {
  EXPECT_EQ(OneEntryFile().size(), 8268u);
  EXPECT_TRUE(BlockImage({{"k", "abc", false, 1700000000, 60}}, 4096).Bytes() == OneEntryFile());
  if (MachinePage() != 4096) return;

  FakeClock clock;
  clock.Set(1700000000);
  const std::unique_ptr<Wal> wal = OpenWal();
  ASSERT_EQ(Insert(*wal, "k", "abc", 60), kStatusOk);
  WriteFromWal(*wal, "block");
  EXPECT_TRUE(ReadFile(PathOf("block")) == OneEntryFile());
}

TEST_F(BlockFormatTest, WritesExactlyTheseBytesWhateverThePageSize) {
  FakeClock clock;
  clock.Set(1700000000);
  const std::unique_ptr<Wal> wal = OpenWal();
  const std::string large(5000, 'x');
  ASSERT_EQ(Insert(*wal, "empty", "", 0), kStatusOk);
  ASSERT_EQ(Insert(*wal, "a key of more than fifteen bytes", large, 7), kStatusOk);
  ASSERT_EQ(wal->Delete("gone"), kStatusOk);
  clock.Set(1700000009);
  ASSERT_EQ(Insert(*wal, "last", std::string("\0\xff", 2), 0xFFFFFFFF), kStatusOk);
  WriteFromWal(*wal, "block");

  const BlockImage expected({{"a key of more than fifteen bytes", large, false, 1700000000, 7},
                             {"empty", "", false, 1700000000, 0},
                             {"gone", "", true, 1700000000, 0},
                             {"last", std::string("\0\xff", 2), false, 1700000009, 0xFFFFFFFF}});
  EXPECT_TRUE(ReadFile(PathOf("block")) == expected.Bytes());
}

TEST_F(BlockFormatTest, TablesBeginOnTheNextPageAndNotOnTheOneAfterIt) {
  const size_t page = MachinePage();
  FakeClock clock;
  // The data section ends one byte before a page boundary, at it, and one byte behind it.
  for (const size_t end : {page - 1, page, page + 1, 3 * page}) {
    const std::string name = "ends at " + std::to_string(end);
    const std::unique_ptr<Wal> wal = OpenWal(static_cast<uint32_t>(8 * page), name + ".log");
    const std::string value(end - 156, 'v');
    ASSERT_EQ(Insert(*wal, "key", value, 5), kStatusOk);
    WriteFromWal(*wal, name);
    const BlockImage expected({{"key", value, false, clock.Now(), 5}});
    EXPECT_EQ(expected.keyTable, end <= page ? page : end == page + 1 ? 2 * page : 3 * page) << name;
    EXPECT_TRUE(ReadFile(PathOf(name)) == expected.Bytes()) << name;
    EXPECT_EQ(ReadValue(*Load(PathOf(name)), "key").bytes, value) << name;
  }
}

TEST_F(BlockFormatTest, AnEmptyBlockIsThreeHeadersAndLoads) {
  const size_t page = MachinePage();
  const std::unique_ptr<Wal> wal = OpenWal();
  const std::unique_ptr<Block> written = WriteFromWal(*wal, "block");
  EXPECT_EQ(written->Count(), 0u);

  const FileImage file(ReadFile(PathOf("block")));
  EXPECT_EQ(file.Bytes().size(), 2 * page + 28);
  EXPECT_EQ(file.Get32(128 + 20), 28u);
  EXPECT_EQ(file.Get32(page + 20), 28u);
  EXPECT_EQ(file.Get32(2 * page + 20), 28u);
  EXPECT_TRUE(file.Bytes() == BlockImage({}).Bytes());
  EXPECT_EQ(Load(PathOf("block"))->Count(), 0u);
}

TEST_F(BlockFormatTest, AFileOfAnotherPageSizeIsCorrupt) {
  const std::vector<BlockImageEntry> entries = {{"k", "abc"}};
  EXPECT_EQ(LoadStatus(Store("own", BlockImage(entries).Bytes())), kStatusOk);
  EXPECT_EQ(LoadStatus(Store("larger", BlockImage(entries, 4 * MachinePage()).Bytes())), kStatusBlockCorrupt);
  EXPECT_EQ(LoadStatus(Store("smaller", BlockImage(entries, MachinePage() / 2).Bytes())),
            kStatusBlockCorrupt);
}

TEST_F(BlockFormatTest, MagicVersionTypesNamesAndPaddingAreNotLookedAt) {
  BlockImage image({{"a", "one", false, 5, 0xFFFFFFFF}, {"b", "two"}});
  image.file.PutBytes(0, "another!").Put32(8, 77).PutChecksum(12, 0, 12);
  image.file.PutBytes(16, std::string(112, 'z'));
  for (const size_t section : {size_t{128}, image.keyTable, image.entryTable}) {
    image.file.Put16(section, 9).PutBytes(section + 2, std::string(18, 'n'));
    image.SealSection(section);
  }
  for (const size_t index : {0u, 1u}) {
    const size_t at = image.EntryOffset(index);
    image.file.PutBytes(at + 9, "padding").PutBytes(at + 28, "pads").PutBytes(at + 38, "pp");
    image.file.PutBytes(at + 44, "more");
    image.SealEntry(index);
  }
  const std::unique_ptr<Block> block = Load(Store("block", image.Bytes()));
  EXPECT_EQ(KeysOf(*block), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(ReadValue(*block, "b").bytes, "two");
}

TEST_F(BlockFormatTest, AnyDeletedFlagButZeroMarksADeletion) {
  BlockImage image({{"a", ""}, {"b", ""}});
  image.file.Put8(image.EntryOffset(0) + 8, 0x80);
  image.SealEntry(0);
  const std::unique_ptr<Block> block = Load(Store("block", image.Bytes()));
  DataEntry entry = {};
  ASSERT_EQ(block->Lookup("a", &entry), kStatusOk);
  EXPECT_TRUE(entry.deleted);
  ASSERT_EQ(block->Lookup("b", &entry), kStatusOk);
  EXPECT_FALSE(entry.deleted);
}

TEST_F(BlockFormatTest, TheFilesInTheFormatPageAreTheFilesThatAreWritten) {
  EXPECT_TRUE(ReadDocHex(KESTRUN_BLOCK_PAGE, "empty") == BlockImage({}, 4096).Bytes());
  EXPECT_TRUE(ReadDocHex(KESTRUN_BLOCK_PAGE, "one-entry") == OneEntryFile());
  if (MachinePage() != 4096) return;

  WriteFromWal(*OpenWal(), "empty");
  EXPECT_TRUE(ReadDocHex(KESTRUN_BLOCK_PAGE, "empty") == ReadFile(PathOf("empty")));
  EXPECT_EQ(Load(Store("one-entry", ReadDocHex(KESTRUN_BLOCK_PAGE, "one-entry")))->Count(), 1u);
}

}  // namespace
}  // namespace Kestrun::Testing
