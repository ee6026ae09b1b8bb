#include <sys/stat.h>

#include <filesystem>

#include "tests/tools/tool_test.h"

namespace Kestrun {
namespace {

using namespace Testing;

class MaintenanceTest : public ToolTest {
 protected:
  uint64_t Blocks() { return DoJson("stat")["blocks"].size(); }
};

TEST_F(MaintenanceTest, FlushMovesTheLogIntoABlock) {
  Put("a", "1");
  Put("b", "2");
  EXPECT_EQ(Account("flush"), "flushed 2 entries\n");
  EXPECT_EQ(Blocks(), 1u);
  EXPECT_EQ(DoJson("stat")["log"]["entries"], 0);
  EXPECT_EQ(Get("a"), "1");
  EXPECT_EQ(Account("flush"), "the log is empty\n");
  EXPECT_EQ(Do("flush", {"--json"}), "{\"flushed\":0}\n");
  EXPECT_EQ(Blocks(), 1u) << "no block without entries is made";
}

TEST_F(MaintenanceTest, CompactMergesHoweverManyBlocksThereAreAndTakesTheLogAlong) {
  for (const char* round : {"1", "2"}) {
    Put("key", std::string(10000, *round));
    Do("flush");
  }
  ASSERT_EQ(Run("del", {"key"}).status, 0);
  Put("other", "stays");
  const nlohmann::json told = nlohmann::json::parse(Do("compact", {"--json"}));
  EXPECT_EQ(told["before"]["blocks"], 2);
  EXPECT_EQ(told["after"]["blocks"], 1);
  EXPECT_GT(told["before"]["bytes"].get<uint64_t>(), 20000u);
  EXPECT_LT(told["after"]["bytes"].get<uint64_t>(), 10000u);
  EXPECT_EQ(Do("scan"), "other  stays\n");
  EXPECT_EQ(DoJson("stat")["entries"],
            nlohmann::json({{"live", 1}, {"overwritten", 0}, {"deleted", 0}, {"expired", 0}}));
  EXPECT_EQ(DoJson("verify")["sound"], true);
  EXPECT_TRUE(
      Contains(Account("compact"), "before: 1 block, 8268 bytes, 0 entries in the log\nafter:  1 block, "));
}

TEST_F(MaintenanceTest, ClearEmptiesAStoreInPlaceWhenAskedTwice) {
  Put("a", "1");
  Do("flush");
  Put("b", "2");
  const Ran unasked = Run("clear", {}, "y\n");
  EXPECT_EQ(unasked.status, 2);
  EXPECT_TRUE(Contains(unasked.err, "--yes")) << unasked.err;
  EXPECT_EQ(Account("clear", {"--dry-run"}), "would delete 2 entries\n");
  EXPECT_EQ(Do("clear", {"--dry-run", "--json"}), "{\"wouldClear\":2}\n");
  EXPECT_EQ(RunKestrunOnTerminal({"clear", store_}, "no\n").status, 3);
  const Ran json = RunKestrunOnTerminal({"clear", store_, "--json"}, "no\n");
  EXPECT_TRUE(
      Contains(json.err, "{\"error\":{\"exit\":3,\"status\":null,\"message\":\"nothing was deleted\""))
      << json.err;
  EXPECT_EQ(Do("scan"), "a  1\nb  2\n");
  EXPECT_EQ(RunKestrunOnTerminal({"clear", store_}, "yes\n").status, 0);
  EXPECT_EQ(Do("scan"), "");
  EXPECT_EQ(Blocks(), 0u);
  Put("c", "3");
  EXPECT_EQ(Do("scan"), "c  3\n");
  EXPECT_EQ(Do("clear", {"--json", "--yes"}), "{\"cleared\":true}\n");
}

TEST_F(MaintenanceTest, RemoveWantsAYesWhereItCanNotAsk) {
  Put("a", "1");
  const Ran ran = Run("remove", {}, "y\n");
  EXPECT_EQ(ran.status, 2);
  EXPECT_TRUE(Contains(ran.err, "remove the store " + store_)) << ran.err;
  EXPECT_EQ(Get("a"), "1");
  const Ran yes = Run("remove", {"--yes"});
  EXPECT_EQ(yes.status, 0);
  EXPECT_EQ(yes.out, "");
  EXPECT_NE(access(store_.c_str(), F_OK), 0);
}

TEST_F(MaintenanceTest, RemoveAsksOnATerminal) {
  Put("a", "1");
  for (const char* no : {"n\n", "\n", "yeah\n", "\004"}) {
    const Ran ran = RunKestrunOnTerminal({"remove", store_}, no);
    EXPECT_EQ(ran.status, 3) << no;
    EXPECT_TRUE(Contains(ran.err, "remove the store " + store_ + "? [y/N]")) << ran.err;
    EXPECT_TRUE(Contains(ran.err, "nothing was removed")) << ran.err;
    EXPECT_EQ(Get("a"), "1");
  }
  EXPECT_EQ(RunKestrunOnTerminal({"remove", store_}, "y\n").status, 0);
  EXPECT_NE(access(store_.c_str(), F_OK), 0);
}

TEST_F(MaintenanceTest, RemoveLeavesWhatIsNotTheStores) {
  Put("a", "1");
  Do("flush");
  Do("append", {"r", "T n:%i4", "5"});
  WriteFile(store_ + "/notes.txt", "mine");
  WriteFile(store_ + "/copy.blk_v5", "mine, too");
  EXPECT_EQ(Do("remove", {"--yes", "--json"}), "{\"removed\":true,\"directoryRemoved\":false}\n");
  EXPECT_EQ(ReadFile(store_ + "/notes.txt"), "mine");
  EXPECT_EQ(ReadFile(store_ + "/copy.blk_v5"), "mine, too");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(store_), {}), 2);
}

