#include "block/block_cache.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/block/block_fixture.h"
#include "tests/support/captured_stdout.h"
#include "tests/support/child_process.h"

namespace Kestrun::Testing {
namespace {

class BlockCacheTest : public BlockTest {
 protected:
  static std::string Name(int number) { return "block" + std::to_string(number); }

  std::shared_ptr<Block> Get(const std::string& name, uint32_t* failure = nullptr) {
    return cache_.GetOrLoad(name, PathOf(name), failure);
  }
  // A block file `name` whose only key is the name.
  void Make(const std::string& name) const { Store(name, BlockImage({{name, "value"}}).Bytes()); }
  // Without its file only a cached block can be had.
  bool IsCached(const std::string& name) {
    const std::string away = PathOf(name) + ".away";
    const bool moved = std::rename(PathOf(name).c_str(), away.c_str()) == 0;
    const bool cached = Get(name) != nullptr;
    EXPECT_EQ(moved && std::rename(away.c_str(), PathOf(name).c_str()) != 0, false);
    return cached;
  }
  bool Exists(const std::string& name) const { return access(PathOf(name).c_str(), F_OK) == 0; }

  BlockCache cache_;
};

TEST_F(BlockCacheTest, HoldsSixteenBlocksAndEvictsTheOneUsedLongestAgo) {
  EXPECT_EQ(kBlockCacheCapacity, 16u);
  for (int i = 0; i < 16; ++i) {
    Make(Name(i));
    ASSERT_NE(Get(Name(i)), nullptr);
  }
  ASSERT_NE(Get(Name(0)), nullptr);  // the oldest one becomes the most recent one
  Make("newest");
  ASSERT_NE(Get("newest"), nullptr);

  EXPECT_TRUE(IsCached(Name(0)));
  EXPECT_FALSE(IsCached(Name(1)));
  for (int i = 2; i < 16; ++i) EXPECT_TRUE(IsCached(Name(i))) << i;
  EXPECT_TRUE(IsCached("newest"));
}

TEST_F(BlockCacheTest, ACachedBlockIsHandedOutAgain) {
  Make("block");
  const std::shared_ptr<Block> block = Get("block");
  EXPECT_EQ(Get("block"), block);
}

TEST_F(BlockCacheTest, TheNameAndNotThePathIdentifiesABlock) {
  Make("block");
  const std::shared_ptr<Block> block = Get("block");
  EXPECT_EQ(cache_.GetOrLoad("block", "/nowhere"), block);
}

TEST_F(BlockCacheTest, PutReplacesABlockInPlaceAndMakesItTheMostRecentOne) {
  for (int i = 0; i < 16; ++i) {
    Make(Name(i));
    ASSERT_NE(Get(Name(i)), nullptr);
  }
  const std::shared_ptr<Block> other = Load(PathOf(Name(5)));
  cache_.Put(Name(0), other);
  EXPECT_EQ(Get(Name(0)), other);
  for (int i = 1; i < 16; ++i) EXPECT_TRUE(IsCached(Name(i))) << "replacing evicts nothing: " << i;

  cache_.Put(Name(1), other);
  Make("newest");
  cache_.Put("newest", Load(PathOf("newest")));
  EXPECT_TRUE(IsCached(Name(1)));
  EXPECT_FALSE(IsCached(Name(0)));
}

TEST_F(BlockCacheTest, PutEvictsAsLoadingDoes) {
  for (int i = 0; i < 17; ++i) {
    Make(Name(i));
    cache_.Put(Name(i), Load(PathOf(Name(i))));
  }
  EXPECT_FALSE(IsCached(Name(0)));
  for (int i = 1; i < 17; ++i) EXPECT_TRUE(IsCached(Name(i))) << i;
}

TEST_F(BlockCacheTest, EraseForgetsOneBlockAndIgnoresAnUnknownName) {
  for (int i = 0; i < 3; ++i) {
    Make(Name(i));
    ASSERT_NE(Get(Name(i)), nullptr);
  }
  cache_.Erase("unknown");
  cache_.Erase(Name(1));
  cache_.Erase(Name(1));
  EXPECT_TRUE(IsCached(Name(0)));
  EXPECT_FALSE(IsCached(Name(1)));
  EXPECT_TRUE(IsCached(Name(2)));
  EXPECT_TRUE(Exists(Name(1))) << "the file is not the cache's to delete";
}

TEST_F(BlockCacheTest, ClearForgetsEveryBlock) {
  for (int i = 0; i < 3; ++i) {
    Make(Name(i));
    ASSERT_NE(Get(Name(i)), nullptr);
  }
  cache_.Clear();
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(IsCached(Name(i))) << i;
  EXPECT_NE(Get(Name(0)), nullptr);
}

TEST_F(BlockCacheTest, AnEvictedBlockStaysReadableForWhoeverHoldsIt) {
  Make("held");
  const std::shared_ptr<Block> held = Get("held");
  for (int i = 0; i < 16; ++i) {
    Make(Name(i));
    ASSERT_NE(Get(Name(i)), nullptr);
  }
  EXPECT_FALSE(IsCached("held"));
  ASSERT_EQ(std::remove(PathOf("held").c_str()), 0);
  EXPECT_EQ(ReadValue(*held, "held").bytes, "value");
}

// What becomes of it is not the cache's decision.
TEST_F(BlockCacheTest, ACorruptFileIsReportedAndLeftAlone) {
  for (const std::string& bytes : {std::string(), std::string(200, 'x')}) {
    Store("block", bytes);
    uint32_t failure = kStatusOk;
    EXPECT_EQ(Get("block", &failure), nullptr);
    EXPECT_EQ(failure, kStatusBlockCorrupt);
    EXPECT_TRUE(Exists("block"));
  }
  uint32_t failure = kStatusOk;
  EXPECT_EQ(Get("missing", &failure), nullptr);
  EXPECT_EQ(failure, kStatusOpenFailed);
  Make("block");
  EXPECT_NE(Get("block", &failure), nullptr) << "nothing was cached for the failures";
  EXPECT_EQ(failure, kStatusOk);
}

TEST_F(BlockCacheTest, AFileThatCannotBeReadIsKeptAndTriedAgain) {
  ASSERT_EQ(mkdir(PathOf("block").c_str(), 0700), 0);
  uint32_t failure = kStatusOk;
  EXPECT_EQ(Get("block", &failure), nullptr);
  EXPECT_EQ(failure, kStatusBlockShortRead);
  EXPECT_TRUE(Exists("block"));

  ASSERT_EQ(rmdir(PathOf("block").c_str()), 0);
  Make("block");
  EXPECT_NE(Get("block", &failure), nullptr);
  EXPECT_EQ(failure, kStatusOk);
}

TEST_F(BlockCacheTest, AFileWithATableOfNoBytesCannotBeMappedIsKeptAndTriedAgain) {
  for (const bool entryTable : {false, true}) {
    BlockImage image({{"block", "value"}});
    const size_t table = entryTable ? image.entryTable : image.keyTable;
    image.file.Put32(table + 20, 0);
    image.SealSection(table);
    Store("block", image.Bytes());
    uint32_t failure = kStatusOk;
    EXPECT_EQ(Get("block", &failure), nullptr);
    EXPECT_EQ(failure, kStatusMapFailed);
    EXPECT_TRUE(Exists("block"));
  }
  Make("block");
  uint32_t failure = 77;
  EXPECT_NE(Get("block", &failure), nullptr);
  EXPECT_EQ(failure, kStatusOk);
}

// At the limit of open files.
TEST_F(BlockCacheTest, AFileThatCannotBeOpenedForNowIsKeptAndTriedAgain) {
  Make("block");
  Store("corrupt", "x");
  ChildProcess child([this](ChildLink&) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t before = limit.rlim_cur;
    const int next = dup(0);
    close(next);
    limit.rlim_cur = static_cast<rlim_t>(next);
    setrlimit(RLIMIT_NOFILE, &limit);
    uint32_t failure = kStatusOk;
    EXPECT_EQ(Get("block", &failure), nullptr);
    EXPECT_EQ(failure, kStatusOpenFailed);
    EXPECT_EQ(Get("corrupt", &failure), nullptr);
    EXPECT_EQ(failure, kStatusOpenFailed);

    limit.rlim_cur = before;
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_NE(Get("block", &failure), nullptr);
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(child.Wait(), 0);
}

TEST_F(BlockCacheTest, ABlockThatWasSeenIsKnownToLackKeys) {
  const BlockFilter::Probe mine("block1");
  const BlockFilter::Probe other("nothing of the kind");
  EXPECT_TRUE(cache_.MayContain("block1", PathOf("block1"), other)) << "nobody knows it";
  for (int i = 0; i < 40; ++i) {
    Make(Name(i));
    if (i % 2 == 0) {
      ASSERT_NE(Get(Name(i)), nullptr);
    } else {
      cache_.Put(Name(i), Load(PathOf(Name(i))));
    }
  }
  for (const int i : {1, 2, 38, 39}) {
    EXPECT_FALSE(cache_.MayContain(Name(i), PathOf(Name(i)), other)) << i;
    EXPECT_EQ(cache_.MayContain(Name(i), PathOf(Name(i)), mine), i == 1) << i;
  }
  cache_.Erase(Name(2));
  EXPECT_TRUE(cache_.MayContain(Name(2), PathOf(Name(2)), other));
}

// A name may come to belong to another file. Nothing that is remembered may speak for it.
TEST_F(BlockCacheTest, WhatIsRememberedOfABlockGoesWithItsFile) {
  const BlockFilter::Probe added("added");
  const auto owner = std::make_shared<int>(1);
  const auto later = std::make_shared<int>(2);
  Make("block");
  const std::shared_ptr<Block> before = cache_.GetOrLoad("block", PathOf("block"), nullptr, owner);
  for (int i = 0; i < 16; ++i) {
    Make(Name(i));
    ASSERT_NE(Get(Name(i)), nullptr);
  }
  EXPECT_FALSE(cache_.MayContain("block", PathOf("block"), added, later))
      << "evicted, and the file is the same";
  Store("other", BlockImage({{"added", "1"}, {"block", "2"}}).Bytes());
  ASSERT_EQ(std::rename(PathOf("other").c_str(), PathOf("block").c_str()), 0);
  EXPECT_FALSE(cache_.MayContain("block", PathOf("block"), added, later)) << "known through the same owner";
  EXPECT_TRUE(cache_.MayContain("block", PathOf("block"), added, owner));
  EXPECT_TRUE(cache_.GetOrLoad("block", PathOf("block"), nullptr, owner)->Contains("added"));
}

TEST_F(BlockCacheTest, AnEvictedBlockIsNotReadAgainWhileItsFileIsTheSame) {
  Make("block");
  const std::shared_ptr<const BlockIndex> index = Get("block")->Index();
  const auto evict = [this] {
    for (int i = 0; i < 16; ++i) {
      Make(Name(i));
      ASSERT_NE(Get(Name(i)), nullptr);
    }
  };
  evict();
  const std::shared_ptr<Block> again = Get("block");
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->Index(), index);
  EXPECT_EQ(ReadValue(*again, "block").bytes, "value");

  evict();
  ASSERT_EQ(truncate(PathOf("block").c_str(), 200), 0);
  uint32_t failure = kStatusOk;
  EXPECT_EQ(Get("block", &failure), nullptr) << "the file has changed";
  EXPECT_EQ(failure, kStatusBlockCorrupt);

  Make("block");
  ASSERT_NE(Get("block"), nullptr);
  evict();
  ASSERT_EQ(std::remove(PathOf("block").c_str()), 0);
  EXPECT_EQ(Get("block", &failure), nullptr) << "the file is gone";
}

TEST_F(BlockCacheTest, ALargeBlockIsColdAtItsFirstUseAndLoadedWhenAskedForAgain) {
  std::vector<BlockImageEntry> entries;
  for (uint32_t i = 0; i <= kMaxLoadedAtOnce; ++i) entries.push_back({std::to_string(100000 + i), "v"});
  const std::string path = Store("large", BlockImage(entries).Bytes());
  const std::string small = Store("small", BlockImage({{"k", "v"}}).Bytes());
  const auto owner = std::make_shared<int>(0);
  const auto get = [&](BlockCache& cache, const std::string& name, bool firstUse) {
    return cache.GetOrLoad(name, PathOf(name), nullptr, owner, firstUse);
  };

  EXPECT_FALSE(get(cache_, "small", true)->IsCold());
  const std::shared_ptr<Block> cold = get(cache_, "large", true);
  ASSERT_TRUE(cold->IsCold());
  EXPECT_EQ(get(cache_, "large", true), cold);
  EXPECT_EQ(cache_.AskFilter("large", BlockFilter::Probe("absent"), owner), true) << "nothing is known yet";
  const std::shared_ptr<Block> loaded = get(cache_, "large", false);
  ASSERT_NE(loaded->Index(), nullptr);
  EXPECT_EQ(get(cache_, "large", true), loaded);
  EXPECT_EQ(cache_.AskFilter("large", BlockFilter::Probe("absent"), owner), false);

  BlockCache withTables(2, kMaxLoadedAtOnce);
  const std::shared_ptr<Block> learned = get(withTables, "large", false);
  ASSERT_NE(learned->Table(), nullptr);
  EXPECT_TRUE(learned->Table()->IsLearned());
  EXPECT_EQ(withTables.AskFilter("large", BlockFilter::Probe("absent"), owner), false);
  EXPECT_EQ(withTables.AskFilter("large", BlockFilter::Probe("100007"), owner), true);
}

TEST_F(BlockCacheTest, NothingIsPrinted) {
  CapturedStdout output;
  Store("corrupt", "x");
  Get("corrupt");
  Get("missing");
  Make("block");
  Get("block");
  cache_.Erase("missing");
  EXPECT_EQ(output.Take(), "");
}

}  // namespace
}  // namespace Kestrun::Testing
