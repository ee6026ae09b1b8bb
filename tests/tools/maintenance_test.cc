#include <sys/stat.h>

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
  EXPECT_EQ(Do("flush"), "flushed 2 records\n");
  EXPECT_EQ(Blocks(), 1u);
  EXPECT_EQ(DoJson("stat")["log"]["entries"], 0);
  EXPECT_EQ(Get("a"), "1");
  EXPECT_EQ(Do("flush"), "the log is empty\n");
  EXPECT_EQ(Do("flush", {"--json"}), "{\"flushed\":0}\n");
  EXPECT_EQ(Blocks(), 1u) << "no block without entries is made";
}

TEST_F(MaintenanceTest, FlushKeepsKeysThatBlocksCanNotHold) {
  ASSERT_EQ(Run("put", {"\xFFkey", "kept", "--ttl", "1000"}).status, 0);
  Put("a", "1");
  const uint64_t expires = DoJson("entry", {"\xFFkey"})["expires"];
  EXPECT_EQ(Do("flush"), "flushed 2 records\n");
  EXPECT_EQ(Get("\xFFkey"), "kept");
  EXPECT_EQ(DoJson("entry", {"\xFFkey"})["expires"], expires);
  EXPECT_EQ(Get("a"), "1");
}

TEST_F(MaintenanceTest, CompactTellsBlocksAndBytesBeforeAndAfter) {
  for (const char* round : {"1", "2", "3"}) {
    Put("key", std::string(10000, *round));
    Do("flush");
  }
  const Ran three = Run("compact");
  EXPECT_EQ(three.status, 0);
  EXPECT_EQ(three.err, "kestrun: fewer than 4 blocks are not merged\n");
  EXPECT_EQ(Blocks(), 3u);

  ASSERT_EQ(Run("del", {"key"}).status, 0);
  Put("other", "stays");
  Do("flush");
  const std::string out = Do("compact", {"--json"});
  const nlohmann::json told = nlohmann::json::parse(out);
  EXPECT_EQ(told["before"]["blocks"], 4);
  EXPECT_EQ(told["after"]["blocks"], 1);
  EXPECT_GT(told["before"]["bytes"].get<uint64_t>(), 30000u);
  EXPECT_LT(told["after"]["bytes"].get<uint64_t>(), 10000u);
  EXPECT_EQ(Do("scan"), "other  stays\n");
  EXPECT_EQ(DoJson("verify")["sound"], true);
  EXPECT_EQ(Do("compact"), "before: 1 block, 8268 bytes\nafter:  1 block, 8268 bytes\n");
}

TEST_F(MaintenanceTest, ClearEmptiesAStoreInPlace) {
  Put("a", "1");
  Do("flush");
  Put("b", "2");
  const Ran ran = Run("clear");
  EXPECT_EQ(ran.status, 0);
  EXPECT_EQ(ran.out, "");
  EXPECT_EQ(Do("scan"), "");
  EXPECT_EQ(Blocks(), 0u);
  Put("c", "3");
  EXPECT_EQ(Do("scan"), "c  3\n");
  EXPECT_EQ(Do("clear", {"--json"}), "{\"cleared\":true}\n");
}

TEST_F(MaintenanceTest, RemoveWantsAYesWhereItCanNotAsk) {
  Put("a", "1");
  const Ran ran = Run("remove", {}, "y\n");
  EXPECT_EQ(ran.status, 2);
  EXPECT_TRUE(Contains(ran.err, "give --yes to remove " + store_)) << ran.err;
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
    EXPECT_EQ(ran.status, 2) << no;
    EXPECT_TRUE(Contains(ran.err, "Remove the store " + store_ + "? [y/N]")) << ran.err;
    EXPECT_TRUE(Contains(ran.err, "nothing was removed")) << ran.err;
    EXPECT_EQ(Get("a"), "1");
  }
  EXPECT_EQ(RunKestrunOnTerminal({"remove", store_}, "y\n").status, 0);
  EXPECT_NE(access(store_.c_str(), F_OK), 0);
}

TEST_F(MaintenanceTest, RemoveTellsOfFilesThatAreNotTheStores) {
  Put("a", "1");
  WriteFile(store_ + "/notes.txt", "mine");
  const Ran ran = RunKestrunOnTerminal({"remove", store_}, "n\n");
  EXPECT_TRUE(Contains(ran.err, "1 files or directories in it that are not the store's")) << ran.err;
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

TEST_F(MaintenanceTest, RemoveReportsWhatItCanNotRemove) {
  Put("a", "1");
  ASSERT_EQ(symlink("/nowhere", (store_ + "/link").c_str()), 0);
  const Ran ran = Run("remove", {"--yes"});
  EXPECT_EQ(ran.status, 3);
  EXPECT_TRUE(Contains(ran.err, "kStatusOpenFailed")) << ran.err;
}

}  // namespace
}  // namespace Kestrun
