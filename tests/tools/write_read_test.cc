#include <sys/stat.h>

#include <filesystem>
#include <set>

#include "tests/inspect/forged_files.h"
#include "tests/tools/tool_test.h"

namespace Kestrun {
namespace {

using namespace Testing;

class WriteReadTest : public ToolTest {
 protected:
  std::set<std::string> Names(const std::string& directory) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) names.insert(entry.path());
    return names;
  }
};

TEST_F(WriteReadTest, PutStoresAndGetWritesTheBytesAsTheyAre) {
  const Ran put = Run("put", {"seattle", "rain"});
  EXPECT_EQ(put.status, 0);
  EXPECT_EQ(put.out, "");
  EXPECT_EQ(put.err, "");
  const Ran get = Run("get", {"seattle"});
  EXPECT_EQ(get.status, 0);
  EXPECT_EQ(get.out, "rain");
  EXPECT_EQ(get.err, "");
}

TEST_F(WriteReadTest, PutReadsStandardInputForALoneDashAndForNothing) {
  const std::string bytes("with\0a NUL, a line end\nand \xFF", 28);
  EXPECT_EQ(Run("put", {"a", "-"}, bytes).status, 0);
  EXPECT_EQ(Get("a"), bytes);
  EXPECT_EQ(Run("put", {"b"}, bytes).status, 0);
  EXPECT_EQ(Get("b"), bytes);
  EXPECT_EQ(Run("put", {"c"}, "").status, 0);
  EXPECT_EQ(Get("c"), "");
}

TEST_F(WriteReadTest, AValueMayLookLikeAnything) {
  for (const std::string value :
       {"-x", "--", "-3.5", "-h", "--unknown", "[a,b]", "{}", "a=b", "\"q\"", "get"}) {
    const std::vector<std::string> arguments =
        value == "--" ? std::vector<std::string>{"k", "--", value} : std::vector<std::string>{"k", value};
    EXPECT_EQ(Run("put", arguments).status, 0) << value;
    EXPECT_EQ(Get("k"), value);
  }
  EXPECT_EQ(Run("put", {"k", "--", "--json"}).status, 0);
  EXPECT_EQ(Get("k"), "--json");
}

TEST_F(WriteReadTest, AKeyMayLookLikeAnything) {
  for (const std::string key : {"-abc", "[a,b]", "put", "-", "a b", "\xFE\x80"}) {
    EXPECT_EQ(Run("put", {key, "v-" + key}).status, 0) << key;
    EXPECT_EQ(Get(key), "v-" + key);
  }
  EXPECT_EQ(Run("put", {"--", "--key", "dashes"}).status, 0);
  EXPECT_EQ(Do("get", {"--", "--key"}), "dashes");
}

TEST_F(WriteReadTest, AnEmptyValueIsAValue) {
  EXPECT_EQ(Run("put", {"empty", ""}, "not read").status, 0);
  const Ran get = Run("get", {"empty"});
  EXPECT_EQ(get.status, 0);
  EXPECT_EQ(get.out, "");
  EXPECT_EQ(Run("contains", {"empty"}).status, 0);
  EXPECT_EQ(DoJson("entry", {"empty"})["valueSize"], 0);
  EXPECT_EQ(Account("flush"), "flushed 1 entry\n");
  EXPECT_EQ(Run("get", {"empty"}).status, 0) << "in a block too";
}

TEST_F(WriteReadTest, GetWritesHexadecimalAndJson) {
  Put("text", "\xC3\xA9\"\n");
  Put("bytes", "\xFF\x01");
  EXPECT_EQ(Do("get", {"6279746573", "--hex"}), "ff01\n");
  EXPECT_EQ(Run("get", {"bytes", "--hex"}).status, 2) << "KEY is in hexadecimal digits, too";
  EXPECT_EQ(Do("get", {"text", "--json"}), "{\"key\":\"text\",\"value\":\"\xC3\xA9\\\"\\n\"}\n");
  EXPECT_EQ(Do("get", {"--json", "bytes"}), "{\"key\":\"bytes\",\"value\":{\"hex\":\"ff01\"}}\n");
}

TEST_F(WriteReadTest, MissingAndDeletedKeysAreNotFound) {
  Put("there", "v");
  ASSERT_EQ(Run("del", {"there"}).status, 0);
  for (const char* key : {"there", "never"}) {
    for (const char* command : {"get", "show"}) {
      const Ran ran = Run(command, {key});
      EXPECT_EQ(ran.status, 1) << command << " " << key;
      EXPECT_EQ(ran.out, "") << command << " " << key;
    }
    EXPECT_EQ(Run("contains", {key}).status, 1);
    EXPECT_EQ(Run("contains", {key}).out, "no\n");
    EXPECT_EQ(Run("entry", {key}).status, 1);
  }
  EXPECT_EQ(Run("get", {"never"}).err, "kestrun get: key \"never\" is not in the store\n");
  EXPECT_EQ(Run("entry", {"never", "--json"}).out, "{\"key\":\"never\",\"state\":\"missing\"}\n");
  EXPECT_EQ(Account("flush"), "flushed 1 entry\n");
  EXPECT_EQ(Run("get", {"there"}).err, "kestrun get: key \"there\" is deleted\n");
  EXPECT_EQ(Run("contains", {"there"}).status, 1);
}

