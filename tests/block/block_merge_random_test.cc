// The merge by streams against a plain one: a map over all entries, in memory, byte for byte.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "tests/block/block_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/fake_clock.h"
#include "tests/support/random_run.h"

namespace Kestrun::Testing {
namespace {

using Source = std::map<std::string, BlockImageEntry>;

std::vector<BlockImageEntry> Sorted(const Source& source) {
  std::vector<BlockImageEntry> entries;
  for (const auto& [key, entry] : source) entries.push_back(entry);
  return entries;
}

// The newest entry of each key, unless it is deleted, has expired or is not for scans to see.
std::vector<BlockImageEntry> PlainMerge(const std::vector<Source>& sources, uint64_t now) {
  Source newest;
  for (const Source& source : sources) {
    for (const auto& [key, entry] : source) newest[key] = entry;
  }
  std::vector<BlockImageEntry> kept;
  for (const auto& [key, entry] : newest) {
    const bool scanned = !key.empty() && key[0] != '\xff';
    if (scanned && !entry.deleted && entry.timestamp + entry.ttl >= now) kept.push_back(entry);
  }
  return kept;
}

class RandomMergeTest : public BlockTest {
 protected:
  std::string RandomKey(size_t alphabet) {
    std::string key(random_() % 20 == 0 ? 200 + random_() % 3000 : 1 + random_() % 24, '\0');
    for (char& byte : key) {
      byte = static_cast<char>(random_() % 8 == 0 ? random_() : 'a' + random_() % alphabet);
    }
    return key;
  }

  BlockImageEntry RandomEntry(const std::string& key, size_t largest) {
    BlockImageEntry entry = {key, "", false, clock_.Now() - 100 + random_() % 100, 0};
    switch (random_() % 8) {
      case 0:
        entry.deleted = true;
        return entry;
      case 1:
        entry.ttl = static_cast<uint32_t>(random_() % 100);  // expired or not, on the second perhaps
        break;
      default:
        entry.ttl = 0xFFFFFFFF;
    }
    const size_t size = random_() % 6 == 0 ? 0 : random_() % (largest + 1);
    for (size_t i = 0; i < size; i += 8) {
      const uint64_t bytes = random_();
      entry.value.append(reinterpret_cast<const char*>(&bytes), std::min<size_t>(8, size - i));
    }
    return entry;
  }

  // Some sources with a few keys in common.
  std::vector<Source> RandomSources(size_t count, size_t entries, size_t largest) {
    std::vector<std::string> known;
    std::vector<Source> sources(count);
    for (Source& source : sources) {
      for (size_t i = random_() % (entries + 1); i-- > 0;) {
        const bool again = !known.empty() && random_() % 2 == 0;
        const std::string key = again ? known[random_() % known.size()] : RandomKey(1 + random_() % 20);
        known.push_back(key);
        source[key] = RandomEntry(key, largest);
      }
      if (random_() % 4 == 0) source["\xff last"] = RandomEntry("\xff last", 10);
    }
    return sources;
  }

  void ExpectSameMerge(const std::vector<Source>& sources) {
    std::vector<std::string> paths;
    for (const Source& source : sources) {
      paths.push_back(Store("source" + std::to_string(paths.size()), BlockImage(Sorted(source)).Bytes()));
    }
    std::remove(PathOf("merged").c_str());
    CapturedStdout output;
    const std::unique_ptr<Block> merged = WriteFromBlocks(paths, "merged");
    EXPECT_EQ(output.Take(), "");

    const std::vector<BlockImageEntry> expected = PlainMerge(sources, clock_.Now());
    ASSERT_TRUE(ReadFile(PathOf("merged")) == BlockImage(expected).Bytes());
    ASSERT_EQ(merged->Count(), expected.size());
    for (const BlockImageEntry& entry : expected) {
      const Value value = ReadValue(*merged, Key(entry.key));
      ASSERT_EQ(value.status, kStatusOk);
      ASSERT_EQ(value.bytes, entry.value);
    }
    for (const bool keepsHidden : {false, true}) ExpectSameStream(paths, keepsHidden);
  }

