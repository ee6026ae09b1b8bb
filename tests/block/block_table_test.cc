// Entries that are read where they lie, against an index of the same file.
#include "block/block_table.h"

#include <map>
#include <random>

#include "block/block_pages.h"
#include "tests/block/block_fixture.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

class BlockTableTest : public BlockTest {
 protected:
  std::shared_ptr<const BlockTable> Open(const std::string& path, bool learns, uint32_t* status) {
    std::shared_ptr<OsFile> file;
    std::shared_ptr<const BlockTable> table;
    EXPECT_EQ(OsFile::Open(path, kOpenReadOnly, &file), kStatusOk);
    *status = learns ? BlockTable::Learn(file, 4096, &table) : BlockTable::Open(file, 4096, &table);
    EXPECT_EQ(table != nullptr, *status == kStatusOk);
    return table;
  }

  // Keys of a common beginning, many of them equal for more than the eight bytes of a prefix.
  std::string RandomKey(const std::string& common) {
    std::string key = common;
    if (random_() % 2 == 0) key += "the same for more than eight bytes";
    for (uint64_t i = random_() % 6; i-- > 0;) key += static_cast<char>(random_() % 3 == 0 ? random_() : 'a');
    return key;
  }

  std::vector<BlockImageEntry> RandomEntries(size_t count, const std::string& common) {
    std::map<std::string, BlockImageEntry> entries;
    for (size_t i = 0; i < count; ++i) {
      const std::string key = RandomKey(common);
      entries[key] = {key, std::string(random_() % 5, 'v'), random_() % 9 == 0, 1000 + random_() % 9, 7};
    }
    std::vector<BlockImageEntry> sorted;
    for (const auto& [key, entry] : entries) sorted.push_back(entry);
    return sorted;
  }

  std::mt19937_64 random_ = TestRandom(0);
};

TEST_F(BlockTableTest, FindsWhatAnIndexFinds) {
  for (size_t round = 0; round < TestSize(40, 1000) && !HasFatalFailure(); ++round) {
    const std::string common(random_() % 3 * 5, 'c');
    const size_t size = round < 4 ? round : random_() % 900;
    const std::string path =
        Store("block" + std::to_string(round), BlockImage(RandomEntries(size, common), 4096).Bytes());
    const std::unique_ptr<Block> block = Load(path);
    for (const bool learns : {false, true}) {
      uint32_t status = kStatusOk;
      const std::shared_ptr<const BlockTable> table = Open(path, learns, &status);
      ASSERT_EQ(status, kStatusOk);
      ASSERT_EQ(table->IsLearned(), learns);
      ASSERT_EQ(table->Count(), block->Count());
      std::vector<std::string> probes = {"", common, "\xff\xff", common + "\xff"};
      for (uint32_t i = 0; i < block->Count(); i += 1 + static_cast<uint32_t>(random_() % 9)) {
        probes.emplace_back(block->KeyAt(i));
        probes.push_back(probes.back() + '\0');
        probes.push_back(RandomKey(common));
      }
      for (const std::string& probe : probes) {
        uint32_t position = UINT32_MAX;
        ASSERT_EQ(table->LowerBound(probe, &position), kStatusOk);
        ASSERT_EQ(position, block->LowerBound(probe)) << probe;
        std::optional<BlockIndex::Record> record;
        ASSERT_EQ(table->Find(probe, &record), kStatusOk);
        const uint32_t found = block->Find(probe);
        ASSERT_EQ(record.has_value(), found != block->Count()) << probe;
        if (!record.has_value()) continue;
        const DataEntry expected = block->EntryAt(found);
        ASSERT_EQ(record->valueOffset, expected.valueOffset);
        ASSERT_EQ(record->valueSize, expected.valueSize);
        ASSERT_EQ(record->timestamp, expected.timestamp);
        ASSERT_EQ(record->ttl, expected.ttl);
        ASSERT_EQ(record->deleted, expected.deleted);
      }
    }
  }
}

