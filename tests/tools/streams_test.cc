#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "tests/support/child_process.h"
#include "tests/tools/tool_test.h"

namespace Kestrun {
namespace {

using namespace Testing;

class StreamsTest : public ToolTest {};

TEST_F(StreamsTest, TheLibrarySaysNothingByItself) {
  ASSERT_EQ(Run("put", {"a", std::string(100, 'x'), "--log-size", "300"}).status, 0);
  const Ran ran = Run("put", {"b", std::string(100, 'y')});
  EXPECT_EQ(ran.status, 0);
  EXPECT_EQ(ran.out, "");
  EXPECT_EQ(ran.err, "");
}

TEST_F(StreamsTest, QuietTellsErrorsOnlyAndVerboseMore) {
  EXPECT_EQ(Run("import", {"-", "-q"}, "{\"key\":\"a\",\"value\":\"1\"}\n").err, "");
  EXPECT_NE(Run("import", {"-", "--quiet"}, "nonsense\n").err, "");
  EXPECT_TRUE(Contains(Run("put", {"a", "v", "--verbose"}).err, "stored 1 byte under \"a\""));
  EXPECT_EQ(Run("put", {"a", "-q"}).status, 0);
  EXPECT_EQ(Get("a"), "-q") << "in the place of a VALUE it is data";
}

TEST_F(StreamsTest, ErrorsAreJsonWhenAskedFor) {
  const struct {
    std::vector<std::string> arguments;
    int exit;
    const char* status;
  } rows[] = {{{"get", store_, "k", "--json"}, 3, "kStatusStoreMissing"},
              {{"get", store_, "k", "--jsn", "--json"}, 2, nullptr},
              {{"frobnicate", "--json"}, 2, nullptr},
              {{"import", store_, "/no/such/file", "--json"}, 4, nullptr}};
  for (const auto& row : rows) {
    const Ran ran = RunKestrun(row.arguments);
    EXPECT_EQ(ran.status, row.exit);
    EXPECT_EQ(ran.out, "");
    const nlohmann::json error = nlohmann::json::parse(ran.err)["error"];
    EXPECT_EQ(error["exit"], row.exit);
    EXPECT_EQ(error["status"], row.status == nullptr ? nlohmann::json() : nlohmann::json(row.status));
    EXPECT_TRUE(error["message"].is_string());
    EXPECT_TRUE(error["advice"].is_string());
  }
}

TEST_F(StreamsTest, NothingOfAStoreIsWrittenToWhereTheCallerLeftADescriptorClosed) {
  Put("k", "v");
  for (const std::vector<int>& closed : {std::vector<int>{0}, {1}, {2}, {0, 1}, {0, 2}, {1, 2}, {0, 1, 2}}) {
    const Ran ran = RunKestrunWithout(closed, {"put", store_, "k", "v"});
    EXPECT_EQ(ran.status, 0) << ran.err;
  }
  EXPECT_EQ(Get("k"), "v");
  EXPECT_EQ(Run("verify").status, 0);
}

TEST_F(StreamsTest, DataThatCanNotBeWrittenIsAFailure) {
  Put("k", "v");
  const Ran ran = RunKestrunWithout({1}, {"get", store_, "k"});
  EXPECT_EQ(ran.status, 3);
  EXPECT_EQ(ran.err, "kestrun get: standard output is closed\n");
}

TEST_F(StreamsTest, AFullDiskBehindStandardOutputIsAFailure) {
  Put("k", std::string(100000, 'x'));
  const Ran ran = RunKestrunInto("/dev/full", {"get", store_, "k"});
  EXPECT_EQ(ran.status, 3);
  EXPECT_EQ(ran.err, "kestrun get: standard output can't be written: No space left on device\n");
  Put("k", "small");
  EXPECT_EQ(RunKestrunInto("/dev/full", {"get", store_, "k"}).status, 3);
}

// The program reads rows that come slowly enough for it to show how far it is.
TEST_F(StreamsTest, ProgressShowsOnATerminalAndOnlyWhenItTakesAWhile) {
  std::string rows;
  for (int i = 0; i < 2000; ++i) rows += "{\"key\":\"k" + std::to_string(i) + "\",\"value\":\"v\"}\n";
  const std::string file = scratch_.PathOf("rows.jsonl");
  WriteFile(file, rows);
  EXPECT_EQ(Account("import", {file}), "stored 2000 of 2000 rows\n");
  EXPECT_FALSE(Contains(RunKestrunOnTerminal({"import", store_, file, "-q"}).err, "importing"));

  const std::string pipe = scratch_.PathOf("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  ChildProcess writer([&](ChildLink&) {
    FILE* out = std::fopen(pipe.c_str(), "we");
    if (out == nullptr) return 1;
    std::fputs(rows.c_str(), out);
    std::fflush(out);
    usleep(700000);  // longer than the program waits before it shows anything
    std::fputs(rows.c_str(), out);
    return std::fclose(out) == 0 ? 0 : 1;
  });
  const Ran shown = RunKestrunOnTerminal({"import", store_, pipe});
  EXPECT_EQ(writer.Wait(), 0);
  EXPECT_EQ(shown.status, 0) << shown.err;
  EXPECT_TRUE(Contains(shown.err, "importing ")) << shown.err;
  EXPECT_TRUE(Contains(shown.err, " rows\033[K\r\033[Kstored 4000 of 4000 rows"))
      << "the line is removed at the end";
}

TEST_F(StreamsTest, CtrlCSaysWhatIsStoredAndThatItStays) {
  const std::string pipe = scratch_.PathOf("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  RunningKestrun running({"import", store_, pipe});
  FILE* out = std::fopen(pipe.c_str(), "we");
  ASSERT_NE(out, nullptr);
  std::fputs("{\"key\":\"a\",\"value\":\"1\"}\n", out);
  std::fflush(out);
  // The store is made when the first row was read.
  while (access((store_ + "/wal_v5").c_str(), F_OK) != 0) usleep(1000);
  running.Signal(SIGINT);
  const Ran ran = running.Wait();
  std::fclose(out);
  EXPECT_EQ(ran.status, 130) << ran.err;
  EXPECT_TRUE(Contains(ran.err, "interrupted; 1 row is stored and stays; the same import may be run again"))
      << ran.err;
  EXPECT_EQ(Do("scan"), "a  1\n");
}

TEST_F(StreamsTest, NothingFromAStoreReachesTheTerminalAsAControl) {
  Put("k\033[2J", "v\033]0;title\007\nnext");
  const std::string listed = Do("scan");
  EXPECT_EQ(listed, "k\\x1b[2J  v\\x1b]0;title\\x07\\nnext\n");
  EXPECT_FALSE(Contains(Run("get", {"\033[31mred"}).err, "\033"));
  EXPECT_FALSE(Contains(Do("entry", {"k\033[2J"}), "\033"));
  EXPECT_FALSE(Contains(Do("dump"), "\033"));
}

}  // namespace
}  // namespace Kestrun
