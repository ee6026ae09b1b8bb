// Merging all blocks into one.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "block/block.h"
#include "tests/engine/store_fixture.h"
#include "tests/support/block_image.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"
#include "tests/support/fake_clock.h"
#include "tests/support/process_maps.h"

namespace Kestrun::Testing {
namespace {

class CompactTest : public StoreTest {
 protected:
  void Reopen() {
    engine_.reset();
    engine_ = Open();
  }
  // Puts other bytes into the place of a listed block. The engine has not loaded it then.
  void ReplaceBlock(size_t index, const std::string& bytes) {
    engine_.reset();
    WriteFile(PathOf(ListedBlocks()[index]), bytes);
    engine_ = Open();
  }

  FakeClock clock_;
  std::unique_ptr<LSDBImpl> engine_ = Open();
};

TEST_F(CompactTest, WithFewerThanFourBlocksNothingHappens) {
  CapturedStdout output;
  for (int blocks = 0; blocks < 4; ++blocks) {
    const auto before = Contents();
    EXPECT_EQ(engine_->ForceCompact(), kStatusOk);
    EXPECT_TRUE(Contents() == before) << blocks;
    MakeBlock(*engine_, {{"key", std::to_string(blocks)}});
  }
  EXPECT_EQ(engine_->ForceCompact(), kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 1u);
  EXPECT_EQ(BlockFiles(), ListedBlocks());
  EXPECT_EQ(output.Take(), "");
}

TEST_F(CompactTest, EverythingThatCouldBeReadIsReadFromOneBlock) {
  MakeBlocks(*engine_, 6);
  ASSERT_EQ(Insert(*engine_, "in the log", "value"), kStatusOk);
  const std::string log = ReadFile(PathOf("wal_v5"));
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 1u);
  EXPECT_EQ(BlockFiles(), ListedBlocks());
  EXPECT_EQ(Generation(), 7u);
  EXPECT_TRUE(ReadFile(PathOf("wal_v5")) == log);
  EXPECT_EQ(Files(), (Strings{BlockFiles()[0], "manifest_v5", "wal_v5"}));
  const auto check = [](LSDBImpl& engine) {
    for (int i = 0; i < 6; ++i) {
      EXPECT_EQ(Value(engine, "key" + std::to_string(i)), "value" + std::to_string(i));
    }
    EXPECT_EQ(Value(engine, "shared"), "5");
    EXPECT_EQ(Value(engine, "in the log"), "value");
  };
  check(*engine_);
  Reopen();
  check(*engine_);
  ChildProcess other([&](ChildLink&) {
    check(*Open());
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(other.Wait(), 0);
}

TEST_F(CompactTest, TheNewBlockIsTheMergeOfTheOldOnesByteForByte) {
  const uint64_t start = clock_.Now();
  MakeBlock(*engine_, {{"a", "old"}, {"b", "stays"}, {"deleted", "value"}});
  ASSERT_EQ(Insert(*engine_, "short", "expires", 5), kStatusOk);
  ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  clock_.Advance(10);
  MakeBlock(*engine_, {{"a", "new"}});
  ASSERT_EQ(engine_->Delete("deleted"), kStatusOk);
  ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  CapturedStdout output;
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  EXPECT_EQ(output.Take(), "");
  EXPECT_TRUE(ReadFile(PathOf(BlockFiles()[0])) ==
              BlockImage({{"a", "new", false, start + 10}, {"b", "stays", false, start}}).Bytes());
  EXPECT_EQ(Keys(*engine_), (Strings{"a", "b"}));
}

TEST_F(CompactTest, TheFilterHoldsKeysAndPrimariesAsAfterAFlush) {
  for (int i = 0; i < 4; ++i) {
    for (int j = 0; j < 10; ++j) {
      ASSERT_EQ(Insert(*engine_, "user-" + std::to_string(10 * i + j), ""), kStatusOk);
    }
    ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  }
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  EXPECT_EQ(Filter(0).size(), 40 + 40 + 1u);
  EXPECT_EQ(Keys(*engine_, "user", "user-5").size(), 40u - 5) << "without user-5 to user-9";
}

TEST_F(CompactTest, SpaceOfOverwrittenValuesComesBack) {
  for (int i = 0; i < 5; ++i) MakeBlock(*engine_, {{"key", std::string(3000, 'v')}});
  const auto bytes = [this] {
    size_t sum = 0;
    for (const std::string& name : BlockFiles()) sum += ReadFile(PathOf(name)).size();
    return sum;
  };
  const size_t before = bytes();
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  EXPECT_EQ(bytes() * 5, before);
}

TEST_F(CompactTest, WithEverythingDeletedAnEmptyBlockStays) {
  MakeBlocks(*engine_, 3);
  ASSERT_EQ(engine_->DeleteByRange("a", "z"), kStatusOk);
  ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  EXPECT_TRUE(ReadFile(PathOf(BlockFiles()[0])) == BlockImage({}).Bytes());
  EXPECT_TRUE(Keys(*engine_).empty());
  EXPECT_EQ(Value(*engine_, "shared"), "<none>");
}

TEST_F(CompactTest, FilesThatTheManifestDoesNotListStay) {
  MakeBlocks(*engine_, 4);
  WriteFile(PathOf("LEFTBEHIND.blk_v5"), "by a flush that failed");
  WriteFile(PathOf("meta_v5"), "of the records");
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  EXPECT_TRUE(Exists("LEFTBEHIND.blk_v5"));
  EXPECT_TRUE(Exists("meta_v5"));
  EXPECT_EQ(BlockFiles().size(), 2u);
}

TEST_F(CompactTest, FilesOfTheEarlierFormatGoWithTheirLogAndOnlyWithIt) {
  const Strings legacy = {"A.blk_v3", "B.blk_v3.tmp", "x.blk_v3x"};
  MakeBlocks(*engine_, 4);
  for (const std::string& name : legacy) WriteFile(PathOf(name), "earlier");
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  for (const std::string& name : legacy) EXPECT_TRUE(Exists(name)) << name;

  WriteFile(PathOf("wal_v3"), "earlier");
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk) << "too few blocks: nothing happens";
  EXPECT_TRUE(Exists("wal_v3"));

  MakeBlocks(*engine_, 3);
  const size_t descriptors = CountDescriptors();
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  EXPECT_FALSE(Exists("wal_v3"));
  for (const std::string& name : legacy) EXPECT_FALSE(Exists(name)) << name;
  EXPECT_TRUE(Exists("wal_v5"));
  EXPECT_EQ(BlockFiles().size(), 1u);
  // The stream over the directory stays open; the cache holds one block in the place of several.
  EXPECT_EQ(DescriptorsOf(path_).size(), 1u);
  EXPECT_LE(CountDescriptors(), descriptors + 1);
}

TEST_F(CompactTest, WithoutFilesOfTheEarlierFormatNoDirectoryStreamStaysOpen) {
  for (int i = 0; i < 3; ++i) {
    MakeBlocks(*engine_, 4);
    ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  }
  EXPECT_TRUE(DescriptorsOf(path_).empty());
}

TEST_F(CompactTest, ABlockInUseStaysReadable) {
  MakeBlocks(*engine_, 4);
  const std::shared_ptr<Block> held = engine_->FindBlock("key1");
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  DataEntry entry = {};
  ASSERT_EQ(held->Lookup("key1", &entry), kStatusOk);
  void* value = nullptr;
  ASSERT_EQ(held->ReadValue(entry, &value), kStatusOk);
  EXPECT_EQ(std::string(static_cast<char*>(value), entry.valueSize), "value1");
  std::free(value);
}

TEST_F(CompactTest, ABlockWhoseFileIsGoneOrCorruptIsLeftOut) {
  MakeBlocks(*engine_, 5);
  engine_.reset();
  std::filesystem::remove(PathOf(ListedBlocks()[1]));
  WriteFile(PathOf(ListedBlocks()[2]), "corrupt");
  engine_ = Open();
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 1u);
  EXPECT_EQ(BlockFiles().size(), 1u);
  EXPECT_EQ(Keys(*engine_), (Strings{"key0", "key3", "key4", "shared"}));
}

TEST_F(CompactTest, ABlockInTheCacheIsMergedWhateverHasBecomeOfItsFile) {
  MakeBlocks(*engine_, 5);
  const Strings listed = ListedBlocks();
  std::filesystem::remove(PathOf(listed[0]));
  std::string damaged = ReadFile(PathOf(listed[1]));
  damaged[damaged.size() - 40] ^= 1;
  WriteFile(PathOf(listed[1]), damaged);
  WriteFile(PathOf("other"), "another file");
  std::filesystem::rename(PathOf("other"), PathOf(listed[2]));
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  EXPECT_EQ(BlockFiles(), ListedBlocks());
  EXPECT_EQ(Keys(*engine_), (Strings{"key0", "key1", "key2", "key3", "key4", "shared"}));
  EXPECT_EQ(Value(*engine_, "key0"), "value0");
  EXPECT_EQ(Value(*engine_, "key1"), "value1");
  EXPECT_EQ(Value(*engine_, "key2"), "value2");
  EXPECT_EQ(Value(*engine_, "shared"), "4");
}

// Keys are protected by no checksum.
TEST_F(CompactTest, ABlockWithAKeyThatHasChangedOnDiskIsSortedAndMerged) {
  MakeBlock(*engine_, {{"a", "1"}, {"b", "2"}, {"c", "3"}});
  MakeBlocks(*engine_, 3);
  BlockImage changed({{"a", "1"}, {"z", "2"}, {"c", "3"}});
  ReplaceBlock(0, changed.Bytes());
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  EXPECT_EQ(ListedBlocks().size(), 1u);
  EXPECT_EQ(Keys(*engine_), (Strings{"a", "c", "key0", "key1", "key2", "shared", "z"}));
  for (const auto& [key, value] :
       std::vector<std::pair<std::string, std::string>>{{"a", "1"}, {"c", "3"}, {"z", "2"}}) {
    EXPECT_EQ(Value(*engine_, key), value);
  }
}

// A table of no bytes can't be mapped. The file may be read by somebody else, so it is kept.
TEST_F(CompactTest, ABlockWithATableOfNoBytesEndsTheCompactionAndReadsThatNeedIt) {
  MakeBlocks(*engine_, 4);
  BlockImage unmapped({{"key2", "value2"}, {"shared", "2"}});
  unmapped.file.Put32(unmapped.entryTable + 20, 0);
  unmapped.SealSection(unmapped.entryTable);
  const std::string sound = ReadFile(PathOf(ListedBlocks()[2]));
  ReplaceBlock(2, unmapped.Bytes());
  const auto before = Contents();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(engine_->ForceCompact(), kStatusMapFailed);
    EXPECT_EQ(Value(*engine_, "key2"), "<status 4611>");
    EXPECT_EQ(Value(*engine_, "key3"), "value3");
    EXPECT_EQ(engine_->FindBlock("key2"), nullptr);
  }
  EXPECT_TRUE(Contents() == before);
  WriteFile(PathOf(ListedBlocks()[2]), sound);
  EXPECT_EQ(Value(*engine_, "key2"), "value2");
  EXPECT_EQ(engine_->ForceCompact(), kStatusOk);
}