TEST_F(WriteReadTest, DeletingWhatIsNotThereSucceeds) {
  Put("k", "v");
  const Ran ran = Run("del", {"other"});
  EXPECT_EQ(ran.status, 0);
  EXPECT_EQ(ran.out, "");
  EXPECT_EQ(Do("del", {"k", "--json"}), "{\"key\":\"k\",\"deleted\":true}\n");
}

TEST_F(WriteReadTest, AnExpiredKeyIsNotFoundInTheLogAndInABlock) {
  Put("make", "a store");
  WriteFile(store_ + "/wal_v5", ForgedLog({{"over", "old", false, kForgedTime, 10}, {"lives", "yes"}}, 4096));
  WriteFile(store_ + "/" + ForgedName('A') + ".blk_v5",
            ForgedBlock({{"blocked", "old", false, kForgedTime, 10}}));
  WriteFile(store_ + "/manifest_v5", ForgedManifest({{ForgedName('A'), ForgedFilter({"blocked"})}}));
  for (const char* key : {"over", "blocked"}) {
    const Ran get = Run("get", {key});
    EXPECT_EQ(get.status, 1);
    EXPECT_EQ(get.out, "");
    EXPECT_EQ(get.err, std::string("kestrun get: key \"") + key + "\" has expired\n");
    EXPECT_EQ(Run("contains", {key}).status, 1);
    const Ran entry = Run("entry", {key, "--json"});
    EXPECT_EQ(entry.status, 1);
    EXPECT_EQ(nlohmann::json::parse(entry.out)["state"], "expired");
  }
  EXPECT_EQ(Get("lives"), "yes");
  EXPECT_EQ(Do("scan", {"--json"}), "{\"key\":\"lives\",\"value\":\"yes\"}\n");
}

TEST_F(WriteReadTest, EntryTellsWhereWhenAndForHowLong) {
  EXPECT_EQ(Run("put", {"k", "value", "--ttl", "3600"}).status, 0);
  const nlohmann::json inLog = DoJson("entry", {"k"});
  EXPECT_EQ(inLog["state"], "live");
  EXPECT_EQ(inLog["file"], "wal_v5");
  EXPECT_EQ(inLog["valueOffset"], 128 + 40 + 1);
  EXPECT_EQ(inLog["valueSize"], 5);
  EXPECT_EQ(inLog["ttl"], 3600);
  EXPECT_EQ(inLog["expires"].get<uint64_t>(), inLog["timestamp"].get<uint64_t>() + 3600);
  EXPECT_EQ(Account("flush"), "flushed 1 entry\n");
  const nlohmann::json inBlock = DoJson("entry", {"k"});
  EXPECT_TRUE(Contains(inBlock["file"], ".blk_v5"));
  EXPECT_EQ(inBlock["valueOffset"], 156);
  EXPECT_EQ(inBlock["timestamp"], inLog["timestamp"]);
  EXPECT_TRUE(Contains(Do("entry", {"k"}), "time to live   3600 s\n"));

  EXPECT_EQ(Run("del", {"k"}).status, 0);
  const Ran deleted = Run("entry", {"k", "--json"});
  EXPECT_EQ(deleted.status, 1);
  EXPECT_EQ(nlohmann::json::parse(deleted.out)["state"], "deleted");
}

TEST_F(WriteReadTest, ContainsTellsByWordAndByStatus) {
  Put("k", "v");
  EXPECT_EQ(Do("contains", {"k"}), "yes\n");
  EXPECT_EQ(Do("contains", {"k", "--json"}), "{\"key\":\"k\",\"contained\":true}\n");
  EXPECT_EQ(Run("contains", {"x", "--json"}).out, "{\"key\":\"x\",\"contained\":false}\n");
}

TEST_F(WriteReadTest, TimesToLiveGoFromNothingToTheLargestNumber) {
  EXPECT_EQ(DoJson("put", {"k", "v"})["ttl"], 4294967295u);
  EXPECT_EQ(DoJson("entry", {"k"})["ttl"], 4294967295u);
  EXPECT_EQ(Run("put", {"k", "v", "--ttl=4294967295"}).status, 0);
  const struct {
    const char* given;
    uint32_t seconds;
  } rows[] = {{"90", 90}, {"90s", 90}, {"2m", 120}, {"1h", 3600}, {"7d", 604800}, {"forever", 4294967295u}};
  for (const auto& row : rows) {
    EXPECT_EQ(DoJson("put", {"k", "v", "--ttl", row.given})["ttl"], row.seconds);
    EXPECT_EQ(DoJson("entry", {"k"})["ttl"], row.seconds);
  }
  for (const char* ttl :
       {"0", "4294967296", "0h", "49711d", "5x", "-1", "1.5", "", "x", "0x10", "99999999999999999999"}) {
    const Ran ran = Run("put", {"k", "v", "--ttl", ttl});
    EXPECT_EQ(ran.status, 2) << ttl;
    EXPECT_TRUE(Contains(ran.err, "--ttl takes a time from 1 second to forever")) << ran.err;
  }
}

