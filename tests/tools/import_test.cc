#include "tests/tools/tool_test.h"

namespace Kestrun {
namespace {

using namespace Testing;

class ImportTest : public ToolTest {
 protected:
  std::string Csv(const std::string& content) {
    WriteFile(scratch_.PathOf("rows.csv"), content);
    return scratch_.PathOf("rows.csv");
  }
  std::string Jsonl(const std::string& content) {
    WriteFile(scratch_.PathOf("rows.jsonl"), content);
    return scratch_.PathOf("rows.jsonl");
  }
  void ExpectNoStore() { EXPECT_NE(access(store_.c_str(), F_OK), 0); }
};

TEST_F(ImportTest, RawCsvStoresEachLineAsItStands) {
  const std::string file =
      Csv("date,rain,note\n2012-01-01, 0.0 ,\"a, \"\"b\"\"\"\r\n2012-01-02,10.9,\"two\nlines\"\n");
  EXPECT_EQ(Account("import", {file, "--key", "seattle-{date}"}), "stored 2 of 2 rows\n");
  EXPECT_EQ(Get("seattle-2012-01-01"), "2012-01-01, 0.0 ,\"a, \"\"b\"\"\"");
  EXPECT_EQ(Get("seattle-2012-01-02"), "2012-01-02,10.9,\"two\nlines\"");
}

TEST_F(ImportTest, ReadsTheCsvThatPeopleWrite) {
  const std::string type = "T a:%s,b:%s";
  const struct {
    const char* name;
    std::string csv;
    std::vector<std::pair<std::string, std::string>> rows;
  } cases[] = {
      {"plain", "a,b\n1,2\n3,4\n", {{"1", "2"}, {"3", "4"}}},
      {"CRLF", "a,b\r\n1,2\r\n", {{"1", "2"}}},
      {"byte order mark",
       "\xEF\xBB\xBF"
       "a,b\n1,2\n",
       {{"1", "2"}}},
      {"no line end at the end", "a,b\n1,2", {{"1", "2"}}},
      {"empty lines", "\na,b\n\n1,2\n\r\n\n", {{"1", "2"}}},
      {"empty fields", "a,b\n1,\n2,\"\"\n", {{"1", ""}, {"2", ""}}},
      {"quoted line end, CRLF kept", "a,b\r\n1,\"x\r\ny\"\r\n", {{"1", "x\r\ny"}}},
      {"quotes", "a,b\n1,\"say \"\"hi\"\", you\"\n", {{"1", "say \"hi\", you"}}},
      {"quoted header", "\"a\",\"b\"\n1,2\n", {{"1", "2"}}},
      {"blanks belong to fields", "a,b\n1, x \n", {{"1", " x "}}},
      {"other order and more columns", "x,b,a\n0,2,1\n", {{"1", "2"}}},
      {"bytes that are not UTF-8", "a,b\n1,\xFF\n", {{"1", "\xFF"}}},
      {"quoted last field at the end", "a,b\n1,\"x\"", {{"1", "x"}}},
  };
  for (const auto& row : cases) {
    store_ = scratch_.PathOf(row.name);
    const Ran ran = Run("import", {Csv(row.csv), "--type", type, "--key", "{a}"});
    EXPECT_EQ(ran.status, 0) << row.name << ran.err;
    EXPECT_EQ(ran.out, "");
    EXPECT_TRUE(Contains(ran.err, "stored " + std::to_string(row.rows.size()) + " of ")) << ran.err;
    for (const auto& [key, value] : row.rows) {
      const nlohmann::json shown = DoJson("show", {key})["fields"]["b"];
      EXPECT_EQ(shown.is_object() ? FromHex(shown["hex"]) : shown.get<std::string>(), value) << row.name;
    }
  }
}

TEST_F(ImportTest, ABadRowEndsTheImportAndWhatWasStoredBeforeStays) {
  const struct {
    const char* row;
    const char* says;
  } rows[] = {
      {"b,one\n", ":4: \"n\" takes a whole number from -2147483648 to 2147483647, not \"one\""},
      {"c\n", ":4: the row has 1 fields where the header has 2"},
      {"d,4,5\n", ":4: the row has 3 fields where the header has 2"},
      {",6\n", ":4: gives a key that can't be empty"},
      {"e,\"7\n", ":4: a quote is opened and never closed"},
      {"e,7\rf,8\n", ":4: a carriage return without a line feed"},
  };
  for (const auto& row : rows) {
    store_ = scratch_.PathOf("store " + std::to_string(&row - rows));
    const std::string file = Csv("k,n\n\"multi\nline\",2\n" + std::string(row.row) + "z,8\n");
    const Ran ran = Run("import", {file, "--type", "T n:%i4", "--key", "{k}"});
    EXPECT_EQ(ran.status, 4) << row.says;
    EXPECT_EQ(ran.out, "");
    EXPECT_TRUE(Contains(ran.err, file + row.says)) << ran.err;
    EXPECT_TRUE(Contains(ran.err, "stored 1 of 2 rows\n")) << ran.err;
    EXPECT_TRUE(Contains(ran.err, "1 row is stored and stays; the same import may be run again")) << ran.err;
    EXPECT_EQ(Do("scan", {"--keys-only"}), "multi\\nline\n");
  }
}

TEST_F(ImportTest, AFileThatBeginsWithABadRowMakesNoStore) {
  const Ran ran = Run("import", {Csv("k,n\na,x\n"), "--type", "T n:%i4", "--key", "{k}"});
  EXPECT_EQ(ran.status, 4);
  EXPECT_TRUE(Contains(ran.err, "nothing was stored")) << ran.err;
  ExpectNoStore();
}

TEST_F(ImportTest, SkipsBadRowsWhenAskedTo) {
  const std::string file = Csv("k,n\na,1\nb,one\nc,\"3\nd,4\ne,5\"x\nf,6\n");
  const Ran ran = Run("import", {file, "--type", "T n:%i4", "--key", "{k}", "--skip-bad-rows"});
  EXPECT_EQ(ran.status, 0);
  EXPECT_EQ(ran.out, "");
  EXPECT_TRUE(Contains(ran.err, "stored 3 of 6 rows, 3 bad rows left out\n")) << ran.err;
  EXPECT_TRUE(Contains(ran.err, file + ":3: ")) << ran.err;
  EXPECT_TRUE(Contains(ran.err, file + ":4: a quote")) << ran.err;
  EXPECT_TRUE(Contains(ran.err, file + ":6: a quote")) << ran.err;
  EXPECT_EQ(Do("scan", {"--keys-only"}), "a\nd\nf\n");
  EXPECT_EQ(Do("import", {file, "--type", "T n:%i4", "--key", "{k}", "--skip-bad-rows", "--json"}),
            "{\"rows\":6,\"stored\":3,\"duplicates\":3,\"skipped\":3}\n");
}

TEST_F(ImportTest, TellsOnlyTheFirstOfVeryManyBadRows) {
  std::string rows = "k,n\n";
  for (int i = 0; i < 300; ++i) rows += "a,x\n";
  const Ran ran = Run("import", {Csv(rows), "--type", "T n:%i4", "--key", "{k}", "--skip-bad-rows"});
  EXPECT_EQ(ran.status, 0);
  EXPECT_TRUE(Contains(ran.err, ":101: ")) << ran.err;
  EXPECT_FALSE(Contains(ran.err, ":102: "));
  EXPECT_TRUE(Contains(ran.err, "more rows like these are not listed"));
  EXPECT_TRUE(Contains(ran.err, "stored 0 of 300 rows, 300 bad rows left out"));
}

TEST_F(ImportTest, CountsDuplicatesOfTheStoreAndOfTheFile) {
  const std::string file = Csv("k,n\na,1\nb,2\na,3\n");
  const std::vector<std::string> arguments = {file, "--type", "T n:%i4", "--key", "{k}", "--json"};
  EXPECT_EQ(Do("import", arguments), "{\"rows\":3,\"stored\":3,\"duplicates\":1,\"skipped\":0}\n");
  EXPECT_EQ(DoJson("show", {"a"})["fields"]["n"], 3);
  EXPECT_EQ(Do("import", arguments), "{\"rows\":3,\"stored\":3,\"duplicates\":3,\"skipped\":0}\n");
}

TEST_F(ImportTest, LeavesKeysAloneThatAreThereWhenAskedTo) {
  Put("b", "mine");
  const std::string file = Csv("key,value\na,1\nb,2\na,3\nc,4\n");
  EXPECT_EQ(Do("import", {file, "--no-overwrite", "--json"}),
            "{\"rows\":4,\"stored\":2,\"duplicates\":2,\"skipped\":0}\n");
  EXPECT_EQ(Do("scan"), "a  1\nb  mine\nc  4\n");
}

TEST_F(ImportTest, ColumnsThatAreNotThereAreTold) {
  const std::string file = Csv("k,n,n\na,1,2\n");
  const struct {
    std::vector<std::string> options;
    const char* says;
  } rows[] = {
      {{"--key", "{x}"}, "there is no column \"x\" for the key; the columns are: k, n, n"},
      {{"--key", "{n}"}, "there is more than one column \"n\" for the key"},
      {{"--key", "{k}", "--type", "T m:%s"},
       "there is no column for the field \"m\"; the columns are: k, n, n"},
      {{"--key", "{k}", "--type", "T n:%s"}, "there is more than one column for the field \"n\""},
      {{"--type", "T k:%s"}, "there is no column \"key\" for the key"},
      {{}, "there is no column \"key\" for the key"},
      {{"--key", "{k"}, "has a '{' that is not closed"},
      {{"--key", "k}"}, "has a '}' that nothing opens"},
      {{"--key", "{}"}, "has no column name between its braces"},
      {{"--key", ""}, "is empty"},
  };
  for (const auto& row : rows) {
    std::vector<std::string> arguments = {file};
    arguments.insert(arguments.end(), row.options.begin(), row.options.end());
    const Ran ran = Run("import", arguments);
    EXPECT_EQ(ran.status, 2) << row.says;
    EXPECT_TRUE(Contains(ran.err, row.says)) << ran.err;
  }
  EXPECT_EQ(Run("import", {Csv(""), "--key", "{k}"}).status, 4);
  EXPECT_EQ(Run("import", {Csv("\"k\n"), "--key", "{k}"}).status, 4);
  EXPECT_EQ(Run("import", {scratch_.PathOf("missing.csv"), "--key", "{k}"}).status, 4);
  EXPECT_EQ(Run("import", {scratch_.Path(), "--key", "{k}"}).status, 4);
  ExpectNoStore();
}

TEST_F(ImportTest, KeysAreMadeOfTextAndColumns) {
  const std::string file = Csv("a b,c\n1,2\n");
  EXPECT_EQ(Account("import", {file, "--key", "{{x}}-{a b}{c}-{a b}"}), "stored 1 of 1 row\n");
  EXPECT_EQ(Do("scan", {"--keys-only"}), "{x}-12-1\n");
}

TEST_F(ImportTest, RawJsonLinesAreKeysAndValues) {
  const std::string file = Jsonl(
      "{\"key\":\"a\",\"value\":\"text\"}\r\n"
      "\n"
      "{\"value\":{\"hex\":\"00FF\"},\"key\":{\"hex\":\"fe\"},\"more\":[1,{\"x\":null}]}\n"
      "{\"key\":\"e\",\"value\":\"\"}");
  EXPECT_EQ(Account("import", {file}), "stored 3 of 3 rows\n");
  EXPECT_EQ(Do("scan", {"--json"}),
            "{\"key\":\"a\",\"value\":\"text\"}\n{\"key\":\"e\",\"value\":\"\"}\n"
            "{\"key\":{\"hex\":\"fe\"},\"value\":{\"hex\":\"00ff\"}}\n");
}

TEST_F(ImportTest, BadJsonLinesAreTold) {
  const struct {
    const char* line;
    const char* says;
  } rows[] = {
      {"nonsense", "not valid JSON"},
      {"{\"key\":\"a\",\"value\":\"b\"} x", "not valid JSON"},
      {"{\"key\":\"a\",\"value\":\"\xFF\"}", "not valid JSON"},
      {"[1]", "it is an array and not an object"},
      {"5", "it is not an object"},
      {"{}", "there is no column \"key\" for the key"},
      {"{\"key\":\"a\"}", "there is no column \"value\"; rows of typed records need --type"},
      {"{\"key\":\"a\",\"value\":5}", "neither a text nor {\"hex\": \"...\"}"},
      {"{\"key\":\"a\",\"value\":{\"hex\":\"0\"}}", "neither a text nor"},
      {"{\"key\":\"a\",\"value\":{\"hex\":\"00\",\"x\":1}}", "neither a text nor"},
      {"{\"key\":\"a\",\"value\":[\"00\"]}", "neither a text nor"},
      {"{\"key\":null,\"value\":\"\"}", "has no \"key\" for the key"},
      {"{\"key\":\"a\",\"key\":\"b\",\"value\":\"\"}", "the member \"key\" stands there twice"},
  };
  for (const auto& row : rows) {
    const Ran ran =
        Run("import", {Jsonl("{\"key\":\"good\",\"value\":\"\"}\n" + std::string(row.line) + "\n")});
    EXPECT_EQ(ran.status, 4) << row.line;
    EXPECT_TRUE(Contains(ran.err, ":2: ")) << ran.err;
    EXPECT_TRUE(Contains(ran.err, row.says)) << ran.err;
  }
  const std::string deep =
      "{\"key\":\"a\",\"value\":" + std::string(100000, '[') + std::string(100000, ']') + "}\n";
  EXPECT_EQ(Run("import", {Jsonl(deep)}).status, 4);
}

TEST_F(ImportTest, TypedJsonLinesTakeNumbersWithEveryDigit) {
  const std::string file = Jsonl(
      "{\"id\":7,\"n\":-9223372036854775808,\"f\":0.1,\"d\":0.1,\"s\":\"x\",\"b\":{\"hex\":\"00ff\"}}\n"
      "{\"id\":8,\"n\":9223372036854775807,\"f\":3,\"d\":-0.0,\"s\":{\"hex\":\"ff\"},\"b\":{\"hex\":\"\"}}\n"
      "{\"id\":9,\"n\":0,\"f\":\"nan\",\"d\":\"-inf\",\"s\":\"\",\"b\":{\"hex\":\"01\"}}\n");
  Do("import", {file, "--type", "T n:%i8,f:%f,d:%d,s:%s,b:*", "--key", "r{id}"});
  EXPECT_EQ(DoJson("show", {"r7"})["fields"].dump(),
            "{\"b\":{\"hex\":\"00ff\"},\"d\":0.1,\"f\":0.1,\"n\":-9223372036854775808,\"s\":\"x\"}");
  EXPECT_EQ(DoJson("show", {"r8"})["fields"].dump(),
            "{\"b\":{\"hex\":\"\"},\"d\":-0.0,\"f\":3.0,\"n\":9223372036854775807,\"s\":{\"hex\":\"ff\"}}");
  EXPECT_EQ(DoJson("show", {"r9"})["fields"].dump(),
            "{\"b\":{\"hex\":\"01\"},\"d\":\"-inf\",\"f\":\"nan\",\"n\":0,\"s\":\"\"}");
}

TEST_F(ImportTest, TypedJsonLinesRefuseValuesOfAnotherType) {
  const struct {
    const char* token;
    const char* value;
  } rows[] = {{"%i4", "1.0"},
              {"%i4", "\"1\""},
              {"%i4", "2147483648"},
              {"%i4", "true"},
              {"%i4", "null"},
              {"%d", "\"x\""},
              {"%d", "\"1.5\""},
              {"%d", "1e999"},
              {"%s", "5"},
              {"%s", "{}"},
              {"*", "\"ff\""},
              {"*", "{\"hex\":\"f\"}"},
              {"%i8", "9223372036854775808"},
              {"%i8", "{\"hex\":\"31\"}"}};
  for (const auto& row : rows) {
    const Ran ran = Run("import", {Jsonl("{\"key\":\"k\",\"v\":" + std::string(row.value) + "}\n"), "--type",
                                   std::string("T v:") + row.token});
    EXPECT_EQ(ran.status, 4) << row.token << " " << row.value;
    EXPECT_TRUE(Contains(ran.err, ":1: ")) << ran.err;
  }
  EXPECT_EQ(Run("import", {Jsonl("{\"key\":\"k\",\"w\":1}\n"), "--type", "T v:%i4"}).status, 4);
}

TEST_F(ImportTest, ReadsStandardInput) {
  EXPECT_EQ(Account("import", {"-"}, "{\"key\":\"a\",\"value\":\"1\"}\n"), "stored 1 of 1 row\n");
  EXPECT_EQ(Account("import", {"-", "--format", "csv", "--key", "{k}"}, "k\nb\n"), "stored 1 of 1 row\n");
  EXPECT_EQ(Do("scan"), "a  1\nb  b\n");
  EXPECT_EQ(RunKestrunWithout({0}, {"import", store_, "-"}).status, 4);
}

TEST_F(ImportTest, ARowThatDoesNotFitIntoTheLogIsABadRow) {
  const std::string file =
      Jsonl("{\"key\":\"a\",\"value\":\"1\"}\n{\"key\":\"b\",\"value\":\"" + std::string(500, 'x') + "\"}\n");
  const Ran ran = Run("import", {file, "--log-size", "512"});
  EXPECT_EQ(ran.status, 4);
  EXPECT_TRUE(Contains(ran.err, ":2: takes 541 bytes in the log, which holds 384; give a larger --log-size"))
      << ran.err;
  EXPECT_EQ(Do("scan"), "a  1\n");
}

TEST_F(ImportTest, LargeRowsOfAnyMixtureFitWhereEachFitsAlone) {
  std::string rows;
  for (int i = 0; i < 20; ++i) {
    rows += "{\"key\":\"k" + std::to_string(i) + "\",\"value\":\"" + std::string(i % 3 == 0 ? 330 : 10, 'x') +
            "\"}\n";
  }
  EXPECT_EQ(Account("import", {Jsonl(rows), "--log-size", "512"}), "stored 20 of 20 rows\n");
  Do("import", {Csv("k,s\na," + std::string(320, 'y') + "\nb,z\nc," + std::string(320, 'y') + "\n"), "--type",
                "T s:%s", "--key", "{k}"});
  EXPECT_EQ(DoJson("stat")["entries"]["live"], 23);
}

TEST_F(ImportTest, AKeyThatNoStoreCanHoldIsABadRow) {
  const Ran ran = Run("import", {Jsonl("{\"key\":{\"hex\":\"ff01\"},\"value\":\"\"}\n")});
  EXPECT_EQ(ran.status, 4);
  EXPECT_TRUE(Contains(ran.err, "begins with the byte 0xFF")) << ran.err;
  ExpectNoStore();
}

TEST_F(ImportTest, EveryRowGetsTheTimeToLive) {
  Do("import", {Jsonl("{\"key\":\"a\",\"value\":\"1\"}\n"), "--ttl", "77"});
  EXPECT_EQ(DoJson("entry", {"a"})["ttl"], 77);
  Do("import", {Jsonl("{\"key\":\"b\",\"v\":1}\n"), "--ttl", "78", "--type", "T v:%i4"});
  EXPECT_EQ(DoJson("entry", {"b"})["ttl"], 78);
}

}  // namespace
}  // namespace Kestrun
