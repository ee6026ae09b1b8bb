#include "inspect/store_stat.h"

#include "tests/inspect/store_fixture.h"

namespace Kestrun::Inspect {
namespace {

using namespace Kestrun::Testing;

class StoreStatTest : public ForgedStore {
 protected:
  StoreStat Stat() {
    StoreStat stat;
    std::string why;
    EXPECT_TRUE(CollectStat(Path(), kPage, kNow, &stat, &why)) << why;
    return stat;
  }
};

TEST_F(StoreStatTest, CountsWhatTheFilesHold) {
  const StoreStat stat = Stat();
  EXPECT_TRUE(stat.log.present);
  EXPECT_EQ(stat.log.fileSize, 1024u);
  EXPECT_EQ(stat.log.used, 128u + 56 + 46);
  EXPECT_EQ(stat.log.counts.entries, 2u);
  EXPECT_EQ(stat.log.counts.deletions, 1u);
  EXPECT_EQ(stat.log.counts.valueBytes, 10u);
  EXPECT_EQ(stat.log.damage, "");
  EXPECT_EQ(stat.generation, 1u);
  ASSERT_EQ(stat.blocks.size(), 1u);
  EXPECT_EQ(stat.blocks[0].name, name_);
  EXPECT_TRUE(stat.blocks[0].listed);
  EXPECT_EQ(stat.blocks[0].counts.entries, 3u);
  EXPECT_EQ(stat.blocks[0].fileSize, Bytes(block_).size());
  EXPECT_EQ(stat.blocks[0].damage, "");
  EXPECT_EQ(stat.recordTypes, 1u);
  EXPECT_EQ(stat.ListedBlocks(), 1u);
  uint64_t all = 0;
  for (const auto& [name, bytes] : files_) all += bytes.size();
  EXPECT_EQ(stat.totalBytes, all);
}

TEST_F(StoreStatTest, TellsTimesAndWhatHasExpired) {
  Put("wal_v5",
      ForgedLog({{"a", "1", false, kForgedTime - 50, 149}, {"b", "2", false, kForgedTime + 7, 93}}));
  const StoreStat stat = Stat();
  EXPECT_EQ(stat.log.counts.oldest, kForgedTime - 50);
  EXPECT_EQ(stat.log.counts.newest, kForgedTime + 7);
  EXPECT_EQ(stat.log.counts.expired, 1u) << "an entry lives through the second in which its time ends";
}

TEST_F(StoreStatTest, ListsBlocksThatOnlyTheManifestOrOnlyTheDirectoryHas) {
  Put("manifest_v5", ForgedManifest({{ForgedName('B'), ForgedFilter({})}, {name_, ForgedFilter({})}}));
  Put(ForgedName('C') + ".blk_v5", ForgedBlock({}));
  const StoreStat stat = Stat();
  ASSERT_EQ(stat.blocks.size(), 3u);
  EXPECT_EQ(stat.blocks[0].name, ForgedName('B'));
  EXPECT_FALSE(stat.blocks[0].present);
  EXPECT_NE(stat.blocks[0].damage, "");
  EXPECT_TRUE(stat.blocks[1].present);
  EXPECT_FALSE(stat.blocks[2].listed);
  EXPECT_EQ(stat.ListedBlocks(), 2u);
}

TEST_F(StoreStatTest, TellsWhatIsDamagedAndGoesOn) {
  std::string log = Bytes("wal_v5");
  log[130] = static_cast<char>(log[130] ^ 1);
  Put("wal_v5", log);
  std::string block = Bytes(block_);
  block[8192 + 28 + 48] = static_cast<char>(block[8192 + 28 + 48] ^ 1);
  Put(block_, block);
  const StoreStat stat = Stat();
  EXPECT_EQ(stat.log.damage, "unreadable from offset 128");
  EXPECT_EQ(stat.blocks[0].damage, "entry 1 is damaged");
  EXPECT_EQ(stat.blocks[0].counts.entries, 1u);
}

TEST_F(StoreStatTest, NeedsADirectoryWithALogOrAManifest) {
  StoreStat stat;
  std::string why;
  EXPECT_FALSE(CollectStat(scratch_.PathOf("missing"), kPage, kNow, &stat, &why));
  EXPECT_EQ(why, "No such file or directory");
  EXPECT_FALSE(CollectStat(ScratchDirectory().Path(), kPage, kNow, &stat, &why));
  EXPECT_EQ(why, "the directory holds neither a log nor a manifest");
  Remove("wal_v5");
  EXPECT_FALSE(Stat().log.present);
}

}  // namespace
}  // namespace Kestrun::Inspect
