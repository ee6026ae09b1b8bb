#include <dirent.h>
#include <sys/stat.h>

#include "tests/tools/tool_test.h"

namespace Kestrun {
namespace {

using namespace Testing;

class UsageTest : public ToolTest {};

TEST_F(UsageTest, WrongCommandLinesGiveTwoAndSayWhatWouldBeRight) {
  const struct {
    std::vector<std::string> arguments;
    const char* says;
  } rows[] = {
      {{}, "usage: kestrun COMMAND STORE"},
      {{"frobnicate"}, "there is no command \"frobnicate\""},
      {{"--frobnicate"}, "there is no command \"--frobnicate\""},
      {{"put"}, "usage: kestrun put STORE KEY [VALUE] [OPTIONS]"},
      {{"scn", "s"}, "did you mean scan?"},
      {{"expor", "s"}, "did you mean export?"},
      {{"scan", "s", "--limt", "3"}, "did you mean --limit?"},
      {{"help", "imprt"}, "did you mean import?"},
      {{"watch", "s", "--interval", "x"}, "--interval takes a time"},
      {{"scan", "s", "--json=yes"}, "--json takes no value"},
      {{"get", "s"}, "usage: kestrun get STORE KEY [OPTIONS]"},
      {{"get", "s", "k", "l"}, "one argument too many: \"l\""},
      {{"get", "s", "k", "--hexx"}, "there is no option --hexx"},
      {{"put", "s", "k", "v", "--tl", "5"}, "there is no option --tl"},
      {{"put", "s", "k", "v", "--ttl"}, "--ttl needs a value"},
      {{"scan", "s", "--limit", "-1"}, "--limit takes a whole number"},
      {{"scan", "s", "--to", ""}, "--to can't be empty"},
      {{"append", "s", "k", "T a:%s"}, "usage: kestrun append STORE KEY FORMAT VALUE..."},
      {{"del-range", "s", "a"}, "usage: kestrun del-range STORE FROM TO"},
      {{"import", "s", "f", "--format", "xml"}, "--format takes csv, tsv, jsonl, json or sqlite"},
      {{"stat", "s", "--page-size", "1000"}, "--page-size takes a power of two"},
      {{"put", "", "k", "v"}, "STORE is the directory of a store and can't be empty"},
  };
  for (const auto& row : rows) {
    const Ran ran = RunKestrun(row.arguments);
    EXPECT_EQ(ran.status, 2) << row.says;
    EXPECT_EQ(ran.out, "") << row.says;
    EXPECT_TRUE(Contains(ran.err, row.says)) << ran.err;
    EXPECT_TRUE(Contains(ran.err, "usage: kestrun ")) << ran.err;
    EXPECT_EQ(ran.err.back(), '\n');
  }
}

TEST_F(UsageTest, HelpAndVersionAreData) {
  for (const std::vector<std::string>& line :
       {std::vector<std::string>{"--help"}, {"-h"}, {"put", "--help"}, {"put", "-h"}, {"--version"}}) {
    const Ran ran = RunKestrun(line);
    EXPECT_EQ(ran.status, 0) << line.front();
    EXPECT_EQ(ran.err, "");
    EXPECT_TRUE(Contains(ran.out, "estrun")) << ran.out;
  }
  const std::string help = RunKestrun({"--help"}).out;
  for (const char* command :
       {"put",    "get",     "del",    "del-range", "contains", "entry",   "scan",  "append",
        "show",   "types",   "import", "export",    "flush",    "compact", "clear", "remove",
        "backup", "recover", "stat",   "verify",    "dump",     "watch",   "bench", "help"}) {
    EXPECT_TRUE(Contains(help, std::string("  ") + command + " ")) << command;
    const Ran own = RunKestrun({command, "--help"});
    EXPECT_EQ(own.status, 0) << command;
    EXPECT_TRUE(Contains(own.out, std::string("Examples:\n  kestrun ") + command)) << own.out;
    EXPECT_EQ(RunKestrun({"help", command}).out, own.out);
  }
}

TEST_F(UsageTest, NoReadOrChangeMakesAStore) {
  const std::vector<std::vector<std::string>> commands = {{"get", "k"},
                                                          {"contains", "k"},
                                                          {"entry", "k"},
                                                          {"del", "k"},
                                                          {"del-range", "a", "b", "--yes"},
                                                          {"scan"},
                                                          {"show", "k"},
                                                          {"types"},
                                                          {"export"},
                                                          {"flush"},
                                                          {"compact"},
                                                          {"clear", "--yes"},
                                                          {"stat"},
                                                          {"verify"},
                                                          {"dump"},
                                                          {"watch", "--count", "1"},
                                                          {"backup", "new"},
                                                          {"recover", "new"},
                                                          {"remove", "--yes"}};
  const std::string empty = scratch_.PathOf("empty");
  ASSERT_EQ(mkdir(empty.c_str(), 0700), 0);
  const std::string file = scratch_.PathOf("file");
  WriteFile(file, "content");
  for (const auto& command : commands) {
    for (const std::string& path : {store_, empty, file}) {
      if (command.front() == "dump" && path == file) continue;  // it shows any file
      std::vector<std::string> line = {command.front(), path};
      line.insert(line.end(), command.begin() + 1, command.end());
      const Ran ran = RunKestrun(line);
      EXPECT_EQ(ran.status, 3) << command.front() << " " << path << ran.err;
      EXPECT_EQ(ran.out, "") << command.front();
      const char* status =
          path == file ? "status 4 (kStatusNotAStore): " : "status 5 (kStatusStoreMissing): ";
      EXPECT_TRUE(Contains(ran.err, status)) << ran.err;
    }
  }
  EXPECT_NE(access(store_.c_str(), F_OK), 0);
  DIR* stream = opendir(empty.c_str());
  int entries = 0;
  while (readdir(stream) != nullptr) ++entries;
  closedir(stream);
  EXPECT_EQ(entries, 2) << "nothing but . and ..";
  EXPECT_EQ(ReadFile(file), "content");
}

TEST_F(UsageTest, AStoreWithoutItsLogOrManifestIsNotMadeAnew) {
  Put("k", "v");
  ASSERT_EQ(std::remove((store_ + "/manifest_v5").c_str()), 0);
  const Ran ran = Run("get", {"k"});
  EXPECT_EQ(ran.status, 3);
  EXPECT_TRUE(Contains(ran.err, "kStatusNotAStore")) << ran.err;
  EXPECT_TRUE(Contains(ran.err, "kestrun recover")) << ran.err;
  EXPECT_NE(access((store_ + "/manifest_v5").c_str(), F_OK), 0);
  EXPECT_EQ(Run("verify").status, 1);
}

TEST_F(UsageTest, ARefusalNamesTheStatusAndWhatToDo) {
  Put("k", "v");
  std::string log = ReadFile(store_ + "/wal_v5");
  log[16] = static_cast<char>(log[16] ^ 1);
  WriteFile(store_ + "/wal_v5", log);
  const Ran ran = Run("get", {"k"});
  EXPECT_EQ(ran.status, 3);
  EXPECT_EQ(ran.out, "");
  EXPECT_TRUE(Contains(ran.err, "status 2818 (kStatusWalChecksum): the log's header fails its checksum"))
      << ran.err;
  EXPECT_TRUE(Contains(ran.err, "'kestrun recover STORE NEW' makes a new store")) << ran.err;
  EXPECT_EQ(ReadFile(store_ + "/wal_v5"), log);
}

TEST_F(UsageTest, AStoreInAMissingDirectoryIsRefused) {
  const Ran ran = RunKestrun({"put", scratch_.PathOf("no/such/parent"), "k", "v"});
  EXPECT_EQ(ran.status, 3);
  EXPECT_EQ(ran.out, "");
  EXPECT_TRUE(Contains(ran.err, "No such file or directory")) << ran.err;
  EXPECT_TRUE(Contains(ran.err, "status 4355 (kStatusDirectoryFailed)")) << ran.err;
}

}  // namespace
}  // namespace Kestrun
