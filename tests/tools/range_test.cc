#include "tests/inspect/forged_files.h"
#include "tests/tools/tool_test.h"

namespace Kestrun {
namespace {

using namespace Testing;

class RangeTest : public ToolTest {
 protected:
  // The keys of a scan, with blanks between.
  std::string Keys(std::vector<std::string> arguments = {}) {
    arguments.emplace_back("--keys-only");
    std::string keys = Do("scan", arguments);
    for (char& letter : keys) {
      if (letter == '\n') letter = ' ';
    }
    return keys;
  }
  void PutAll(const std::vector<std::string>& keys) {
    for (const std::string& key : keys) Put(key, "value of " + key);
  }
  void Flush() { Do("flush"); }
};

TEST_F(RangeTest, ScanListsLiveEntriesSortedAndOnce) {
  PutAll({"b", "a", "d"});
  Flush();
  PutAll({"c", "a", "e"});
  Flush();
  Put("a", "newest");
  ASSERT_EQ(Run("del", {"d"}).status, 0);
  EXPECT_EQ(Do("scan"),
            "a  newest\n"
            "b  value of b\n"
            "c  value of c\n"
            "e  value of e\n");
  EXPECT_EQ(Run("scan").err, "");
}

TEST_F(RangeTest, ScanWritesJsonLinesWithHexForOtherBytes) {
  Put("text", "\xC3\xA9");
  Put("\xFE", "\x80");
  EXPECT_EQ(Do("scan", {"--json"}),
            "{\"key\":\"text\",\"value\":\"\xC3\xA9\"}\n"
            "{\"key\":{\"hex\":\"fe\"},\"value\":{\"hex\":\"80\"}}\n");
  EXPECT_EQ(Do("scan", {"--json", "--keys-only"}), "{\"key\":\"text\"}\n{\"key\":{\"hex\":\"fe\"}}\n");
}

TEST_F(RangeTest, FromBelongsToTheRangeAndToDoesNot) {
  PutAll({"a", "b", "c", "d"});
  EXPECT_EQ(Keys({"--from", "b", "--to", "d"}), "b c ");
  EXPECT_EQ(Keys({"--from", "b"}), "b c d ");
  EXPECT_EQ(Keys({"--to", "b"}), "a ");
  EXPECT_EQ(Keys({"--from", "b", "--to", "b"}), "");
  const Ran reversed = Run("scan", {"--from", "c", "--to", "a"});
  EXPECT_EQ(reversed.status, 2);
  EXPECT_TRUE(Contains(reversed.err, "reversed")) << reversed.err;
  EXPECT_EQ(Keys({"--from="}), "a b c d ");
  EXPECT_EQ(Keys({"--from", "aa", "--to", "bb"}), "b ");
}

TEST_F(RangeTest, LimitCountsLiveEntries) {
  PutAll({"a", "b", "c", "d"});
  ASSERT_EQ(Run("del", {"a"}).status, 0);
  EXPECT_EQ(Keys({"--limit", "2"}), "b c ");
  EXPECT_EQ(Keys({"--limit", "9"}), "b c d ");
  EXPECT_EQ(Keys({"--limit", "0"}), "");
  EXPECT_EQ(Keys({"--prefix", "c", "--limit", "0"}), "");
}

TEST_F(RangeTest, APrefixFindsItsKeysInEveryBlock) {
  PutAll({"user-1", "user"});
  Flush();
  PutAll({"user-2", "user-x-1"});
  Flush();
  PutAll({"user-3", "users", "usa", "v"});
  Flush();
  PutAll({"user-4", "user."});
  EXPECT_EQ(Keys({"--prefix", "user-"}), "user-1 user-2 user-3 user-4 user-x-1 ");
  EXPECT_EQ(Keys({"--prefix", "user"}), "user user-1 user-2 user-3 user-4 user-x-1 user. users ");
  EXPECT_EQ(Keys({"--prefix", "user-x"}), "user-x-1 ");
  EXPECT_EQ(Keys({"--prefix", "u", "--from", "user-3", "--to", "users"}), "user-3 user-4 user-x-1 user. ");
  EXPECT_EQ(Keys({"--prefix", "user-1", "--from", "a"}), "user-1 ");
  EXPECT_EQ(Keys({"--prefix", "w"}), "");
  EXPECT_EQ(Keys({"--prefix", ""}), Keys());
}

TEST_F(RangeTest, BoundsOfOnePrimaryLeaveOutNothing) {
  PutAll({"user-1", "user-3"});
  Flush();
  PutAll({"user-2-a"});
  Flush();
  PutAll({"user-2.5-b"});
  Flush();
  PutAll({"user-2-z"});
  EXPECT_EQ(Keys({"--from", "user-1", "--to", "user-9"}), "user-1 user-2-a user-2-z user-2.5-b user-3 ");
  EXPECT_EQ(Account("del-range", {"user-1", "user-3", "--yes"}), "deleted 4 keys\n");
  EXPECT_EQ(Keys(), "user-3 ");
}

TEST_F(RangeTest, HexGoesInAndOut) {
  Do("put", {"00fe", "01", "--hex"});
  Put("b", "text");
  EXPECT_EQ(Do("scan", {"--hex"}), "00fe  01\n62    74657874\n");
  EXPECT_EQ(Do("scan", {"--hex", "--prefix", "00"}), "00fe  01\n");
  EXPECT_EQ(Do("scan", {"--hex", "--from", "01", "--to", "63", "--keys-only"}), "62\n");
  EXPECT_EQ(Do("scan", {"--hex", "--json"}),
            "{\"key\":{\"hex\":\"00fe\"},\"value\":{\"hex\":\"01\"}}\n"
            "{\"key\":{\"hex\":\"62\"},\"value\":{\"hex\":\"74657874\"}}\n");
  EXPECT_EQ(Run("scan", {"--hex", "--from", "0"}).status, 2);
  EXPECT_EQ(Account("del-range", {"00", "01", "--hex", "--yes"}), "deleted 1 key\n");
}

TEST_F(RangeTest, NulAndOtherSmallBytesAreListedToo) {
  Put("make", "a store");
  WriteFile(store_ + "/wal_v5",
            ForgedLog({{std::string("\0", 1), "1"}, {std::string("\0\0", 2), "2"}, {"\x01", "3"}}));
  EXPECT_EQ(Keys(), "\\x00 \\x00\\x00 \\x01 ");
}

TEST_F(RangeTest, DelRangeDeletesWhatIsThereAndTellsHowMany) {
  PutAll({"a", "b", "c"});
  Flush();
  PutAll({"b", "d"});
  const Ran unasked = Run("del-range", {"b", "d"}, "y\n");
  EXPECT_EQ(unasked.status, 2);
  EXPECT_TRUE(Contains(unasked.err, "--yes")) << unasked.err;
  EXPECT_EQ(Account("del-range", {"b", "d", "--dry-run"}), "would delete 2 keys\n");
  EXPECT_EQ(Do("del-range", {"b", "d", "--dry-run", "--json"}), "{\"wouldDelete\":2}\n");
  EXPECT_EQ(Keys(), "a b c d ");
  EXPECT_EQ(RunKestrunOnTerminal({"del-range", store_, "b", "d"}, "n\n").status, 3);
  EXPECT_EQ(Keys(), "a b c d ");
  EXPECT_EQ(Account("del-range", {"b", "d", "--yes"}), "deleted 2 keys\n");
  EXPECT_EQ(Keys(), "a d ");
  EXPECT_EQ(Do("del-range", {"b", "d", "--json", "--yes"}), "{\"deleted\":0}\n");
  EXPECT_EQ(Account("del-range", {"a", "a", "--yes"}), "deleted 0 keys\n");
  Flush();
  EXPECT_EQ(Keys(), "a d ") << "the deletions are flushed with the rest";
  EXPECT_EQ(Run("del-range", {"", "b"}).status, 2);
  EXPECT_EQ(Run("del-range", {"a", ""}).status, 2);
  EXPECT_EQ(Run("del-range", {"a", std::string(65536, 'z')}).status, 2);
  EXPECT_EQ(Run("del-range", {"d", "a", "--yes"}).status, 2) << "reversed";
}

TEST_F(RangeTest, ManySmallLogsAndBlocksGiveTheSameAsAMap) {
  std::vector<std::string> expected;
  std::string rows;
  for (int i = 0; i < 500; ++i) {
    const std::string key = "k-" + std::to_string(i * 7919 % 1000);
    rows += "{\"key\":\"" + key + "\",\"value\":\"v" + std::to_string(i) + "\"}\n";
    expected.push_back(key);
  }
  WriteFile(scratch_.PathOf("rows.jsonl"), rows);
  Do("import", {scratch_.PathOf("rows.jsonl"), "--wal-size", "2K"});
  std::sort(expected.begin(), expected.end());
  std::string joined;
  for (const std::string& key : expected) joined += key + " ";
  EXPECT_EQ(Keys(), joined);
  EXPECT_GT(DoJson("stat")["blocks"].size(), 5u);
}

}  // namespace
}  // namespace Kestrun
