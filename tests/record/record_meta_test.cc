#include "kestrun/record_meta.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Kestrun {
namespace {

using FieldList = std::vector<std::pair<std::string, ValueType>>;

std::vector<std::string> Split(const std::string& text, const std::string& separator) {
  std::vector<std::string> pieces;
  SplitString(text, pieces, separator);
  return pieces;
}

std::vector<std::string> Split(const std::string& text, const std::string& separator, uint32_t limit) {
  std::vector<std::string> pieces;
  SplitString(text, pieces, separator, limit);
  return pieces;
}

using Pieces = std::vector<std::string>;

TEST(SplitString, KeepsEmptyPiecesButNoneAtTheEnd) {
  EXPECT_EQ(Split("", ","), Pieces());
  EXPECT_EQ(Split("a", ","), (Pieces{"a"}));
  EXPECT_EQ(Split("a,b", ","), (Pieces{"a", "b"}));
  EXPECT_EQ(Split(",a", ","), (Pieces{"", "a"}));
  EXPECT_EQ(Split("a,,b", ","), (Pieces{"a", "", "b"}));
  EXPECT_EQ(Split("a,", ","), (Pieces{"a"}));
  EXPECT_EQ(Split(",", ","), (Pieces{""}));
  EXPECT_EQ(Split(",,", ","), (Pieces{"", ""}));
}

TEST(SplitString, TheLastPieceOfALimitHoldsTheRest) {
  EXPECT_EQ(Split("a,b,c", ",", 1), (Pieces{"a,b,c"}));
  EXPECT_EQ(Split("a,b,c", ",", 2), (Pieces{"a", "b,c"}));
  EXPECT_EQ(Split("a,b,c", ",", 3), (Pieces{"a", "b", "c"}));
  EXPECT_EQ(Split("a,b,c", ",", 4), (Pieces{"a", "b", "c"}));
  EXPECT_EQ(Split("a,b,", ",", 2), (Pieces{"a", "b,"}));
  EXPECT_EQ(Split("a,,", ",", 2), (Pieces{"a", ","}));
  EXPECT_EQ(Split("a,", ",", 2), (Pieces{"a"}));
  EXPECT_EQ(Split("", ",", 1), Pieces());
  EXPECT_EQ(Split("a,b,c", ",", 0), (Pieces{"a", "b", "c"}));
}

TEST(SplitString, SeparatorMayBeLongerThanOneByte) {
  EXPECT_EQ(Split("a--b---c", "--"), (Pieces{"a", "b", "-c"}));
  EXPECT_EQ(Split("abc", ""), (Pieces{"abc"}));
}

TEST(SplitString, AppendsBehindWhatIsThereAndCountsOnlyItsOwnPieces) {
  Pieces pieces = {"first", "second"};
  SplitString("a,b,c", pieces, ",", 2);
  EXPECT_EQ(pieces, (Pieces{"first", "second", "a", "b,c"}));
}

TEST(ParseValueType, KnowsExactlySixTokens) {
  const struct {
    const char* token;
    ValueType type;
  } rows[] = {{"%i4", ValueType::Int32},  {"%i8", ValueType::Int64},  {"%f", ValueType::Float},
              {"%d", ValueType::Double},  {"%s", ValueType::String},  {"*", ValueType::Binary},
              {"", ValueType::None},      {"%", ValueType::None},     {"%i", ValueType::None},
              {"%I4", ValueType::None},   {"%D", ValueType::None},    {"%i2", ValueType::None},
              {" %f", ValueType::None},   {"%f ", ValueType::None},   {"**", ValueType::None},
              {"%i4:x", ValueType::None}, {"Int32", ValueType::None}, {"s", ValueType::None}};
  for (const auto& row : rows) EXPECT_EQ(ParseValueType(row.token), row.type) << row.token;
}

class RecordMetaCreateTest : public testing::Test {
 protected:
  void Create(const std::string& text) { meta_.reset(RecordMeta::Create(12, text)); }

  FieldList Fields() const {
    FieldList fields;
    for (const Field* field : meta_->fields) fields.emplace_back(field->name, field->type);
    return fields;
  }

