#include "inspect/schema_file.h"

#include <gtest/gtest.h>

#include "tests/support/file_bytes.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Inspect {
namespace {

using namespace Kestrun::Testing;

class SchemaFileTest : public ::testing::Test {
 protected:
  std::vector<SchemaLineView> Read(const std::string& bytes) {
    WriteFile(scratch_.PathOf("meta_v5"), bytes);
    std::string why;
    const auto file = ReadOnlyFile::Open(scratch_.PathOf("meta_v5"), &why);
    std::vector<SchemaLineView> lines;
    EXPECT_TRUE(ScanSchema(*file, [&lines](const SchemaLineView& line) {
      lines.push_back(line);
      return true;
    }));
    return lines;
  }

  ScratchDirectory scratch_;
};

TEST_F(SchemaFileTest, ReadsOneRecordTypeALine) {
  const auto lines = Read("1#Point x:%i4,y:%i4\n2#Note body:%s\n");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(lines[0].isRecordType);
  EXPECT_EQ(lines[0].id, 1);
  EXPECT_EQ(lines[0].text, "Point x:%i4,y:%i4");
  EXPECT_EQ(lines[1].id, 2);
  EXPECT_EQ(lines[1].offset, 20u);
}

TEST_F(SchemaFileTest, ReadsLinesAsAStoreDoes) {
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
    EXPECT_EQ(lines[0].isRecordType, row.isRecordType) << row.line;
    EXPECT_EQ(lines[0].id, row.id) << row.line;
    EXPECT_EQ(lines[0].idIsPlain, row.idIsPlain) << row.line;
    EXPECT_EQ(lines[0].textIsCut, row.textIsCut) << row.line;
    EXPECT_EQ(lines[0].text, row.text) << row.line;
  }
}

TEST_F(SchemaFileTest, TakesALineWithoutAnEndForNone) {
  const auto lines = Read("1#T a:%i4\n2#U b:%i4");
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_FALSE(lines[1].ended);
  EXPECT_FALSE(lines[1].isRecordType);
}

TEST_F(SchemaFileTest, EndsLinesAtNulBytesAndPassesOverEmptyOnes) {
  const auto lines = Read(std::string("\n\n1#T a:%i4\0\0\n2#U b:%i4\n", 24));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(lines[0].endedByNul);
  EXPECT_EQ(lines[0].offset, 2u);
  EXPECT_FALSE(lines[1].endedByNul);
  EXPECT_EQ(lines[1].id, 2);
}

TEST_F(SchemaFileTest, KeepsNoLineLongerThanItsLimit) {
  const std::string fits = "1#T " + std::string(kMaxSchemaLine - 4, 'x');
  auto lines = Read(fits + "\n" + fits + "x\n2#U b:%i4\n");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].line.size(), kMaxSchemaLine);
  EXPECT_EQ(lines[1].size, kMaxSchemaLine + 1);
  EXPECT_TRUE(lines[1].line.empty());
  EXPECT_FALSE(lines[1].isRecordType);
  EXPECT_EQ(lines[2].id, 2);
}

}  // namespace
}  // namespace Kestrun::Inspect
