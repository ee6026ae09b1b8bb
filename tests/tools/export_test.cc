#include <sys/stat.h>

#include <algorithm>
#include <random>

#include "tests/tools/tool_test.h"

namespace Kestrun {
namespace {

using namespace Testing;

class ExportTest : public ToolTest {
 protected:
  // Imports `file` into a store of its own and gives that store's raw entries.
  std::string RawEntriesAfterImport(const std::string& file, std::vector<std::string> options) {
    const std::string own = scratch_.PathOf("copy" + std::to_string(copies_++));
    options.insert(options.begin(), {"import", own, file});
    const Ran import = RunKestrun(options);
    EXPECT_EQ(import.status, 0) << import.err;
    return RunKestrun({"scan", own, "--json"}).out;
  }

  int copies_ = 0;
};

TEST_F(ExportTest, RawEntriesComeBackAsTheSameBytes) {
  std::mt19937 random(20120101);
  for (int i = 0; i < 60; ++i) {
    std::string key(1 + random() % 20, '\0');
    std::string value(random() % 50, '\0');
    for (char& byte : key) byte = static_cast<char>(1 + random() % 254);
    for (char& byte : value) byte = static_cast<char>(random());
    Put(key, value);
  }
  Put("text", "caf\xC3\xA9 \"quoted\"\n");
  Put("empty", "");
  const std::string file = scratch_.PathOf("out.jsonl");
  EXPECT_TRUE(Contains(Account("export", {file}), "exported "));
  EXPECT_EQ(ReadFile(file), Do("export"));
  EXPECT_EQ(ReadFile(file), Do("scan", {"--json"}));
  EXPECT_EQ(RawEntriesAfterImport(file, {}), Do("scan", {"--json"}));
}

TEST_F(ExportTest, TypedRecordsComeBackFromCsvAndJsonLines) {
  const std::string type = "T i:%i4,l:%i8,f:%f,d:%d,s:%s,b:*";
  std::mt19937_64 random(20121231);
  std::string rows;
  for (int i = 0; i < 100; ++i) {
    double wide = 0;
    float narrow = 0;
    uint64_t bits = random();
    std::memcpy(&wide, &bits, sizeof(wide));
    std::memcpy(&narrow, &bits, sizeof(narrow));
    if (!std::isfinite(wide)) wide = -0.0;
    if (!std::isfinite(narrow)) narrow = 1e-45F;
    char numbers[200];
    std::snprintf(numbers, sizeof(numbers), "%d,%lld,%.9g,%.17g", static_cast<int>(bits),
                  static_cast<long long>(random()), static_cast<double>(narrow), wide);
    std::string text = "\"t\"\"";
    const size_t length = random() % 20;
    for (size_t j = 0; j < length; ++j) text += "ab ,\n\r\xC3\xA9\xFF\x01"[random() % 10];
    rows +=
        "k" + std::to_string(i) + "," + numbers + "," + text + "\"," + (i % 3 == 0 ? "" : "00ff7f") + "\n";
  }
  const std::string first = scratch_.PathOf("first.csv");
  WriteFile(first, "key,i,l,f,d,s,b\n" + rows + "nan,0,0,nan,inf,,\n");
  Do("import", {first, "--type", type});
  const std::string entries = Do("scan", {"--json"});

  for (const char* name : {"out.csv", "out.tsv", "out.jsonl", "out.json", "out.db"}) {
    const std::string file = scratch_.PathOf(name);
    EXPECT_EQ(Account("export", {file}), "exported 101 rows\n");
    EXPECT_EQ(RawEntriesAfterImport(file, {"--type", type}), entries) << name;
  }
}

TEST_F(ExportTest, WritesAHeaderAndTheKeysFirst) {
  Do("append", {"b", "T n:%i4,s:%s", "-1", "x,y"});
  Do("append", {"a", "T n:%i4,s:%s", "2", ""});
  EXPECT_EQ(Do("export", {"--format", "csv"}), "key,n,s\na,2,\nb,-1,\"x,y\"\n");
  EXPECT_EQ(Do("export"), "{\"key\":\"a\",\"n\":2,\"s\":\"\"}\n{\"key\":\"b\",\"n\":-1,\"s\":\"x,y\"}\n");
  EXPECT_EQ(
      Do("export", {"--raw"}),
      "{\"key\":\"a\",\"value\":\"\\u0001\\u0000\\u0002\\u0000\\u0000\\u0000\\u0000\\u0000\\u0000\\u0000\"}\n"
      "{\"key\":\"b\",\"value\":{\"hex\":\"0100ffffffff03000000782c79\"}}\n");
}

TEST_F(ExportTest, OneOfSeveralTypesIsChosenByNameOrText) {
  Do("append", {"a", "T n:%i4", "1"});
  Do("append", {"b", "U n:%i4", "2"});
  Do("append", {"c", "U n:%i8", "3"});
  Put("d", "raw");
  const Ran unclear = Run("export", {"--format", "csv"});
  EXPECT_EQ(unclear.status, 2);
  EXPECT_TRUE(Contains(unclear.err, "the record types of the store are: 'T n:%i4', 'U n:%i4', 'U n:%i8'"))
      << unclear.err;
  const Ran ran = Run("export", {"--type", "T"});
  EXPECT_EQ(ran.out, "{\"key\":\"a\",\"n\":1}\n");
  EXPECT_EQ(ran.err, "kestrun export: 3 entries are no record of the type \"T\" and not exported\n");
  EXPECT_EQ(Run("export", {"--type", "U"}).status, 2);
  EXPECT_EQ(Run("export", {"--type", "U n:%i8"}).out, "{\"key\":\"c\",\"n\":3}\n");
  EXPECT_EQ(Run("export", {"--type", "V"}).status, 2);
  EXPECT_EQ(Run("export", {"--raw", "--type", "T"}).status, 2);
  EXPECT_EQ(Do("export", {scratch_.PathOf("t.jsonl"), "--type", "T", "--json"}),
            "{\"rows\":1,\"others\":3}\n");
}

TEST_F(ExportTest, KeysMayHaveAColumnOfAnotherName) {
  Do("append", {"a", "T key:%s", "field"});
  const Ran clash = Run("export");
  EXPECT_EQ(clash.status, 2);
  EXPECT_TRUE(Contains(clash.err, "--key-column")) << clash.err;
  const std::string file = scratch_.PathOf("out.csv");
  Do("export", {file, "--key-column", "id"});
  EXPECT_EQ(ReadFile(file), "id,key\na,field\n");
  EXPECT_EQ(RawEntriesAfterImport(file, {"--type", "T key:%s", "--key", "{id}"}), Do("scan", {"--json"}));
}

TEST_F(ExportTest, FieldNamesThatAreNotUtf8GoIntoCsvOnly) {
  Do("append", {"a", "T \xFF:%i4", "1"});
  EXPECT_EQ(Run("export").status, 2);
  EXPECT_EQ(Do("export", {"--format", "csv"}), "key,\xFF\na,1\n");
  EXPECT_EQ(DoJson("show", {"a"})["fields"]["\\xff"], 1);
}

TEST_F(ExportTest, RawEntriesGoIntoEveryFormatAndBack) {
  Put("a", "1,\"2\"\tthree\\\nfour\r");
  Put("caf\xC3\xA9", "");
  const std::string entries = Do("scan", {"--json"});
  for (const char* name : {"raw.csv", "raw.tsv", "raw.jsonl", "raw.json", "raw.sqlite"}) {
    const std::string file = scratch_.PathOf(name);
    EXPECT_EQ(Account("export", {file}), "exported 2 rows\n");
    EXPECT_EQ(RawEntriesAfterImport(file, {}), entries) << name;
  }
  EXPECT_EQ(Do("export", {"--format", "tsv"}),
            "key\tvalue\na\t1,\"2\"\\tthree\\\\\\nfour\\r\ncaf\xC3\xA9\t\n");
}

TEST_F(ExportTest, BytesThatAreNotUtf8GoIntoTablesWithHexOnly) {
  Put("a", "\xFF\x01");
  const Ran ran = Run("export", {"--format", "csv"});
  EXPECT_EQ(ran.status, 2);
  EXPECT_TRUE(Contains(ran.err, "--hex")) << ran.err;
  const std::string entries = Do("scan", {"--json"});
  for (const char* name : {"raw.csv", "raw.tsv", "raw.jsonl", "raw.json", "raw.db"}) {
    const std::string file = scratch_.PathOf(name);
    Do("export", {file, "--hex"});
    EXPECT_EQ(RawEntriesAfterImport(file, {"--hex"}), entries) << name;
  }
  const std::string file = scratch_.PathOf("blob.db");
  Do("export", {file});
  EXPECT_EQ(RawEntriesAfterImport(file, {}), entries);
}

TEST_F(ExportTest, AllTypesAtOnceComeBackFromJsonAndHaveTablesInSqlite) {
  Do("append", {"a", "T n:%i4", "1"});
  Do("append", {"b", "U s:%s,b:*", "x", "00ff"});
  Put("c", "raw");
  const std::string entries = Do("scan", {"--json"});
  for (const char* name : {"all.jsonl", "all.json", "all.sqlite"}) {
    const std::string file = scratch_.PathOf(name);
    Do("export", {file, "--with-entry"});
    EXPECT_EQ(RawEntriesAfterImport(file, {"--with-entry"}), entries) << name;
    Do("export", {file});
    EXPECT_EQ(RawEntriesAfterImport(file, {}), entries) << name;
  }
  const std::string one = scratch_.PathOf("one.db");
  Do("export", {one, "--type", "U"});
  EXPECT_TRUE(Contains(RawEntriesAfterImport(one, {}), "\"b\"")) << "a file of one table tells its type, too";
  EXPECT_EQ(Do("export"),
            "{\"key\":\"a\",\"type\":\"T n:%i4\",\"n\":1}\n"
            "{\"key\":\"b\",\"type\":\"U s:%s,b:*\",\"s\":\"x\",\"b\":{\"hex\":\"00ff\"}}\n"
            "{\"key\":\"c\",\"type\":null,\"value\":\"raw\"}\n");
  const std::string file = scratch_.PathOf("all.db");
  EXPECT_EQ(Account("export", {file}), "exported 3 rows\n");
  EXPECT_EQ(RawEntriesAfterImport(file, {}), entries);
  EXPECT_TRUE(Contains(Run("import", {file, "--type", "T n:%i4"}).err, "has several: T, U, entries"));
  EXPECT_TRUE(Contains(RawEntriesAfterImport(file, {"--table", "U", "--type", "U s:%s,b:*"}), "\"b\""));
}

TEST_F(ExportTest, ARangeAndALimitNarrowIt) {
  for (const char* key : {"a-1", "a-2", "b-1", "b-2"}) Put(key, "v");
  const auto keys = [this](std::vector<std::string> options) {
    const std::string text = Do("export", options);
    return std::count(text.begin(), text.end(), '\n');
  };
  EXPECT_EQ(keys({"--prefix", "a-"}), 2);
  EXPECT_EQ(keys({"--from", "a-2", "--to", "b-2"}), 2);
  EXPECT_EQ(keys({"--limit", "3"}), 3);
  EXPECT_EQ(keys({"--limit", "0"}), 0);
}

TEST_F(ExportTest, TimesToLiveGoAlongWhenAskedTo) {
  ASSERT_EQ(Run("put", {"short", "v", "--ttl", "1h"}).status, 0);
  ASSERT_EQ(Run("put", {"long", "v"}).status, 0);
  for (const char* name : {"e.csv", "e.jsonl", "e.db"}) {
    const std::string file = scratch_.PathOf(name);
    Do("export", {file, "--with-entry"});
    const std::string own = scratch_.PathOf(std::string("own-") + name);
    EXPECT_EQ(RunKestrun({"import", own, file, "--with-entry"}).status, 0);
    const auto entry = [&own](const char* key) {
      return nlohmann::json::parse(RunKestrun({"entry", own, key, "--json"}).out);
    };
    EXPECT_LE(entry("short")["ttl"], 3600) << name;
    EXPECT_GE(entry("short")["ttl"], 3000) << name;
    EXPECT_EQ(entry("long")["ttl"], 4294967295u) << name;
  }
}

TEST_F(ExportTest, AFileAppearsWhenItIsCompleteAndNotBefore) {
  Put("k", "v");
  const Ran missing = Run("export", {scratch_.PathOf("no/such/file.jsonl")});
  EXPECT_EQ(missing.status, 3);
  EXPECT_TRUE(Contains(missing.err, "No such file or directory")) << missing.err;

  const std::string file = scratch_.PathOf("out.csv");
  WriteFile(file, "old");
  Put("bad", "\xFF");
  EXPECT_EQ(Run("export", {file}).status, 2);
  EXPECT_EQ(ReadFile(file), "old") << "what could not be written whole leaves the old one";
  EXPECT_EQ(Run("export", {"/dev/full", "--format", "jsonl"}).status, 3);
  EXPECT_EQ(Do("export", {"/dev/null", "--json"}), "{\"rows\":2,\"others\":0}\n");
}

TEST_F(ExportTest, KeepsThePermissionsOfAFileThatItReplaces) {
  Put("k", "v");
  const mode_t mask = umask(022);
  umask(mask);
  for (const char* name : {"out.jsonl", "out.db"}) {
    const std::string file = scratch_.PathOf(name);
    Do("export", {file});
    struct stat status = {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0666 & ~mask);
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    Do("export", {file});
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    Do("export", {file});
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
  }
}

}  // namespace
}  // namespace Kestrun