TEST_F(MaintenanceTest, RemoveRefusesWhatCanStillBeRescuedUnlessItIsAskedForPlainly) {
  for (const char* name : {"manifest_v5", "wal_v5"}) {
    Put("a", "1");
    Do("flush");
    ASSERT_EQ(std::remove((store_ + "/" + name).c_str()), 0);
    const Ran ran = Run("remove", {"--yes"});
    EXPECT_EQ(ran.status, 3);
    EXPECT_TRUE(Contains(ran.err, std::string("the store lacks its ") + name + " and has 1 block"))
        << ran.err;
    EXPECT_TRUE(Contains(ran.err, "kestrun recover " + store_ + " NEW")) << ran.err;
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(store_), {}), 2);
    EXPECT_EQ(Account("remove", {"--yes", "--incomplete"}), "removed 2 files and the directory\n");
  }
}

TEST_F(MaintenanceTest, RemoveRefusesASymbolicLinkUntouched) {
  Put("a", "1");
  const std::string link = scratch_.PathOf("link");
  ASSERT_EQ(symlink(store_.c_str(), link.c_str()), 0);
  for (const std::string& path : {link, link + "/"}) {
    const Ran ran = RunKestrun({"remove", path, "--yes"});
    EXPECT_EQ(ran.status, 3);
    EXPECT_TRUE(Contains(ran.err, "is a symbolic link")) << ran.err;
  }
  EXPECT_EQ(Get("a"), "1");
}

TEST_F(MaintenanceTest, ABackupIsACopyAndItsWayBackIsABackup) {
  Put("a", "1");
  Do("flush");
  Do("append", {"r", "T n:%i4", "5"});
  const std::string copy = scratch_.PathOf("copy");
  const std::string entries = Do("scan", {"--json"});
  EXPECT_EQ(Account("backup", {copy}), "copied " + store_ + " to " + copy + "\n");
  Put("b", "later");
  const Ran again = Run("backup", {copy});
  EXPECT_EQ(again.status, 3);
  EXPECT_TRUE(Contains(again.err, "kStatusStoreExists")) << again.err;
  ASSERT_EQ(Run("remove", {"--yes"}).status, 0);
  ASSERT_EQ(RunKestrun({"backup", copy, store_}).status, 0);
  EXPECT_EQ(Do("scan", {"--json"}), entries);
  EXPECT_EQ(DoJson("show", {"r"})["fields"]["n"], 5);
  EXPECT_EQ(Run("backup", {scratch_.PathOf("no/such/copy")}).status, 3);
  EXPECT_EQ(Run("backup", {""}).status, 2);
}

TEST_F(MaintenanceTest, RemoveRefusesADirectoryThatHoldsNoStore) {
  const std::string directory = scratch_.PathOf("precious");
  ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
  WriteFile(directory + "/data", "content");
  const Ran ran = RunKestrun({"remove", directory, "--yes"});
  EXPECT_EQ(ran.status, 3);
  EXPECT_TRUE(Contains(ran.err, "the directory holds no store")) << ran.err;
  EXPECT_EQ(ReadFile(directory + "/data"), "content");
}

}  // namespace
}  // namespace Kestrun
