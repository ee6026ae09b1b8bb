// What a merge keeps and what it leaves out.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tests/block/block_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_clock.h"

namespace Kestrun::Testing {
namespace {

class BlockMergeTest : public BlockTest {
 protected:
  // Merges blocks with these entries, oldest first; the bytes of the new file.
  std::string Merge(const std::vector<std::vector<BlockImageEntry>>& sources) {
    std::vector<std::string> paths;
    for (const auto& entries : sources) {
      paths.push_back(Store("source" + std::to_string(paths.size()), BlockImage(entries).Bytes()));
    }
    std::remove(PathOf("merged").c_str());
    merged_ = WriteFromBlocks(paths, "merged");
    return ReadFile(PathOf("merged"));
  }

  FakeClock clock_;
  std::unique_ptr<Block> merged_;
};

TEST_F(BlockMergeTest, TheNewestSourceOfAKeyWins) {
  EXPECT_TRUE(Merge({{{"a", "old"}, {"b", "only here"}}, {{"a", "new"}, {"c", "third"}}}) ==
              BlockImage({{"a", "new"}, {"b", "only here"}, {"c", "third"}}).Bytes());
  EXPECT_EQ(ReadValue(*merged_, "a").bytes, "new");
  EXPECT_EQ(ReadValue(*merged_, "c").bytes, "third");
}

TEST_F(BlockMergeTest, ADeletionMarkerRemovesTheKeyAndItself) {
  EXPECT_TRUE(Merge({{{"a", "1"}, {"b", "2"}}, {{"b", "", true}, {"c", "", true}}}) ==
              BlockImage({{"a", "1"}}).Bytes());
  EXPECT_TRUE(Merge({{{"b", "", true}}, {{"b", "written again"}}}) ==
              BlockImage({{"b", "written again"}}).Bytes());
}

TEST_F(BlockMergeTest, AnExpiredEntryIsLeftOutInSilenceAndHidesOlderOnes) {
  CapturedStdout output;
  EXPECT_TRUE(Merge({{{"a", "lives long"}, {"b", "1"}}, {{"a", "lived", false, clock_.Now() - 10, 9}}}) ==
              BlockImage({{"b", "1"}}).Bytes());
  EXPECT_EQ(output.Take(), "");
}

TEST_F(BlockMergeTest, EntriesKeepTheirTimes) {
  const std::vector<BlockImageEntry> entries = {{"a", "1", false, clock_.Now() - 10, 10},
                                                {"b", "2", false, clock_.Now() + 100, 0},
                                                {"c", "", false, clock_.Now() - 7, 4000000000}};
  EXPECT_TRUE(Merge({entries}) == BlockImage(entries).Bytes());
  clock_.Advance(1);
  CapturedStdout output;
  EXPECT_EQ(ReadValue(*merged_, "a").status, kStatusInvalid);
  EXPECT_EQ(output.Take(), "TTL verification failed");
}

TEST_F(BlockMergeTest, WithNothingLeftTheBlockIsEmptyAndSound) {
  EXPECT_TRUE(Merge({{{"a", "1"}}, {{"a", "", true}}}) == BlockImage({}).Bytes());
  EXPECT_TRUE(Merge({}) == BlockImage({}).Bytes());
  EXPECT_TRUE(Merge({{}, {}}) == BlockImage({}).Bytes());
  EXPECT_EQ(Load(PathOf("merged"))->Count(), 0u);
}

// Scans go from the byte 00 to the byte FF, which is left out; the store itself never writes an empty key.
TEST_F(BlockMergeTest, KeysOutsideTheRangeOfScansAreLeftOut) {
  const std::string least("\0", 1);
  EXPECT_TRUE(Merge({{{"", "empty"}, {least, "kept"}, {"a", "kept"}, {"\xfe\xff", "kept"}, {"\xff", "not"}},
                     {{"\xff\xff", "not"}}}) ==
              BlockImage({{least, "kept"}, {"a", "kept"}, {"\xfe\xff", "kept"}}).Bytes());
}

TEST_F(BlockMergeTest, PaddingOfTheSourcesIsNotCopied) {
  BlockImage source({{"a", "1"}});
  source.file.PutBytes(source.EntryOffset(0) + 9, "padding");
  source.SealEntry(0);
  WriteFromBlocks({Store("source", source.Bytes())}, "merged");
  EXPECT_TRUE(ReadFile(PathOf("merged")) == BlockImage({{"a", "1"}}).Bytes());
}

TEST_F(BlockMergeTest, AValueThatIsCutOffByTheEndOfItsFileIsLeftOutInSilence) {
  BlockImage source({{"a", "whole"}, {"b", "reaches beyond"}, {"c", "whole too"}});
  const auto end = static_cast<uint32_t>(source.Bytes().size());
  source.file.Put32(source.EntryOffset(1), end - 13);
  source.SealEntry(1);
  CapturedStdout output;
  const std::unique_ptr<Block> merged = WriteFromBlocks({Store("source", source.Bytes())}, "merged");
  EXPECT_EQ(output.Take(), "");
  EXPECT_EQ(KeysOf(*merged), (std::vector<std::string>{"a", "c"}));
  const std::unique_ptr<Block> loaded = Load(PathOf("merged"));
  EXPECT_EQ(KeysOf(*loaded), (std::vector<std::string>{"a", "c"}));
  EXPECT_EQ(ReadValue(*loaded, "c").bytes, "whole too");

  source.file.Put32(source.EntryOffset(1), end - 14);
  source.SealEntry(1);
  WriteFromBlocks({Store("source", source.Bytes())}, "merged again");
  EXPECT_EQ(Load(PathOf("merged again"))->Count(), 3u);
}

// The size of the data section is declared before the first value is copied. Whatever entries expire after
// that, and at whichever of them the clock moves on, the file can be read: it would be deleted as corrupt
// otherwise, with everything in it.
TEST_F(BlockMergeTest, EntriesThatExpireDuringTheMergeLeaveAFileThatCanBeRead) {
  const uint64_t start = clock_.Now();
  for (const size_t valueSize : {1u, 100u, 1000u, 5000u, 300000u}) {
    constexpr int kEntries = 8;
    std::vector<BlockImageEntry> entries;
    for (int i = 0; i < kEntries; ++i) {
      const bool lastSecond = i % 2 == 0;
      entries.push_back({"key" + std::to_string(i), std::string(valueSize, static_cast<char>('a' + i)), false,
                         start - 5, lastSecond ? 5u : 1000u});
    }
    const std::string source = Store("source", BlockImage(entries).Bytes());
    for (int tick = 1; tick <= kEntries + 2; ++tick) {
      clock_.Set(start);
      // The merge reads the clock once when it begins and once for each entry that it copies.
      clock_.OnReading([&](int reading) {
        if (reading == tick) clock_.Set(start + 1);
      });
      std::remove(PathOf("merged").c_str());
      CapturedStdout output;
      const std::unique_ptr<Block> merged = WriteFromBlocks({source}, "merged");
      const std::string printed = output.Take();
      clock_.OnReading(nullptr);

      std::vector<std::string> kept;
      std::string messages;
      for (int i = 0; i < kEntries; ++i) {
        if (i % 2 == 1 || i + 2 < tick) {
          kept.push_back("key" + std::to_string(i));
        } else if (tick > 1) {
          messages += "TTL verification failed";
        }
      }
      EXPECT_EQ(printed, messages) << tick;
      EXPECT_EQ(KeysOf(*merged), kept) << tick;
      const std::unique_ptr<Block> loaded = Load(PathOf("merged"));
      ASSERT_NE(loaded, nullptr) << "value size " << valueSize << ", tick " << tick;
      EXPECT_EQ(KeysOf(*loaded), kept) << tick;
      for (const std::string& key : kept) {
        if (key != "key7") continue;
        EXPECT_EQ(ReadValue(*loaded, Key(key)).bytes, std::string(valueSize, 'h'));
        EXPECT_EQ(ReadValue(*merged, Key(key)).bytes, std::string(valueSize, 'h'));
      }
    }
  }
}

// Where the declared end and the real one lie in the same page the file is the same as if both were one.
TEST_F(BlockMergeTest, AnEntryThatExpiresDuringTheMergeIsStillCountedByTheSectionsHeader) {
  const uint64_t start = clock_.Now();
  const std::string source =
      Store("source", BlockImage({{"a", "lasts"}, {"b", "expires", false, start, 0}}).Bytes());
  clock_.OnReading([&](int reading) {
    if (reading == 3) clock_.Set(start + 1);
  });
  CapturedStdout output;
  WriteFromBlocks({source}, "merged");
  EXPECT_EQ(output.Take(), "TTL verification failed");
  BlockImage expected({{"a", "lasts"}});
  expected.file.Put32(128 + 20, 28 + 5 + 7);
  expected.SealSection(128);
  EXPECT_TRUE(ReadFile(PathOf("merged")) == expected.Bytes());
}

TEST_F(BlockMergeTest, ALoadedBlockIsMergedFromMemoryAndItsOpenFile) {
  const std::vector<BlockImageEntry> entries = {{"a", "1"}, {"b", "", true}, {"c", "3"}};
  const auto removed = std::shared_ptr<Block>(Load(Store("removed", BlockImage(entries).Bytes())));
  ASSERT_EQ(std::remove(PathOf("removed").c_str()), 0);
  BlockImage other({{"d", "4"}});
  const auto damaged = std::shared_ptr<Block>(Load(Store("damaged", other.Bytes())));
  other.file.Put8(other.EntryOffset(0), 0xFF);
  WriteFile(PathOf("damaged"), other.Bytes());
  const std::string file = Store("file", BlockImage({{"b", "2"}, {"c", "newer"}}).Bytes());

  Block* merged = nullptr;
  const std::vector<BlockSource> sources = {
      {PathOf("removed"), removed}, {PathOf("damaged"), damaged}, {file, nullptr}};
  ASSERT_EQ(Block::WriteFromBlocks(PathOf("merged"), sources, &merged), kStatusOk);
  delete merged;
  EXPECT_TRUE(ReadFile(PathOf("merged")) ==
              BlockImage({{"a", "1"}, {"b", "2"}, {"c", "newer"}, {"d", "4"}}).Bytes());
}

TEST_F(BlockMergeTest, HundredsOfSourcesNeedFewDescriptors) {
  std::vector<std::vector<BlockImageEntry>> sources;
  std::vector<BlockImageEntry> expected;
  for (int i = 100; i < 300; ++i) {
    sources.push_back({{"k" + std::to_string(i), std::to_string(i)}, {"shared", std::to_string(i)}});
    expected.push_back(sources.back()[0]);
  }
  expected.push_back({"shared", "299"});
  ChildProcess child([&](ChildLink&) {
    const rlimit files = {100, 100};
    setrlimit(RLIMIT_NOFILE, &files);
    EXPECT_TRUE(Merge(sources) == BlockImage(expected).Bytes());
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(child.Wait(), 0);
}

// In kilobytes: the most memory that the process has had in use at a time since the last call.
size_t TakePeakMemory() {
  size_t peak = 0;
  if (FILE* status = std::fopen("/proc/self/status", "r")) {
    char line[256];
    while (std::fgets(line, sizeof(line), status) != nullptr) {
      if (std::sscanf(line, "VmHWM: %zu", &peak) == 1) break;
    }
    std::fclose(status);
  }
  if (FILE* reset = std::fopen("/proc/self/clear_refs", "w")) {
    std::fputs("5", reset);
    std::fclose(reset);
  }
  return peak;
}

TEST_F(BlockMergeTest, MemoryStaysBoundedWhateverTheSizeOfTheValues) {
  constexpr uint32_t kValueSize = 96 * 1024 * 1024;
  std::vector<std::string> paths;
  for (const char* key : {"a", "b"}) {
    // The value is the file's own zeros behind the tables, of which the disk holds none.
    BlockImage source({{key, ""}});
    const auto end = static_cast<uint32_t>(source.Bytes().size());
    source.file.Put32(source.EntryOffset(0), end).Put32(source.EntryOffset(0) + 4, kValueSize);
    source.SealEntry(0);
    paths.push_back(Store(key, source.Bytes()));
    ASSERT_EQ(truncate(paths.back().c_str(), static_cast<off_t>(end) + kValueSize), 0);
  }
  ChildProcess child([&](ChildLink&) {
    TakePeakMemory();
    const size_t before = TakePeakMemory();
    EXPECT_EQ(WriteFromBlocks(paths, "merged")->Count(), 2u);
    EXPECT_LT(TakePeakMemory() - before, 64u * 1024);
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(child.Wait(), 0);
  const std::unique_ptr<Block> merged = Load(PathOf("merged"));
  DataEntry entry = {};
  ASSERT_EQ(merged->Lookup("b", &entry), kStatusOk);
  EXPECT_EQ(entry.valueOffset, 156 + kValueSize);
  EXPECT_EQ(entry.valueSize, kValueSize);
}

}  // namespace
}  // namespace Kestrun::Testing
