#include "format/schema_reader.h"

#include <gtest/gtest.h>

#include <vector>

namespace Kestrun {
namespace {

constexpr size_t kMaxSchemaLine = 1000;

class SchemaReaderTest : public ::testing::Test {
 protected:
  // In pieces of every size, which must not matter.
  std::vector<SchemaLineView> Read(const std::string& bytes) {
    std::vector<SchemaLineView> lines;
    for (const size_t piece : {size_t{1}, size_t{7}, bytes.size()}) {
      lines.clear();
      const auto visit = [&lines](const SchemaLineView& line) {
        lines.push_back(line);
        return true;
      };
      SchemaReader reader(kMaxSchemaLine);
      for (size_t at = 0; at < bytes.size(); at += piece) {
        EXPECT_TRUE(reader.Feed(bytes.data() + at, std::min(piece, bytes.size() - at), visit));
      }
      reader.Finish(visit);
    }
    return lines;
  }
};

TEST_F(SchemaReaderTest, ReadsOneRecordTypeALine) {
  const auto lines = Read("1#Point x:%i4,y:%i4\n2#Note body:%s\n");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(lines[0].IsRecordType());
  EXPECT_EQ(lines[0].id, 1);
  EXPECT_EQ(lines[0].text, "Point x:%i4,y:%i4");
  EXPECT_EQ(lines[1].id, 2);
  EXPECT_EQ(lines[1].offset, 20u);
}

TEST_F(SchemaReaderTest, ReadsLinesAsAStoreDoes) {
  const struct {
    const char* line;
    bool isRecordType;
    uint16_t id;
    bool idIsPlain;
    bool textIsCut;
    const char* text;
  } rows[] = {
      {"7#T a:%i4#x", true, 7, true, true, "T a:%i4"},
      {"seven#T a:%i4", true, 0, false, false, "T a:%i4"},
      {"07#T a:%i4", true, 7, false, false, "T a:%i4"},
      {"65537#T a:%i4", true, 1, false, false, "T a:%i4"},
      {"-1#T a:%i4", true, 65535, false, false, "T a:%i4"},
      {"#T a:%i4", true, 0, false, false, "T a:%i4"},
      {"1#T", false, 1, true, false, "T"},
      {"1#T ", false, 1, true, false, "T "},
      {"1#", false, 0, false, false, ""},
      {"T a:%i4", false, 0, false, false, ""},
      {"1##T a:%i4", false, 1, true, true, ""},
  };
  for (const auto& row : rows) {
    const auto lines = Read(std::string(row.line) + "\n");
    ASSERT_EQ(lines.size(), 1u) << row.line;
    EXPECT_EQ(lines[0].IsRecordType(), row.isRecordType) << row.line;
    EXPECT_EQ(lines[0].id, row.id) << row.line;
    EXPECT_EQ(lines[0].idIsPlain, row.idIsPlain) << row.line;
    EXPECT_EQ(lines[0].textIsCut, row.textIsCut) << row.line;
    EXPECT_EQ(lines[0].text, row.text) << row.line;
  }
}

TEST_F(SchemaReaderTest, TakesALineWithoutAnEndForNone) {
  const auto lines = Read("1#T a:%i4\n2#U b:%i4");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_FALSE(lines[1].ended);
  EXPECT_FALSE(lines[1].IsRecordType());
}

TEST_F(SchemaReaderTest, EndsLinesAtNulBytesAndPassesOverEmptyOnes) {
  const auto lines = Read(std::string("\n\n1#T a:%i4\0\0\n2#U b:%i4\n", 24));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(lines[0].endedByNul);
  EXPECT_EQ(lines[0].offset, 2u);
  EXPECT_FALSE(lines[1].endedByNul);
  EXPECT_EQ(lines[1].id, 2);
}

TEST_F(SchemaReaderTest, StopsWhenTheVisitorDoes) {
  int lines = 0;
  SchemaReader reader;
  const std::string bytes = "1#T a:%i4\n2#U b:%i4\n";
  EXPECT_FALSE(reader.Feed(bytes.data(), bytes.size(), [&lines](const SchemaLineView&) {
    ++lines;
    return false;
  }));
  EXPECT_EQ(lines, 1);
}

TEST_F(SchemaReaderTest, KeepsNoLineLongerThanItsLimit) {
  const std::string fits = "1#T " + std::string(kMaxSchemaLine - 4, 'x');
  auto lines = Read(fits + "\n" + fits + "x\n2#U b:%i4\n");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].line.size(), kMaxSchemaLine);
  EXPECT_EQ(lines[1].size, kMaxSchemaLine + 1);
  EXPECT_TRUE(lines[1].line.empty());
  EXPECT_FALSE(lines[1].IsRecordType());
  EXPECT_EQ(lines[2].id, 2);
}

}  // namespace
}  // namespace Kestrun
