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

TEST_F(BlockCacheTest, ACorruptFileIsDeletedWithTheFirstTryToLoadIt) {
  for (const std::string& bytes : {std::string(), std::string(200, 'x')}) {
    Store("block", bytes);
    uint32_t failure = 77;
    EXPECT_EQ(Get("block", &failure), nullptr);
    EXPECT_EQ(failure, kStatusOk) << "trying again later is of no use";
    EXPECT_FALSE(Exists("block"));
    EXPECT_EQ(Get("block", &failure), nullptr);
    EXPECT_EQ(failure, kStatusOk);
  }
  Make("block");
  EXPECT_NE(Get("block"), nullptr) << "nothing was cached for the failures";
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
    EXPECT_FALSE(cache_.Check(PathOf("block"), &failure));
    EXPECT_EQ(failure, kStatusOpenFailed);
    EXPECT_EQ(Get("corrupt"), nullptr);

    limit.rlim_cur = before;
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_NE(Get("block", &failure), nullptr);
    return HasFailure() ? 1 : 0;
  });
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_TRUE(Exists("corrupt")) << "only what was read and is wrong is deleted";
}

TEST_F(BlockCacheTest, CheckTellsWithoutLoadingWhetherABlockCanBeRead) {
  uint32_t failure = 77;
  Make("sound");
  EXPECT_TRUE(cache_.Check(PathOf("sound"), &failure));
  EXPECT_EQ(failure, kStatusOk);
  EXPECT_FALSE(IsCached("sound"));

  EXPECT_FALSE(cache_.Check(PathOf("missing"), &failure));
  EXPECT_EQ(failure, kStatusOk);

  Store("corrupt", "x");
  EXPECT_FALSE(cache_.Check(PathOf("corrupt"), &failure));
  EXPECT_EQ(failure, kStatusOk);
  EXPECT_FALSE(Exists("corrupt"));

  ASSERT_EQ(mkdir(PathOf("directory").c_str(), 0700), 0);
  EXPECT_FALSE(cache_.Check(PathOf("directory"), &failure));
  EXPECT_EQ(failure, kStatusBlockShortRead);
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
