#include "tests/tools/tool_test.h"

namespace Kestrun {
namespace {

using namespace Testing;

constexpr char kPoint[] = "Point x:%i4,y:%i8,near:%f,far:%d,label:%s";

class RecordTest : public ToolTest {};

TEST_F(RecordTest, ShowGivesBackWhatAppendWasGiven) {
  const Ran append = Run("append", {"p", kPoint, "-5", "9223372036854775807", "-3.5", "0.1", "-label-"});
  EXPECT_EQ(append.status, 0) << append.err;
  EXPECT_EQ(append.out, "");
  EXPECT_EQ(Do("show", {"p"}),
            "Point\n"
            "FIELD  TYPE  VALUE\n"
            "x      %i4   -5\n"
            "y      %i8   9223372036854775807\n"
            "near   %f    -3.5\n"
            "far    %d    0.1\n"
            "label  %s    -label-\n");
  EXPECT_EQ(Do("show", {"p", "--json"}),
            "{\"key\":\"p\",\"type\":\"" + std::string(kPoint) +
                "\",\"id\":1,\"fields\":{\"x\":-5,\"y\":9223372036854775807,\"near\":-3.5,\"far\":0.1,"
                "\"label\":\"-label-\"}}\n");
}

TEST_F(RecordTest, StoresTheBytesOfTheRecordEncoding) {
  Do("append", {"k", "T a:%i4,b:%s", "7", "hi"});
  EXPECT_EQ(Do("get", {"6b", "--hex"}), "010007000000020000006869\n");
}

TEST_F(RecordTest, NumbersComeBackExactly) {
  const struct {
    const char* token;
    const char* given;
    const char* shown;
  } rows[] = {
      {"%d", "0.1", "0.1"},
      {"%d", "1e300", "1e+300"},
      {"%d", "-0", "-0"},
      {"%d", "4.9406564584124654e-324", "5e-324"},
      {"%d", "1.7976931348623157e308", "1.7976931348623157e+308"},
      {"%d", "nan", "nan"},
      {"%d", "-inf", "-inf"},
      {"%f", "0.1", "0.1"},
      {"%f", "16777217", "16777216"},
      {"%f", "3.4028235e38", "3.4028235e+38"},
      {"%i4", "+2147483647", "2147483647"},
      {"%i4", "-2147483648", "-2147483648"},
      {"%i8", "-9223372036854775808", "-9223372036854775808"},
  };
  for (const auto& row : rows) {
    Do("append", {"k", std::string("N n:") + row.token, row.given});
    EXPECT_EQ(Do("show", {"k"}), std::string("N\nFIELD  TYPE  VALUE\nn      ") + row.token +
                                     (std::string(row.token).size() == 2 ? "    " : "   ") + row.shown +
                                     "\n");
  }
}

TEST_F(RecordTest, BytesAreGivenAndShownInHexadecimal) {
  Do("append", {"k", "B a:%i4,b:*", "1", "00fF7f"});
  EXPECT_EQ(Do("show", {"k"}), "B\nFIELD  TYPE  VALUE\na      %i4   1\nb      *     00ff7f\n");
  EXPECT_EQ(DoJson("show", {"k"})["fields"]["b"]["hex"], "00ff7f");
  Do("append", {"empty", "B a:%i4,b:*", "1", ""});
  EXPECT_EQ(DoJson("show", {"empty"})["fields"]["b"]["hex"], "");
}

TEST_F(RecordTest, ALoneDashIsStandardInput) {
  EXPECT_EQ(Run("append", {"k", "T a:%s,n:%i4", "-", "5"}, "line one\nline two\n").status, 0);
  EXPECT_EQ(DoJson("show", {"k"})["fields"]["a"], "line one\nline two\n");
  EXPECT_EQ(Run("append", {"k", "T a:%s,n:%i4", "x", "-"}, "42\n").status, 0);
  EXPECT_EQ(DoJson("show", {"k"})["fields"]["n"], 42);
  EXPECT_EQ(Run("append", {"k", "B b:*", "-"}, std::string("\0\xFF", 2)).status, 0);
  EXPECT_EQ(DoJson("show", {"k"})["fields"]["b"]["hex"], "00ff");
  const Ran twice = Run("append", {"k", "T a:%s,b:%s", "-", "-"}, "once");
  EXPECT_EQ(twice.status, 2);
  EXPECT_TRUE(Contains(twice.err, "one VALUE only")) << twice.err;
}

TEST_F(RecordTest, ValuesMayLookLikeOptionsAndLists) {
  Do("append", {"k", "T a:%s,b:%s,c:%s", "[1,2]", "-x", "--y"});
  EXPECT_EQ(DoJson("show", {"k"})["fields"], nlohmann::json({{"a", "[1,2]"}, {"b", "-x"}, {"c", "--y"}}));
  Do("append", {"k", "T a:%s", ""});
  EXPECT_EQ(DoJson("show", {"k"})["fields"]["a"], "");
}

TEST_F(RecordTest, WrongValuesAreRefusedBeforeAnythingIsStored) {
  const struct {
    std::vector<std::string> arguments;
    const char* says;
  } rows[] = {
      {{"T a:%i4,b:%s", "1"}, "has 2 fields and takes as many VALUEs, not 1"},
      {{"T a:%i4", "1", "2"}, "has 1 fields and takes as many VALUEs, not 2"},
      {{"T a:%i4", "2147483648"}, "the field \"a\" takes a whole number from -2147483648 to 2147483647"},
      {{"T a:%i4", "3.0"}, "the field \"a\" takes a whole number"},
      {{"T a:%i8", "9223372036854775808"}, "the field \"a\" takes a whole number"},
      {{"T a:%i4", ""}, "the field \"a\" takes a whole number"},
      {{"T a:%i4", "12x"}, "not \"12x\""},
      {{"T a:%d", "1e999"}, "a number of double precision"},
      {{"T a:%f", "1e39"}, "a number of single precision"},
      {{"T a:%d", "0x10"}, "a number of double precision"},
      {{"T a:%d", " 1"}, "a number of double precision"},
      {{"T a:*", "abc"}, "bytes in hexadecimal"},
      {{"T a:*", "zz"}, "bytes in hexadecimal"},
  };
  for (const auto& row : rows) {
    std::vector<std::string> arguments = {"k"};
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    const Ran ran = Run("append", arguments);
    EXPECT_EQ(ran.status, 2) << row.says;
    EXPECT_TRUE(Contains(ran.err, row.says)) << ran.err;
  }
  EXPECT_NE(access(store_.c_str(), F_OK), 0) << "not even a store was made";
}

TEST_F(RecordTest, RecordTypesWithSlipsAreRefused) {
  for (const char* type :
       {"T", "T ", " a:%s", "T x", "T a:%i4,b", "T a:%I4", "T a:%i4:x", "T a:%i4,,b:%d", "T a:%i4,",
        "T a:%i4, b:%s", "T :%s", "T a:%s,a:%s", "T a:*,b:%i4", "T a:%s#", "T a:%s\nb:%s", ""}) {
    const Ran ran = Run("append", {"k", type, "1"});
    EXPECT_EQ(ran.status, 2) << type;
    EXPECT_TRUE(Contains(ran.err, "'Point x:%i4,y:%i4,label:%s'")) << ran.err;
  }
}

TEST_F(RecordTest, TypesListsWhatTheStoreKnows) {
  Do("append", {"a", "T a:%i4", "1"});
  Do("append", {"b", "U b:%s,c:*", "x", "00"});
  Do("append", {"c", "T a:%i4", "2"});
  EXPECT_EQ(Do("types"), "ID  TYPE\n 1  T a:%i4\n 2  U b:%s,c:*\n");
  EXPECT_EQ(Do("types", {"--json"}),
            "{\"id\":1,\"name\":\"T\",\"text\":\"T a:%i4\",\"fields\":[{\"name\":\"a\",\"type\":\"%i4\"}]}\n"
            "{\"id\":2,\"name\":\"U\",\"text\":\"U b:%s,c:*\",\"fields\":[{\"name\":\"b\",\"type\":\"%s\"},"
            "{\"name\":\"c\",\"type\":\"*\"}]}\n");
  Do("clear", {"--yes"});
  EXPECT_EQ(Run("show", {"a"}).status, 1);
  EXPECT_EQ(Do("types"), "ID  TYPE\n 1  T a:%i4\n 2  U b:%s,c:*\n") << "types stay";
}

TEST_F(RecordTest, ShowRefusesWhatIsNoRecordAndMakesNoSchema) {
  Put("raw", "some bytes");
  Put("short", "ab");
  for (const char* key : {"raw", "short"}) {
    const Ran ran = Run("show", {key});
    EXPECT_EQ(ran.status, 3);
    EXPECT_EQ(ran.out, "");
    EXPECT_TRUE(Contains(ran.err, "status 514 (kStatusRecordTypeUnknown)")) << ran.err;
  }
  EXPECT_EQ(Do("types"), "ID  TYPE\n");
  EXPECT_NE(access((store_ + "/meta_v5").c_str(), F_OK), 0);
}

// Numbers would begin at 1 again, and the older records would be read as the new type.
TEST_F(RecordTest, NoTypeIsAddedWhereThoseThatWereThereAreLost) {
  for (int i = 0; i < 20; ++i) {
    Do("append",
       {"k" + std::to_string(i), "Row name:%s,size:%i4", "name " + std::to_string(i), std::to_string(i)});
  }
  const std::string types = store_ + "/meta_v5";
  const std::string whole = ReadFile(types);
  const auto refused = [&](const char* says) {
    const Ran append = Run("append", {"new", "T x:%i4", "5"});
    EXPECT_EQ(append.status, 3);
    EXPECT_TRUE(Contains(append.err, says)) << append.err;
    EXPECT_TRUE(Contains(append.err, "kestrun recover")) << append.err;
    EXPECT_EQ(
        Run("import", {"-", "--format", "csv", "--type", "T x:%i4", "--key", "new-{x}"}, "x\n5\n").status, 3);
    EXPECT_EQ(Run("get", {"new"}).status, 1);
    EXPECT_EQ(Run("get", {"new-5"}).status, 1);
  };
  ASSERT_EQ(unlink(types.c_str()), 0);
  refused("names no type");
  EXPECT_NE(access(types.c_str(), F_OK), 0);
  WriteFile(types, "");
  refused("names no type");
  WriteFile(types, whole.substr(0, whole.size() / 2));
  refused("is damaged");
  WriteFile(types, whole.substr(0, whole.size() - 1));
  refused("has no end");
  WriteFile(types, whole);
  Do("append", {"new", "T x:%i4", "5"});
  EXPECT_EQ(DoJson("show", {"new"})["id"], 2);
}

TEST_F(RecordTest, RawValuesAreNoReasonToRefuseTheFirstType) {
  Put("text", "some bytes");
  Put("number", "17");
  Put("bytes", std::string("\x05\x00\x00\x01", 4));
  Put("empty", "");
  Do("append", {"k", "T x:%i4", "5"});
  EXPECT_EQ(DoJson("show", {"k"})["fields"]["x"], 5);
}

TEST_F(RecordTest, RecordsSurviveFlushAndCompaction) {
  for (const char* number : {"1", "2", "3", "4"}) {
    Do("append", {std::string("k") + number, "T n:%i4", number});
    Do("flush");
  }
  Do("compact");
  for (int i = 1; i <= 4; ++i) {
    EXPECT_EQ(DoJson("show", {"k" + std::to_string(i)})["fields"]["n"], i);
  }
}

}  // namespace
}  // namespace Kestrun