  // A merge in little memory writes the same file.
  void ExpectSameStream(const std::vector<std::string>& paths, bool keepsHidden) {
    std::vector<BlockSource> sources;
    for (const std::string& path : paths) sources.push_back({path, nullptr});
    MergeOptions options;
    options.keepsHidden = keepsHidden;
    std::unique_ptr<Block> blocks[2];
    std::shared_ptr<const BlockFilter> filter;
    uint64_t entries = 0;
    for (const std::unique_ptr<Block>& block : Loaded(paths)) entries += block->Count();
    const char* names[] = {"with an index", "streamed"};
    for (int streamed : {0, 1}) {
      std::remove(PathOf(names[streamed]).c_str());
      if (streamed == 1) options.maxIndexed = 0;
      Block* block = nullptr;
      ASSERT_EQ(Block::Merge(PathOf(names[streamed]), sources, options, &block, &filter), kStatusOk);
      blocks[streamed].reset(block);
    }
    ASSERT_TRUE(ReadFile(PathOf("streamed")) == ReadFile(PathOf("with an index")));
    if (entries == 0) return;
    ASSERT_NE(blocks[1]->Table(), nullptr);
    ASSERT_EQ(blocks[1]->Count(), blocks[0]->Count());
    ASSERT_NE(filter, nullptr);
    for (uint32_t i = 0; i < blocks[0]->Count(); ++i) {
      uint32_t position = UINT32_MAX;
      ASSERT_EQ(blocks[1]->Table()->LowerBound(blocks[0]->KeyAt(i), &position), kStatusOk);
      ASSERT_EQ(position, i);
      ASSERT_TRUE(filter->MayContain(BlockFilter::Probe(blocks[0]->KeyAt(i))));
    }
  }

  std::vector<std::unique_ptr<Block>> Loaded(const std::vector<std::string>& paths) {
    std::vector<std::unique_ptr<Block>> blocks;
    for (const std::string& path : paths) blocks.push_back(Load(path));
    return blocks;
  }

  FakeClock clock_;
  std::mt19937_64 random_ = TestRandom(0);
};

TEST_F(RandomMergeTest, ManySmallEntries) {
  for (uint64_t round = 0; round < TestSize(60, 5000) && !HasFatalFailure(); ++round) {
    ExpectSameMerge(RandomSources(1 + random_() % 8, 120, 100));
  }
}

TEST_F(RandomMergeTest, ValuesLargerThanTheWindowsThroughWhichTheyAreRead) {
  for (uint64_t round = 0; round < TestSize(6, 200) && !HasFatalFailure(); ++round) {
    ExpectSameMerge(RandomSources(1 + random_() % 5, 6, 700 * 1024));
  }
}

TEST_F(RandomMergeTest, MoreSourcesThanAreKeptOpen) {
  for (uint64_t round = 0; round < TestSize(4, 200) && !HasFatalFailure(); ++round) {
    ExpectSameMerge(RandomSources(65 + random_() % 40, 20, 30 * 1024));
  }
}

TEST_F(RandomMergeTest, OneSourceThatHoldsEverythingAndManyThatHoldOneKey) {
  for (uint64_t round = 0; round < TestSize(4, 200) && !HasFatalFailure(); ++round) {
    std::vector<Source> sources = RandomSources(1, 3000, 50);
    for (Source& source : RandomSources(20, 1, 5000)) sources.push_back(std::move(source));
    ExpectSameMerge(sources);
  }
}

// A merged block is a source like any other.
TEST_F(RandomMergeTest, MergingInTwoStepsGivesTheSameAsMergingAtOnce) {
  for (uint64_t round = 0; round < TestSize(10, 500); ++round) {
    // Without deletions and expiry, which a partial merge forgets on purpose.
    std::vector<Source> sources = RandomSources(6, 50, 300);
    for (Source& source : sources) {
      for (auto& [key, entry] : source) {
        entry.deleted = false;
        entry.ttl = 0xFFFFFFFF;
      }
    }
    std::vector<std::string> paths;
    for (const Source& source : sources) {
      paths.push_back(Store("source" + std::to_string(paths.size()), BlockImage(Sorted(source)).Bytes()));
    }
    for (const char* name : {"at once", "older", "newer", "in steps"}) std::remove(PathOf(name).c_str());
    WriteFromBlocks(paths, "at once");
    WriteFromBlocks({paths[0], paths[1], paths[2]}, "older");
    WriteFromBlocks({paths[3], paths[4], paths[5]}, "newer");
    WriteFromBlocks({PathOf("older"), PathOf("newer")}, "in steps");
    ASSERT_TRUE(ReadFile(PathOf("in steps")) == ReadFile(PathOf("at once")));
  }
}

}  // namespace
}  // namespace Kestrun::Testing