TEST_F(BlockTableTest, PagesAreWalkedInBothDirectionsAndAtRandom) {
  const std::string path = Store("block", BlockImage(RandomEntries(9000, "k")).Bytes());
  const std::unique_ptr<Block> indexed = Load(path);
  BlockLoading loading;
  loading.maxIndexed = 0;
  Block* loaded = nullptr;
  ASSERT_EQ(Block::Load(path, loading, &loaded), kStatusOk);
  const std::unique_ptr<Block> block(loaded);
  ASSERT_TRUE(block->IsCold());
  ASSERT_EQ(block->Index(), nullptr);

  BlockPages pages(*block);
  const auto expectEntry = [&](uint32_t position, bool forward) {
    ASSERT_EQ(pages.Load(position, forward), kStatusOk);
    ASSERT_EQ(pages.KeyAt(position), indexed->KeyAt(position));
    ASSERT_EQ(pages.EntryAt(position).valueOffset, indexed->EntryAt(position).valueOffset);
  };
  for (uint32_t i = 0; i < block->Count() && !HasFatalFailure(); ++i) expectEntry(i, true);
  for (uint32_t i = block->Count(); i-- > 0 && !HasFatalFailure();) expectEntry(i, false);
  for (int i = 0; i < 1000 && !HasFatalFailure(); ++i) {
    expectEntry(static_cast<uint32_t>(random_() % block->Count()), random_() % 2 == 0);
  }
}

// A search says what is so, or that the block is damaged; it never leads outside the file.
TEST_F(BlockTableTest, EveryChangedByteOfTheEntriesIsTold) {
  const std::vector<BlockImageEntry> entries = RandomEntries(70, "k");
  const BlockImage image(entries, 4096);
  const std::unique_ptr<Block> sound = Load(Store("sound", image.Bytes()));
  const uint32_t place = sound->Count() / 2;
  for (size_t byte = 0; byte < 44; ++byte) {
    std::string bytes = image.Bytes();
    char& changed = bytes[image.EntryOffset(place) + byte];
    changed = static_cast<char>(changed ^ 0x10);
    const std::string path = Store("damaged" + std::to_string(byte), bytes);
    uint32_t status = kStatusOk;
    Open(path, true, &status);
    EXPECT_EQ(status, kStatusBlockCorrupt) << byte;
    const std::shared_ptr<const BlockTable> cold = Open(path, false, &status);
    ASSERT_EQ(status, kStatusOk);
    std::optional<BlockIndex::Record> record;
    EXPECT_EQ(cold->Find(entries[place].key, &record), kStatusBlockCorrupt) << byte;
    BlockIndex page;
    EXPECT_EQ(cold->ReadPage(0, cold->Count(), &page), kStatusBlockCorrupt) << byte;
    EXPECT_EQ(page.Count(), 0U);
    EXPECT_EQ(cold->ReadPage(0, place, &page), kStatusOk) << byte;
  }
}

TEST_F(BlockTableTest, KeysOutOfOrderAreNotLearnedAndTheBlockIsIndexed) {
  const std::string path = Store("block", BlockImage({{"b", "1"}, {"a", "2"}, {"c", "3"}}, 4096).Bytes());
  uint32_t status = kStatusOk;
  Open(path, true, &status);
  EXPECT_EQ(status, kStatusInvalid);
  BlockLoading loading;
  loading.maxIndexed = 0;
  loading.learns = true;
  Block* loaded = nullptr;
  std::shared_ptr<const BlockFilter> filter;
  ASSERT_EQ(Block::Load(path, loading, &loaded, 4096, &filter), kStatusOk);
  const std::unique_ptr<Block> block(loaded);
  ASSERT_NE(block->Index(), nullptr);
  EXPECT_FALSE(block->Index()->IsOrdered());
  EXPECT_NE(filter, nullptr);
}

TEST_F(BlockTableTest, ShortFileIsAStatus) {
  const BlockImage image(RandomEntries(200, "k"), 4096);
  const std::string path = Store("block", image.Bytes());
  uint32_t status = kStatusOk;
  const std::shared_ptr<const BlockTable> learned = Open(path, true, &status);
  ASSERT_EQ(status, kStatusOk);
  WriteFile(path, image.Bytes().substr(0, image.entryTable + 100));
  std::optional<BlockIndex::Record> record;
  EXPECT_EQ(learned->Find("kk", &record), kStatusBlockCorrupt);
  Open(path, true, &status);
  EXPECT_EQ(status, kStatusBlockCorrupt);
}

}  // namespace
}  // namespace Kestrun::Testing
