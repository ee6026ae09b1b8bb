#include "tests/tools/tool_test.h"

namespace Kestrun {
namespace {

using namespace Testing;

class StreamsTest : public ToolTest {};

TEST_F(StreamsTest, TheLibrarysDiagnosticsGoToStandardErrorWithALineEnd) {
  Put("first", std::string(100, 'x'));
  ASSERT_EQ(Run("remove", {"--yes"}).status, 0);
  ASSERT_EQ(Run("put", {"a", std::string(100, 'x'), "--wal-size", "300"}).status, 0);
  const Ran ran = Run("put", {"b", std::string(100, 'y')});
  EXPECT_EQ(ran.status, 0);
  EXPECT_EQ(ran.out, "");
  EXPECT_EQ(ran.err, "Wal is fullFailed to reserve write space\n");
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

TEST_F(StreamsTest, ProgressShowsOnATerminalOnly) {
  std::string rows;
  for (int i = 0; i < 2000; ++i) rows += "{\"key\":\"k" + std::to_string(i) + "\",\"value\":\"v\"}\n";
  const std::string file = scratch_.PathOf("rows.jsonl");
  WriteFile(file, rows);
  const Ran quiet = Run("import", {file});
  EXPECT_EQ(quiet.err, "");
  EXPECT_EQ(quiet.out, "stored 2000 of 2000 rows\n");
  const Ran shown = RunKestrunOnTerminal({"import", store_, file});
  EXPECT_EQ(shown.status, 0);
  EXPECT_EQ(shown.out, "stored 2000 of 2000 rows\n");
  EXPECT_TRUE(Contains(shown.err, "importing [")) << shown.err;
  EXPECT_TRUE(Contains(shown.err, "%")) << shown.err;
  EXPECT_EQ(shown.err.substr(shown.err.size() - 4), "\r\033[K") << "the bar is removed at the end";
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