  std::unique_ptr<RecordMeta> meta_;
};

TEST_F(RecordMetaCreateTest, KeepsIdTextNameAndFieldsInOrder) {
  const std::string text = "Point x:%i4,y:%i8,w:%f,h:%d,label:%s,raw:*";
  Create(text);
  ASSERT_NE(meta_, nullptr);
  EXPECT_EQ(meta_->id, 12);
  EXPECT_EQ(meta_->text, text);
  EXPECT_EQ(meta_->name, "Point");
  EXPECT_EQ(Fields(), (FieldList{{"x", ValueType::Int32},
                                 {"y", ValueType::Int64},
                                 {"w", ValueType::Float},
                                 {"h", ValueType::Double},
                                 {"label", ValueType::String},
                                 {"raw", ValueType::Binary}}));
}

TEST_F(RecordMetaCreateTest, NeedsABlankWithSomethingBehindIt) {
  Create("T a:%i4");
  ASSERT_NE(meta_, nullptr);
  EXPECT_EQ(meta_->name, "T");
  EXPECT_EQ(Fields(), (FieldList{{"a", ValueType::Int32}}));

  for (const char* text : {"T", "T ", "", " "}) {
    Create(text);
    EXPECT_EQ(meta_, nullptr) << '"' << text << '"';
  }
}

// The second blank is an ordinary character, and the field list that it makes up has no field in it.
TEST_F(RecordMetaCreateTest, TwoBlanksAreARecordTypeWithoutFields) {
  Create("T  ");
  ASSERT_NE(meta_, nullptr);
  EXPECT_EQ(meta_->name, "T");
  EXPECT_TRUE(meta_->fields.empty());
}

TEST_F(RecordMetaCreateTest, LeavesOutWhatIsNoField) {
  Create("T a:%i4,b");
  EXPECT_EQ(Fields(), (FieldList{{"a", ValueType::Int32}}));
  Create("T a:%i4,,b:%d,");
  EXPECT_EQ(Fields(), (FieldList{{"a", ValueType::Int32}, {"b", ValueType::Double}}));
  Create("T a:,b:%s");
  EXPECT_EQ(Fields(), (FieldList{{"b", ValueType::String}}));
  Create("T x");
  ASSERT_NE(meta_, nullptr);
  EXPECT_EQ(Fields(), FieldList());
}

TEST_F(RecordMetaCreateTest, BlanksBehindTheFirstBelongToTheNames) {
  Create("T a:%i4, b:%s");
  EXPECT_EQ(Fields(), (FieldList{{"a", ValueType::Int32}, {" b", ValueType::String}}));
}

TEST_F(RecordMetaCreateTest, FieldWithAnUnknownTokenStaysAsNone) {
  Create("T a:%I4");
  EXPECT_EQ(Fields(), (FieldList{{"a", ValueType::None}}));
  Create("T a:%i4:x");
  EXPECT_EQ(Fields(), (FieldList{{"a", ValueType::None}}));
}

TEST_F(RecordMetaCreateTest, NamesMayBeEmptyAndOccurTwice) {
  Create("T :%s");
  EXPECT_EQ(Fields(), (FieldList{{"", ValueType::String}}));
  Create("T a:%s,a:%i4");
  EXPECT_EQ(Fields(), (FieldList{{"a", ValueType::String}, {"a", ValueType::Int32}}));
  Create(" a:%i4");
  ASSERT_NE(meta_, nullptr);
  EXPECT_EQ(meta_->name, "");
  EXPECT_EQ(Fields(), (FieldList{{"a", ValueType::Int32}}));
}

TEST_F(RecordMetaCreateTest, DoesNotLookAtTheCharactersUsed) {
  const std::string text("T a#\n\0\xff:%i4", 11);
  Create(text);
  ASSERT_NE(meta_, nullptr);
  EXPECT_EQ(meta_->text, text);
  EXPECT_EQ(Fields(), (FieldList{{std::string("a#\n\0\xff", 5), ValueType::Int32}}));
}

TEST(RecordMetaEquality, ComparesTheTextsAndNothingElse) {
  const std::unique_ptr<RecordMeta> one(RecordMeta::Create(1, "T a:%i4"));
  const std::unique_ptr<RecordMeta> sameText(RecordMeta::Create(2, "T a:%i4"));
  const std::unique_ptr<RecordMeta> sameId(RecordMeta::Create(1, "T a:%i8"));
  const std::unique_ptr<RecordMeta> longer(RecordMeta::Create(1, "T a:%i4,"));
  EXPECT_TRUE(*one == *one);
  EXPECT_TRUE(*one == *sameText);
  EXPECT_FALSE(*one != *sameText);
  EXPECT_FALSE(*one == *sameId);
  EXPECT_TRUE(*one != *sameId);
  EXPECT_TRUE(*one != *longer);

  const RecordMeta otherFields(9, "T a:%i4", "U", {});
  EXPECT_TRUE(*one == otherFields);
}

TEST(RecordMetaConstructor, TakesOverTheFields) {
  const RecordMeta meta(65535, "text", "name", {new Field{"a", ValueType::Float}, nullptr});
  EXPECT_EQ(meta.id, 65535);
  EXPECT_EQ(meta.text, "text");
  EXPECT_EQ(meta.name, "name");
  ASSERT_EQ(meta.fields.size(), 2U);
  EXPECT_EQ(meta.fields[0]->name, "a");
}

}  // namespace
}  // namespace Kestrun
