#include "inspect/store_versions.h"

#include <gtest/gtest.h>

#include "tests/inspect/store_fixture.h"

namespace Kestrun::Inspect {
namespace {

using namespace Kestrun::Testing;

class StoreVersionsTest : public ForgedStore {
 protected:
  // "key=value key=-" for the versions in the order of the walk, a tombstone as "-",
  // what can't be read as "?".
  std::string Walk(bool allBlocks = false) {
    std::string why;
    VersionOptions options;
    options.allBlocks = allBlocks;
    const auto versions = StoreVersions::Open(Path(), options, &why);
    if (versions == nullptr) return why;
    std::string text;
    std::string value;
    std::vector<VersionView> group;
    while (versions->NextKey(&group)) {
      for (const VersionView& version : group) {
        const bool read = versions->ReadValue(version, &value);
        text += std::string(version.key) + "=" + (version.deleted ? "-" : read ? value : "?") + " ";
      }
    }
    sources_ = versions->Sources();
    return text;
  }

  std::vector<VersionSource> sources_;
};

TEST_F(StoreVersionsTest, MergesLogAndBlocksNewestFirst) {
  Put("wal_v5", ForgedLog({{"a", "log"}, {"b", "", true}, {"a", "log again"}}, 4096));
  Put(ForgedName('A') + ".blk_v5", ForgedBlock({{"a", "first"}, {"c", "first"}}));
  Put(ForgedName('B') + ".blk_v5", ForgedBlock({{"a", "second"}, {"b", "second"}}));
  Put("manifest_v5",
      ForgedManifest({{ForgedName('A'), ForgedFilter({})}, {ForgedName('B'), ForgedFilter({})}}));
  EXPECT_EQ(Walk(), "a=log again a=log a=second a=first b=- b=second c=first ");
  ASSERT_EQ(sources_.size(), 3u);
  EXPECT_EQ(sources_[0].entries, 2u);
  EXPECT_EQ(sources_[2].entries, 3u);
  EXPECT_TRUE(sources_[2].isLog);
}

TEST_F(StoreVersionsTest, ListedBlocksAreNewerThanOthersOfTheSameSecond) {
  Put("wal_v5", ForgedLog({}, 4096));
  Put(ForgedName('B') + ".blk_v5", ForgedBlock({{"a", "listed last"}, {"b", "listed"}, {"c", "listed"}}));
  Put(ForgedName('A') + ".blk_v5", ForgedBlock({{"a", "listed first"}}));
  // Written to the disk last.
  Put(ForgedName('Z') + ".blk_v5", ForgedBlock({{"b", "left"}, {"c", "left later", false, kForgedTime + 1}}));
  Put("manifest_v5",
      ForgedManifest({{ForgedName('A'), ForgedFilter({})}, {ForgedName('B'), ForgedFilter({})}}));
  EXPECT_EQ(Walk(true), "a=listed last a=listed first b=listed b=left c=left later c=listed ");
}

TEST_F(StoreVersionsTest, SortsABlockWhoseKeysAreOutOfOrder) {
  Put("wal_v5", ForgedLog({}, 4096));
  Put(ForgedName('A') + ".blk_v5", ForgedBlock({{"c", "3"}, {"a", "1"}, {"b", "2"}, {"a", "last"}}));
  Put("manifest_v5", ForgedManifest({{ForgedName('A'), ForgedFilter({})}}));
  EXPECT_EQ(Walk(), "a=last b=2 c=3 ");
  EXPECT_EQ(sources_[0].damage, "its keys are out of order");
}

TEST_F(StoreVersionsTest, ABlockOfAnyPageSizeIsRead) {
  Put("wal_v5", ForgedLog({}, 4096));
  Put(ForgedName('A') + ".blk_v5", ForgedBlock({{"a", "1"}}, 16384));
  Put(ForgedName('B') + ".blk_v5", ForgedBlock({{"b", "2"}}, 65536));
  Put("manifest_v5",
      ForgedManifest({{ForgedName('A'), ForgedFilter({})}, {ForgedName('B'), ForgedFilter({})}}));
  EXPECT_EQ(Walk(), "a=1 b=2 ");
}

TEST_F(StoreVersionsTest, BlocksThatAreNotListedAreLeftUnlessTheyAreAskedForOrNothingDecides) {
  Put("wal_v5", ForgedLog({}, 4096));
  Put(ForgedName('A') + ".blk_v5", ForgedBlock({{"a", "listed", false, kForgedTime}}));
  Put(ForgedName('B') + ".blk_v5", ForgedBlock({{"a", "newer", false, kForgedTime + 9}, {"b", "other"}}));
  const std::string manifest = ForgedManifest({{ForgedName('A'), ForgedFilter({})}});
  Put("manifest_v5", manifest);
  EXPECT_EQ(Walk(), "a=listed ");
  EXPECT_TRUE(sources_[1].left);
  EXPECT_EQ(Walk(true), "a=newer a=listed b=other ");
  Put("manifest_v5", manifest.substr(0, 100));
  EXPECT_EQ(Walk(), "a=newer a=listed b=other ");
}

TEST_F(StoreVersionsTest, CutFilesNeitherCrashNorHideWhatIsBefore) {
  const std::string log = ForgedLog({{"a", "1"}, {"b", "2"}});
  const std::string block = ForgedBlock({{"c", "3"}, {"d", "4"}});
  Put("manifest_v5", ForgedManifest({{ForgedName('A'), ForgedFilter({})}}));
  for (size_t size = 0; size < log.size(); ++size) {
    Put("wal_v5", log.substr(0, size));
    Put(ForgedName('A') + ".blk_v5", block);
    const std::string text = Walk();
    EXPECT_NE(text.find("c=3 d=4 "), std::string::npos) << size;
    EXPECT_EQ(text.find("a=1") != std::string::npos, size >= 128 + 42 && size > 128 + 42 - 1) << size;
  }
  Put("wal_v5", log);
  for (size_t size = 0; size < block.size(); size += 7) {
    Put(ForgedName('A') + ".blk_v5", block.substr(0, size));
    EXPECT_EQ(Walk().substr(0, 8), "a=1 b=2 ") << size;
  }
}

}  // namespace
}  // namespace Kestrun::Inspect
