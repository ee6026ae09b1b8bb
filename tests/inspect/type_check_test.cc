#include "inspect/type_check.h"

#include <gtest/gtest.h>

#include "tests/inspect/forged_files.h"

namespace Kestrun::Inspect {
namespace {

using namespace Kestrun::Testing;

// A value with the number of a type before its fields.
std::string RecordBytes(uint16_t id, const std::string& fields) {
  std::string bytes;
  Append16(&bytes, id);
  return bytes + fields;
}

std::string Sized(const std::string& text) {
  std::string bytes;
  Append32(&bytes, static_cast<uint32_t>(text.size()));
  return bytes + text;
}

TEST(RecordShapeTest, AValueHasExactlyTheBytesOfItsFields) {
  const std::string four(4, '\1');
  const std::string eight(8, '\1');
  const struct {
    const char* type;
    std::string fields;
    bool fits;
  } rows[] = {{"T a:%i4", four, true},
              {"T a:%f", four, true},
              {"T a:%i4", four + "x", false},
              {"T a:%i4", four.substr(1), false},
              {"T a:%i8,b:%d", eight + eight, true},
              {"T a:%i8,b:%d", eight + four, false},
              {"T a:%s", Sized("text"), true},
              {"T a:%s", Sized("text").substr(0, 7), false},
              {"T a:%s", std::string(4, '\xFF'), false},
              {"T a:%i4,b:*", four, true},
              {"T a:%i4,b:*", four + Sized("bytes"), true},
              {"T a:%i4,b:*", four + "by", false},
              {"T a:%x4", four, false},
              {"T", four, false}};
  for (const auto& row : rows) {
    EXPECT_EQ(RecordShape(row.type).Fits(RecordBytes(1, row.fields)), row.fits) << row.type;
  }
  EXPECT_FALSE(RecordShape("T a:%i4").Fits(""));
}

TEST(RecordShapeTest, SomeTypesCanJudgeNoValue) {
  EXPECT_TRUE(RecordShape("T a:%i4").CanJudge());
  EXPECT_TRUE(RecordShape("T a:%x4").CanJudge())
      << "its fields store nothing, and a value is longer than that";
  EXPECT_FALSE(RecordShape("T a:*,b:%i4").CanJudge());
  EXPECT_FALSE(RecordShape("T").CanJudge());
  EXPECT_FALSE(RecordShape("").CanJudge());
}

TEST(TypeCheckTest, MostValuesTellWhetherATypeIsDamaged) {
  TypeCheck check({{1, "T a:%i4"}, {2, "U a:%i4"}}, true);
  const std::string four(4, '\1');
  EXPECT_TRUE(check.Add(RecordBytes(1, four)));
  EXPECT_TRUE(check.Add(RecordBytes(1, four)));
  EXPECT_FALSE(check.Add(RecordBytes(1, "x")));
  EXPECT_FALSE(check.Add(RecordBytes(2, Sized("text"))));
  EXPECT_TRUE(check.Add("no record of any type"));
  const std::vector<TypeFinding> findings = check.Findings();
  ASSERT_EQ(findings.size(), 2u);
  EXPECT_FALSE(findings[0].isDamage);
  EXPECT_EQ(TypeCheck::TextOf(findings[0]),
            "1 of 3 values of the type 1 does not hold the fields of 'T a:%i4'");
  EXPECT_TRUE(findings[1].isDamage);
  EXPECT_EQ(findings[1].guess, "Recovered2 field1:%s");
  EXPECT_EQ(TypeCheck::TextOf(findings[1]), "1 value of the type 2 does not hold the fields of 'U a:%i4'");
}

TEST(TypeCheckTest, ANumberThatIsNotKnownIsALostTypeWhereThereWereTypes) {
  for (const bool hadTypes : {false, true}) {
    TypeCheck check({{1, "T a:%i4"}}, hadTypes);
    EXPECT_TRUE(check.Add(RecordBytes(1, std::string(4, '\1'))));
    EXPECT_TRUE(check.Add(RecordBytes(3, std::string(4, '\1'))));
    const std::vector<TypeFinding> findings = check.Findings();
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_EQ(findings[0].id, 3);
    EXPECT_EQ(findings[0].isDamage, hadTypes);
    EXPECT_EQ(TypeCheck::TextOf(findings[0]),
              "1 value looks like a record of the type 3, which is not known");
  }
}

}  // namespace
}  // namespace Kestrun::Inspect