TEST_F(WriteReadTest, KeysHaveOneTo65535Bytes) {
  const std::string longest(65535, 'k');
  EXPECT_EQ(Run("put", {longest, "v"}).status, 0);
  EXPECT_EQ(Get(longest), "v");
  for (const char* command : {"put", "get", "del", "contains", "entry", "show"}) {
    const Ran tooLong = Run(command, {longest + "k"});
    EXPECT_EQ(tooLong.status, 2) << command;
    EXPECT_TRUE(Contains(tooLong.err, "KEY has 65536 bytes; a key has at most 65535")) << tooLong.err;
    const Ran empty = Run(command, {""});
    EXPECT_EQ(empty.status, 2) << command;
    EXPECT_TRUE(Contains(empty.err, "KEY can't be empty")) << empty.err;
  }
}

TEST_F(WriteReadTest, AKeyThatNoStoreCanHoldIsRefused) {
  for (const char* command : {"put", "get", "del", "contains", "entry", "show"}) {
    const Ran ran = Run(command, {"\xFFk"}, "v");
    EXPECT_EQ(ran.status, 2) << command;
    EXPECT_TRUE(Contains(ran.err, "begins with the byte 0xFF")) << ran.err;
  }
}

TEST_F(WriteReadTest, HexGoesInAndOut) {
  EXPECT_EQ(Do("put", {"00ff", "0180", "--hex", "--json"}),
            "{\"key\":{\"hex\":\"00ff\"},\"valueSize\":2,\"ttl\":4294967295}\n");
  EXPECT_EQ(Do("get", {"00FF", "--hex"}), "0180\n");
  EXPECT_EQ(Do("get", {"00ff", "--hex", "--json"}),
            "{\"key\":{\"hex\":\"00ff\"},\"value\":{\"hex\":\"0180\"}}\n");
  EXPECT_EQ(Run("put", {"01", "--hex"}, "6162\n").status, 0);
  EXPECT_EQ(Do("get", {"01", "--hex"}), "6162\n");
  EXPECT_EQ(Run("put", {"01", "--hex"}, "no digits").status, 4);
  EXPECT_EQ(Run("put", {"0", "00", "--hex"}).status, 2);
  EXPECT_EQ(Run("put", {"00", "0g", "--hex"}).status, 2);
  EXPECT_EQ(Do("contains", {"01", "--hex"}), "yes\n");
  EXPECT_TRUE(Contains(Do("entry", {"00ff", "--hex"}), "key            00ff\n"));
  EXPECT_EQ(Do("del", {"01", "--hex", "--json"}), "{\"key\":{\"hex\":\"01\"},\"deleted\":true}\n");
}

TEST_F(WriteReadTest, AClosedStandardInputIsAnErrorAndNoEmptyValue) {
  const Ran ran = RunKestrunWithout({0}, {"put", store_, "k"});
  EXPECT_EQ(ran.status, 4);
  EXPECT_TRUE(Contains(ran.err, "standard input is closed")) << ran.err;
  EXPECT_NE(access(store_.c_str(), F_OK), 0);
}

TEST_F(WriteReadTest, WaitingOnATerminalIsTold) {
  const Ran ran = RunKestrunOnTerminal({"put", store_, "k"}, "typed\n\004");
  EXPECT_EQ(ran.status, 0);
  EXPECT_TRUE(Contains(ran.err, "reading standard input; Ctrl-D ends it")) << ran.err;
  EXPECT_EQ(Get("k"), "typed\n");
}

TEST_F(WriteReadTest, PutRefusesADirectoryOfOthersAndPartOfAStore) {
  const std::string others = scratch_.PathOf("others");
  ASSERT_EQ(mkdir(others.c_str(), 0700), 0);
  WriteFile(others + "/data", "precious");
  Put("k", "v");
  Do("flush");
  ASSERT_EQ(std::remove((store_ + "/manifest_v5").c_str()), 0);
  const std::vector<std::vector<std::string>> commands = {
      {"put", "k", "v"}, {"append", "k", "T n:%i4", "1"}, {"import", "-"}};
  for (const std::string& path : {others, store_}) {
    const auto before = Names(path);
    for (const auto& command : commands) {
      std::vector<std::string> line = {command.front(), path};
      line.insert(line.end(), command.begin() + 1, command.end());
      const Ran ran = RunKestrun(line, "{\"key\":\"k\",\"value\":\"v\"}\n");
      EXPECT_EQ(ran.status, 3) << command.front() << path;
      EXPECT_TRUE(Contains(ran.err, "kStatusNotAStore")) << ran.err;
      EXPECT_EQ(Names(path), before);
    }
  }
}

}  // namespace
}  // namespace Kestrun