// Its file would be deleted with the others, though nothing is wrong with it.
TEST_F(CompactTest, ABlockThatCannotBeReadForNowEndsTheCompaction) {
  MakeBlocks(*engine_, 5);
  const std::string path = PathOf(ListedBlocks()[2]);
  engine_.reset();
  std::filesystem::rename(path, path_ + ".away");
  std::filesystem::create_directory(path);
  engine_ = Open();
  const auto before = Contents();
  EXPECT_EQ(engine_->ForceCompact(), kStatusBlockShortRead);
  EXPECT_TRUE(Contents() == before);

  std::filesystem::remove(path);
  std::filesystem::rename(path_ + ".away", path);
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  EXPECT_EQ(Keys(*engine_).size(), 6u);
}

TEST_F(CompactTest, AtTheLimitOfOpenFilesNothingIsLost) {
  // A compaction first: the sanitizer of undefined behaviour takes a descriptor for each class that is new to
  // it.
  MakeBlocks(*engine_, 5);
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  MakeBlocks(*engine_, 4);
  Reopen();
  ChildProcess child([&](ChildLink&) {
    const std::unique_ptr<LSDBImpl> engine = Open();
    const int next = dup(0);
    close(next);
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t usual = limit.rlim_cur;
    int failures = 0;
    for (int room = 0; room < 64; ++room) {
      limit.rlim_cur = static_cast<rlim_t>(next + room);
      setrlimit(RLIMIT_NOFILE, &limit);
      const uint32_t status = engine->ForceCompact();
      limit.rlim_cur = usual;
      setrlimit(RLIMIT_NOFILE, &limit);
      for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(Value(*engine, "key" + std::to_string(i)), "value" + std::to_string(i)) << room;
      }
      if (status == kStatusOk) break;
      ++failures;
      EXPECT_EQ(ListedBlocks().size(), 5u) << room;
      for (const std::string& name : ListedBlocks()) EXPECT_TRUE(Exists(name)) << room;
    }
    EXPECT_GT(failures, 0);
    EXPECT_EQ(ListedBlocks().size(), 1u);
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(child.Wait(), 0);
}

// Lets this process open no more than `count` files beside those that it has open.
bool LimitToMoreDescriptors(int count) {
  std::vector<int> probes;
  for (int i = 0; i < count; ++i) probes.push_back(dup(STDERR_FILENO));  // each gets the lowest free number
  const auto end = static_cast<rlim_t>(probes.back()) + 1;
  for (const int probe : probes) close(probe);
  const rlimit limit = {end, end};
  return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

TEST_F(CompactTest, HundredsOfBlocksAreMergedWithFewDescriptors) {
  ChildProcess child([&](ChildLink&) {
    if (!LimitToMoreDescriptors(90)) return 1;
    const std::unique_ptr<LSDBImpl> engine = Open();
    for (int i = 0; i < 100; ++i) {
      if (Insert(*engine, "key" + std::to_string(i), "value") != kStatusOk) return 2;
      if (engine->ResetWal() != kStatusOk) return 3;
    }
    if (engine->ForceCompact() != kStatusOk) return 4;
    return Keys(*engine).size() == 100 ? 0 : 5;
  });
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(ListedBlocks().size(), 1u);
}

TEST_F(CompactTest, ABlockOf4GiBIsRefusedAndTheStoreStaysAsItIs) {
  MakeBlocks(*engine_, 5);
  for (const size_t index : {1u, 3u}) {
    const std::string key = "key" + std::to_string(index);
    BlockImage huge({{key, ""}, {"shared", std::to_string(index)}});
    huge.file.Put32(huge.EntryOffset(0) + 4, 0xA0000000);
    huge.SealEntry(0);
    ReplaceBlock(index, huge.Bytes());
  }
  const auto before = Contents();
  CapturedStdout output;
  EXPECT_EQ(engine_->ForceCompact(), kStatusBlockWriteFailed);
  EXPECT_EQ(output.Take(), "");
  EXPECT_TRUE(Contents() == before);
  EXPECT_EQ(Value(*engine_, "key0"), "value0");
}

TEST_F(CompactTest, ADamagedManifestEndsTheCompaction) {
  MakeBlocks(*engine_, 4);
  const Strings blocks = BlockFiles();
  // Another process has recorded a block, and badly.
  FileImage manifest = Manifest();
  manifest.Put32(12, 5).PutChecksum(20, 0, 20).Put8(128, 'x');
  const int file = open(PathOf("manifest_v5").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(pwrite(file, manifest.Bytes().data(), 129, 0), 129);
  close(file);
  CapturedStdout output;
  EXPECT_EQ(engine_->ForceCompact(), kStatusManifestUnreadable);
  EXPECT_EQ(output.Take(), "Failed to decode header of block entry");
  EXPECT_EQ(BlockFiles(), blocks);
  EXPECT_EQ(Value(*engine_, "key1"), "value1") << "the list that was read before is still used";
}

TEST_F(CompactTest, ADamagedManifestHeaderEndsTheCompaction) {
  MakeBlocks(*engine_, 4);
  const Strings blocks = BlockFiles();
  const char flipped = static_cast<char>(Manifest().Bytes()[20] ^ 1);  // a byte of the checksum
  const int file = open(PathOf("manifest_v5").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(pwrite(file, &flipped, 1, 20), 1);
  close(file);
  CapturedStdout output;
  EXPECT_EQ(engine_->ForceCompact(), kStatusManifestChecksum);
  EXPECT_EQ(output.Take(), "Invalid manifest header checksum");
  EXPECT_EQ(BlockFiles(), blocks);
}

// An entry that expires between the counting and the copying makes the counting wrong. The merged block can
// be read all the same, also by those who have to load it.
TEST_F(CompactTest, AnEntryThatExpiresDuringTheCompactionCostsNothingElse) {
  for (int i = 0; i < 4; ++i) {
    const std::string number = std::to_string(i);
    ASSERT_EQ(Insert(*engine_, "key" + number, std::string(700, 'v') + number), kStatusOk);
    ASSERT_EQ(Insert(*engine_, "last second" + number, std::string(1500, 'x'), 0), kStatusOk);
    ASSERT_EQ(engine_->ResetWal(), kStatusOk);
  }
  clock_.OnReading([this](int reading) {
    if (reading == 2) clock_.Advance(1);
  });
  CapturedStdout output;
  ASSERT_EQ(engine_->ForceCompact(), kStatusOk);
  clock_.OnReading(nullptr);
  EXPECT_EQ(output.Take().substr(0, 23), "TTL verification failed");
  ASSERT_EQ(ListedBlocks().size(), 1u);
  Reopen();
  for (int i = 0; i < 4; ++i) {
    const std::string number = std::to_string(i);
    EXPECT_EQ(Value(*engine_, "key" + number), std::string(700, 'v') + number);
    EXPECT_EQ(Value(*engine_, "last second" + number), "<none>");
  }
  EXPECT_EQ(BlockFiles().size(), 1u) << "nobody took it for corrupt";
}

TEST_F(CompactTest, LoadingBlocksAgainAndAgainLeavesNothingOpenOrMapped) {
  MakeBlocks(*engine_, 20);  // more than the cache holds
  const auto readAll = [this] {
    for (int i = 0; i < 20; ++i)
      ASSERT_EQ(Value(*engine_, "key" + std::to_string(i)), "value" + std::to_string(i));
  };
  readAll();
  const size_t descriptors = CountDescriptors();
  for (int round = 0; round < 50; ++round) readAll();
  EXPECT_EQ(CountDescriptors(), descriptors);
  for (const std::string& name : BlockFiles()) EXPECT_TRUE(MappingsOf(PathOf(name)).empty()) << name;
}

}  // namespace
}  // namespace Kestrun::Testing
