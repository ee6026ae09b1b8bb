// The writer over cursors: checksums that travel, merges that keep what is dead, large runs,
// another page size.
#include "block/block_writer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "block/log_cursor.h"
#include "block/merge_cursor.h"
#include "format/crc32c.h"
#include "tests/block/block_fixture.h"
#include "tests/support/fake_clock.h"
#include "tests/support/file_image.h"

namespace Kestrun::Testing {
namespace {

class BlockWriterTest : public BlockTest {
 protected:
  std::string Merge(const std::vector<BlockSource>& sources, DeadEntries dead) {
    std::remove(PathOf("merged").c_str());
    MergeCursor cursor(sources, dead);
    EXPECT_EQ(WriteBlock(PathOf("merged"), cursor, {}, &merged_), kStatusOk);
    return ReadFile(PathOf("merged"));
  }

  FakeClock clock_;
  std::unique_ptr<Block> merged_;
};

TEST_F(BlockWriterTest, AMergeThatDoesNotReachTheOldestBlockKeepsWhatIsDead) {
  const std::string older = Store("older", BlockImage({{"a", "1"}, {"b", "2"}, {"c", "3"}}).Bytes());
  const std::string newer =
      Store("newer", BlockImage({{"b", "", true}, {"c", "was", false, clock_.Now() - 10, 5}}).Bytes());
  const std::vector<BlockSource> sources = {{older, nullptr}, {newer, nullptr}};
  EXPECT_TRUE(Merge(sources, DeadEntries::Drop) == BlockImage({{"a", "1"}}).Bytes());
  EXPECT_TRUE(Merge(sources, DeadEntries::Keep) ==
              BlockImage({{"a", "1"}, {"b", "", true}, {"c", "was", false, clock_.Now() - 10, 5}}).Bytes());
  EXPECT_EQ(merged_->Count(), 3u);
}

// What expires while it is written stays where nobody asks for it to be left out.
TEST_F(BlockWriterTest, AnEntryThatExpiresMeanwhileIsLeftOutOnlyOnDemand) {
  const uint64_t start = clock_.Now();
  const std::string source =
      Store("source", BlockImage({{"a", "1", false, clock_.Now(), 0}, {"b", "2"}}).Bytes());
  for (const bool leaveOut : {false, true}) {
    clock_.Set(start);
    MergeCursor cursor({{source, nullptr}});
    clock_.Advance(1);
    int expired = 0;
    BlockWriteOptions options;
    if (leaveOut) options.onExpired = [&expired] { ++expired; };
    std::unique_ptr<Block> block;
    ASSERT_EQ(WriteBlock(PathOf("merged" + std::to_string(leaveOut)), cursor, options, &block), kStatusOk);
    EXPECT_EQ(block->Count(), leaveOut ? 1u : 2u);
    EXPECT_EQ(expired, leaveOut ? 1 : 0);
    EXPECT_EQ(ReadValue(*block, "b").bytes, "2");
  }
}

TEST_F(BlockWriterTest, AMergeCopiesMarkAndChecksumOfAnEntry) {
  BlockImage first({{"a", "1"}, {"c", "3"}});
  first.file.Put32(first.EntryOffset(0) + 28, 0xC0FFEE).Put16(first.EntryOffset(0) + 38, 0x4B43);
  first.SealEntry(0);
  const std::string path = Store("first", first.Bytes());
  const std::string second = Store("second", BlockImage({{"b", "2"}}).Bytes());
  BlockImage expected({{"a", "1"}, {"b", "2"}, {"c", "3"}});
  expected.file.Put32(expected.EntryOffset(0) + 28, 0xC0FFEE).Put16(expected.EntryOffset(0) + 38, 0x4B43);
  expected.SealEntry(0);
  for (const bool loaded : {false, true}) {
    const std::shared_ptr<Block> block = loaded ? std::shared_ptr<Block>(Load(path)) : nullptr;
    EXPECT_TRUE(Merge({{path, block}, {second, nullptr}}, DeadEntries::Drop) == expected.Bytes());
    EXPECT_TRUE(merged_->Index()->RecordAt(0).hasChecksum);
    EXPECT_EQ(merged_->Index()->RecordAt(0).checksum, 0xC0FFEEu);
    EXPECT_FALSE(merged_->Index()->RecordAt(1).hasChecksum);
  }
}

TEST_F(BlockWriterTest, AFlushCarriesMarkAndChecksumOfARecordIntoItsEntry) {
  std::unique_ptr<Wal> wal = OpenWal();
  ASSERT_EQ(Insert(*wal, "a", "one"), kStatusOk);
  ASSERT_EQ(Insert(*wal, "b", "two"), kStatusOk);
  const uint64_t now = clock_.Now();
  wal.reset();
  FileImage log(ReadFile(PathOf("wal_v5")));
  const uint32_t crc = Crc32c("aone", 4);
  log.Put32(128 + 28, crc).Put16(128 + 34, 0x4B43).Put8(128 + 9, 7).PutChecksum(128 + 36, 128, 36);
  log.Put32(172 + 28, 0xC0FFEE).PutChecksum(172 + 36, 172, 36);
  WriteFile(PathOf("marked_log"), log.Bytes());
  wal = OpenWal(64 * 1024, "marked_log");
  const std::unique_ptr<Block> block = WriteFromWal(*wal, "block");
  BlockImage expected({{"a", "one", false, now}, {"b", "two", false, now}});
  expected.file.Put32(expected.EntryOffset(0) + 28, crc).Put16(expected.EntryOffset(0) + 38, 0x4B43);
  expected.SealEntry(0);
  EXPECT_TRUE(ReadFile(PathOf("block")) == expected.Bytes());
}

// Values that lie side by side are copied in runs, of which some are longer than any buffer.
TEST_F(BlockWriterTest, RunsOfValuesOfAnySizeAreTheSameBytes) {
  std::vector<BlockImageEntry> even;
  std::vector<BlockImageEntry> all;
  std::vector<BlockImageEntry> odd;
  for (int i = 100; i < 160; ++i) {
    const size_t size = i % 7 == 0 ? 300000 : i % 5 == 0 ? 0 : static_cast<size_t>(i) * 70;
    std::string value;
    for (size_t j = 0; j < size; ++j) value += static_cast<char>(i + static_cast<int>(j % 251));
    all.push_back({std::to_string(i), value});
    (i / 10 % 2 == 0 ? even : odd).push_back(all.back());
  }
  const std::vector<BlockSource> sources = {{Store("even", BlockImage(even).Bytes()), nullptr},
                                            {Store("odd", BlockImage(odd).Bytes()), nullptr}};
  EXPECT_TRUE(Merge(sources, DeadEntries::Drop) == BlockImage(all).Bytes());
  for (const BlockImageEntry& entry : all) ASSERT_EQ(ReadValue(*merged_, entry.key).bytes, entry.value);
}

TEST_F(BlockWriterTest, AFileOfAnotherPageSizeLoadsWhenToldOrWhenFoundOut) {
  for (const uint64_t pageSize : {4096u, 16384u, 65536u}) {
    const std::string path =
        Store("pages" + std::to_string(pageSize), BlockImage({{"key", "value"}}, pageSize).Bytes());
    for (const uint64_t asked : {pageSize, kAnyPageSize}) {
      Block* loaded = nullptr;
      ASSERT_EQ(Block::Load(path, &loaded, asked), kStatusOk) << pageSize << ' ' << asked;
      const std::unique_ptr<Block> block(loaded);
      EXPECT_EQ(block->Find("key"), 0u);
      EXPECT_EQ(ReadValue(*block, "key").bytes, "value");
    }
  }
  Block* loaded = nullptr;
  EXPECT_EQ(Block::Load(PathOf("pages16384"), &loaded, 65536), kStatusBlockCorrupt);
  EXPECT_EQ(Block::Load(Store("corrupt", "x"), &loaded, kAnyPageSize), kStatusBlockCorrupt);
}

// The file is read, not mapped: a mapping would end the process here.
TEST_F(BlockWriterTest, AFileThatIsCutShortUnderABlockGivesAStatus) {
  const std::unique_ptr<Block> block = Load(Store("block", BlockImage({{"key", "value"}}).Bytes()));
  ASSERT_EQ(truncate(PathOf("block").c_str(), 0), 0);
  EXPECT_EQ(block->KeyAt(0), "key");
  EXPECT_EQ(ReadValue(*block, "key").status, kStatusBlockShortRead);
}

}  // namespace
}  // namespace Kestrun::Testing
