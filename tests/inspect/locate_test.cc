#include "inspect/locate.h"

#include "tests/inspect/store_fixture.h"

namespace Kestrun::Inspect {
namespace {

using namespace Kestrun::Testing;

class LocateTest : public ForgedStore {};

TEST_F(LocateTest, FindsTheNewestEntryOfAKey) {
  const auto inLog = LocateKey(Path(), "user-3", kPage);
  ASSERT_TRUE(inLog);
  EXPECT_EQ(inLog->file, "wal_v5");
  EXPECT_EQ(inLog->valueOffset, 174u);
  EXPECT_FALSE(inLog->deleted);

  const auto deleted = LocateKey(Path(), "user-1", kPage);
  ASSERT_TRUE(deleted);
  EXPECT_EQ(deleted->file, "wal_v5");
  EXPECT_TRUE(deleted->deleted);

  const auto inBlock = LocateKey(Path(), "user-2", kPage);
  ASSERT_TRUE(inBlock);
  EXPECT_EQ(inBlock->file, block_);
  EXPECT_EQ(inBlock->valueSize, 3u);
  EXPECT_EQ(inBlock->timestamp, kForgedTime);

  EXPECT_FALSE(LocateKey(Path(), "user-4", kPage));
}

TEST_F(LocateTest, PrefersTheLastRecordOfTheLogAndTheLastBlockOfTheManifest) {
  Put("wal_v5", ForgedLog({{"k", "first"}, {"k", "second"}}));
  EXPECT_EQ(LocateKey(Path(), "k", kPage)->valueSize, 6u);
  Put("manifest_v5", ForgedManifest({{name_, ""}, {ForgedName('B'), ""}}));
  Put(ForgedName('B') + ".blk_v5", ForgedBlock({{"user-2", "newer"}}));
  EXPECT_EQ(LocateKey(Path(), "user-2", kPage)->file, ForgedName('B') + ".blk_v5");
  EXPECT_EQ(LocateKey(Path(), "user", kPage)->file, block_);
}

TEST_F(LocateTest, TakesNoBlockThatTheManifestDoesNotList) {
  Put("manifest_v5", ForgedManifest({}));
  EXPECT_FALSE(LocateKey(Path(), "user-2", kPage));
}

}  // namespace
}  // namespace Kestrun::Inspect
