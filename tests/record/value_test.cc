#include "kestrun/value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>

namespace Kestrun {
namespace {

const unsigned char kBytes[] = {1, 2, 3};

Value Converted(Value value, ValueType target) {
  value.ConvertTo(target);
  EXPECT_EQ(value.type, target);
  return value;
}

int32_t ToInt32(const Value& value) {
  return Converted(value, ValueType::Int32).numeric.i32;
}
int64_t ToInt64(const Value& value) {
  return Converted(value, ValueType::Int64).numeric.i64;
}
float ToFloat(const Value& value) {
  return Converted(value, ValueType::Float).numeric.f32;
}
double ToDouble(const Value& value) {
  return Converted(value, ValueType::Double).numeric.f64;
}
std::string ToText(const Value& value) {
  return Converted(value, ValueType::String).str;
}

// Every member but the type.
void ExpectSameContent(const Value& value, const Value& expected) {
  EXPECT_EQ(std::memcmp(&value.numeric, &expected.numeric, sizeof(value.numeric)), 0);
  EXPECT_EQ(value.str, expected.str);
  EXPECT_EQ(value.binary, expected.binary);
  EXPECT_EQ(value.binarySize, expected.binarySize);
}

// A value in which every member holds something.
Value Crowded(ValueType type) {
  Value value;
  value.type = type;
  value.numeric.i64 = 0x4008000000000007;
  value.str = "12abc";
  value.binary = kBytes;
  value.binarySize = sizeof(kBytes);
  return value;
}

ValueType Unknown(uint8_t number) {
  return static_cast<ValueType>(number);
}

TEST(ValueLayout, HasTheMembersThatCallersCompileAgainst) {
  static_assert(sizeof(ValueType) == 1);
  static_assert(std::is_same_v<std::underlying_type_t<ValueType>, uint8_t>);
  EXPECT_EQ(static_cast<int>(ValueType::None), 0);
  EXPECT_EQ(static_cast<int>(ValueType::Int32), 1);
  EXPECT_EQ(static_cast<int>(ValueType::Int64), 2);
  EXPECT_EQ(static_cast<int>(ValueType::Float), 3);
  EXPECT_EQ(static_cast<int>(ValueType::Double), 4);
  EXPECT_EQ(static_cast<int>(ValueType::String), 5);
  EXPECT_EQ(static_cast<int>(ValueType::Binary), 6);

  const Value value = {};
  const auto* start = reinterpret_cast<const char*>(&value);
  EXPECT_EQ(reinterpret_cast<const char*>(&value.type) - start, 0);
  EXPECT_EQ(reinterpret_cast<const char*>(&value.numeric) - start, 8);
  EXPECT_EQ(sizeof(value.numeric), 8U);
  EXPECT_EQ(reinterpret_cast<const char*>(&value.str) - start, 16);
  const auto afterText = static_cast<ptrdiff_t>(16 + sizeof(std::string));
  EXPECT_EQ(reinterpret_cast<const char*>(&value.binary) - start, afterText);
  EXPECT_EQ(reinterpret_cast<const char*>(&value.binarySize) - start, afterText + 8);
  EXPECT_EQ(sizeof(Value), 16 + sizeof(std::string) + 16);
}

TEST(ValueLayout, NarrowViewsLieInTheFirstBytesOfTheUnion) {
  Value value;
  value.numeric.i64 = 0x1122334455667788;
  EXPECT_EQ(value.numeric.i32, 0x55667788);
  value.numeric.f32 = 1.5F;
  EXPECT_EQ(static_cast<uint32_t>(value.numeric.i64), 0x3FC00000U);
}

TEST(ValueFactories, DefaultValueIsNoneWithNothingInIt) {
  const Value value;
  EXPECT_EQ(value.type, ValueType::None);
  EXPECT_EQ(value.numeric.i64, 0);
  EXPECT_EQ(value.str, "");
  EXPECT_EQ(value.binary, nullptr);
  EXPECT_EQ(value.binarySize, 0U);
}

TEST(ValueFactories, EachSetsItsPayloadAndTypeAndLeavesTheRestEmpty) {
  Value expected;
  expected.numeric.i32 = -7;
  EXPECT_EQ(Value::Int32Value(-7).type, ValueType::Int32);
  ExpectSameContent(Value::Int32Value(-7), expected);

  expected = Value();
  expected.numeric.i64 = std::numeric_limits<int64_t>::min();
  EXPECT_EQ(Value::Int64Value(std::numeric_limits<long>::min()).type, ValueType::Int64);
  ExpectSameContent(Value::Int64Value(std::numeric_limits<long>::min()), expected);

  expected = Value();
  expected.numeric.f32 = 0.1F;
  EXPECT_EQ(Value::FloatValue(0.1F).type, ValueType::Float);
  ExpectSameContent(Value::FloatValue(0.1F), expected);

  expected = Value();
  expected.numeric.f64 = 0.1;
  EXPECT_EQ(Value::DoubleValue(0.1).type, ValueType::Double);
  ExpectSameContent(Value::DoubleValue(0.1), expected);

  expected = Value();
  expected.str = std::string("a\0b", 3);
  EXPECT_EQ(Value::StringValue(expected.str).type, ValueType::String);
  ExpectSameContent(Value::StringValue(expected.str), expected);

  expected = Value();
  expected.binary = kBytes;
  expected.binarySize = 3;
  EXPECT_EQ(Value::BinaryValue(kBytes, 3).type, ValueType::Binary);
  ExpectSameContent(Value::BinaryValue(kBytes, 3), expected);
}

TEST(ValueFactories, BinaryTakesAnyPointerAndAnySize) {
  const Value value = Value::BinaryValue(nullptr, 4294967295U);
  EXPECT_EQ(value.binary, nullptr);
  EXPECT_EQ(value.binarySize, 4294967295U);
}

TEST(ValueCopies, OfABinaryPointAtTheBytesOfTheCaller) {
  Value copy;
  {
    const Value first = Value::BinaryValue(kBytes, 3);
    copy = first;
  }
  EXPECT_EQ(copy.type, ValueType::Binary);
  EXPECT_EQ(copy.binary, kBytes);
  EXPECT_EQ(copy.binarySize, 3U);
  const Value moved = std::move(copy);
  EXPECT_EQ(moved.binary, kBytes);
}

TEST(ValueConvertTo, ItsOwnTypeLeavesEveryMemberUntouched) {
  for (uint8_t number = 0; number <= 8; ++number) {
    Value value = Crowded(Unknown(number));
    value.ConvertTo(Unknown(number));
    EXPECT_EQ(value.type, Unknown(number));
    ExpectSameContent(value, Crowded(ValueType::None));
  }
}

TEST(ValueConvertTo, NoneBinaryAndUnknownTypesOnlyChangeTheLabel) {
  for (const ValueType target : {ValueType::None, ValueType::Binary, Unknown(7), Unknown(255)}) {
    for (uint8_t source = 0; source <= 8; ++source) {
      Value value = Crowded(Unknown(source));
      value.ConvertTo(target);
      EXPECT_EQ(value.type, target);
      ExpectSameContent(value, Crowded(ValueType::None));
    }
  }
}

TEST(ValueConvertTo, FromAnUnknownTypeOnlyChangesTheLabel) {
  for (uint8_t target = 0; target <= 6; ++target) {
    Value value = Crowded(Unknown(9));
    value.ConvertTo(Unknown(target));
    EXPECT_EQ(value.type, Unknown(target));
    ExpectSameContent(value, Crowded(ValueType::None));
  }
}

TEST(ValueConvertTo, NoneAndBinaryAreZeroAsNumbers) {
  for (const ValueType source : {ValueType::None, ValueType::Binary}) {
    EXPECT_EQ(ToInt32(Crowded(source)), 0);
    EXPECT_EQ(ToInt64(Crowded(source)), 0);
    EXPECT_EQ(ToDouble(Crowded(source)), 0.0);
    const Value asFloat = Converted(Crowded(source), ValueType::Float);
    EXPECT_EQ(asFloat.numeric.i32, 0);  // all four bytes
  }
}

TEST(ValueConvertTo, NoneAndBinaryKeepTheTextThatTheyHoldAsString) {
  EXPECT_EQ(ToText(Value()), "");
  EXPECT_EQ(ToText(Value::BinaryValue(kBytes, 3)), "");
  EXPECT_EQ(ToText(Crowded(ValueType::None)), "12abc");
  EXPECT_EQ(ToText(Crowded(ValueType::Binary)), "12abc");
}

TEST(ValueConvertTo, DefaultValueIsZeroAndEmptyText) {
  EXPECT_EQ(ToDouble(Value()), 0.0);
  EXPECT_FALSE(std::signbit(ToDouble(Value())));
  EXPECT_EQ(ToText(Value()), "");
}

TEST(ValueConvertTo, Int32WidensToEveryNumber) {
  constexpr int kLowest = std::numeric_limits<int>::min();
  EXPECT_EQ(ToInt64(Value::Int32Value(-7)), -7);
  EXPECT_EQ(ToInt64(Value::Int32Value(kLowest)), -2147483648L);
  EXPECT_EQ(ToFloat(Value::Int32Value(16777217)), 16777216.0F);  // to nearest, ties to even
  EXPECT_EQ(ToFloat(Value::Int32Value(16777219)), 16777220.0F);
  EXPECT_EQ(ToDouble(Value::Int32Value(16777217)), 16777217.0);
  EXPECT_EQ(ToText(Value::Int32Value(kLowest)), "-2147483648");
}

TEST(ValueConvertTo, Int64KeepsItsLowBitsAsInt32) {
  EXPECT_EQ(ToInt32(Value::Int64Value((1L << 32) + 5)), 5);
  EXPECT_EQ(ToInt32(Value::Int64Value(0x80000000L)), std::numeric_limits<int>::min());
  EXPECT_EQ(ToInt32(Value::Int64Value(-1)), -1);
}

TEST(ValueConvertTo, Int64GoesToTheNearestRealNumber) {
  EXPECT_EQ(ToFloat(Value::Int64Value(16777217)), 16777216.0F);
  EXPECT_EQ(ToDouble(Value::Int64Value((1L << 53) + 1)), 9007199254740992.0);
  EXPECT_EQ(ToDouble(Value::Int64Value((1L << 53) + 3)), 9007199254740996.0);
  EXPECT_EQ(ToText(Value::Int64Value(std::numeric_limits<long>::min())), "-9223372036854775808");
}

TEST(ValueConvertTo, RealNumbersAreCutTowardZero) {
  const struct {
    double number;
    int cut;
  } rows[] = {{-2.7, -2}, {2.7, 2}, {-0.9, 0}, {0.0, 0}, {1e-300, 0}};
  for (const auto& row : rows) {
    EXPECT_EQ(ToInt32(Value::DoubleValue(row.number)), row.cut) << row.number;
    EXPECT_EQ(ToInt64(Value::DoubleValue(row.number)), row.cut) << row.number;
    EXPECT_EQ(ToInt32(Value::FloatValue(static_cast<float>(row.number))), row.cut) << row.number;
    EXPECT_EQ(ToInt64(Value::FloatValue(static_cast<float>(row.number))), row.cut) << row.number;
  }
}

TEST(ValueConvertTo, RealNumbersOutsideTheRangeBecomeItsNearestEnd) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const struct {
    double number;
    int asInt32;
    long asInt64;
  } rows[] = {
      {2147483647.0, 2147483647, 2147483647},
      {2147483647.9, 2147483647, 2147483647},
      {2147483648.0, 2147483647, 2147483648},
      {-2147483648.9, std::numeric_limits<int>::min(), -2147483648},
      {-2147483649.0, std::numeric_limits<int>::min(), -2147483649},
      {9223372036854774784.0, 2147483647, 9223372036854774784},
      {9223372036854775808.0, 2147483647, std::numeric_limits<long>::max()},
      {-9223372036854775808.0, std::numeric_limits<int>::min(), std::numeric_limits<long>::min()},
      {-1e300, std::numeric_limits<int>::min(), std::numeric_limits<long>::min()},
      {kInfinity, 2147483647, std::numeric_limits<long>::max()},
      {-kInfinity, std::numeric_limits<int>::min(), std::numeric_limits<long>::min()},
      {std::numeric_limits<double>::quiet_NaN(), 0, 0},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ToInt32(Value::DoubleValue(row.number)), row.asInt32) << row.number;
    EXPECT_EQ(ToInt64(Value::DoubleValue(row.number)), row.asInt64) << row.number;
  }
  EXPECT_EQ(ToInt32(Value::FloatValue(2147483648.0F)), 2147483647);
  EXPECT_EQ(ToInt32(Value::FloatValue(-2147483648.0F)), std::numeric_limits<int>::min());
  EXPECT_EQ(ToInt32(Value::FloatValue(2147483520.0F)), 2147483520);
  EXPECT_EQ(ToInt64(Value::FloatValue(9223372036854775808.0F)), std::numeric_limits<long>::max());
  EXPECT_EQ(ToInt64(Value::FloatValue(std::numeric_limits<float>::quiet_NaN())), 0);
}

TEST(ValueConvertTo, DoubleThroughFloatIsTheDoubleNearestToTheFloat) {
  Value value = Value::DoubleValue(0.1);
  value.ConvertTo(ValueType::Float);
  EXPECT_EQ(value.numeric.f32, 0.1F);
  value.ConvertTo(ValueType::Double);
  EXPECT_EQ(value.numeric.f64, 0.10000000149011612);
  EXPECT_NE(value.numeric.f64, 0.1);
  EXPECT_TRUE(std::isinf(ToFloat(Value::DoubleValue(1e300))));
}

TEST(ValueConvertTo, RealNumbersHaveSixDigitsBehindThePoint) {
  EXPECT_EQ(ToText(Value::FloatValue(1.5F)), "1.500000");
  EXPECT_EQ(ToText(Value::FloatValue(-2.7F)), "-2.700000");
  EXPECT_EQ(ToText(Value::DoubleValue(0.1234567)), "0.123457");
  EXPECT_EQ(ToText(Value::DoubleValue(-0.0)), "-0.000000");
  EXPECT_EQ(ToText(Value::DoubleValue(std::numeric_limits<double>::infinity())), "inf");
}

TEST(ValueConvertTo, TheLongestNumberIsWrittenWhole) {
  const double lowest = std::numeric_limits<double>::lowest();
  const std::string text = ToText(Value::DoubleValue(lowest));
  EXPECT_EQ(text, std::to_string(lowest));
  EXPECT_EQ(text.size(), 317U);
}

TEST(ValueConvertTo, TextIsReadUpToWhatIsNoNumber) {
  const struct {
    const char* text;
    int asInteger;
    double asReal;
  } rows[] = {{"42abc", 42, 42.0}, {"abc", 0, 0.0},
              {"", 0, 0.0},        {" \t\n-7", -7, -7.0},
              {"12", 12, 12.0},    {"1.5e2rest", 1, 150.0},
              {"+3", 3, 3.0},      {"- 3", 0, 0.0},
              {"0x1A", 0, 26.0},   {"2147483647", 2147483647, 2147483647.0},
              {".5", 0, 0.5}};
  for (const auto& row : rows) {
    EXPECT_EQ(ToInt32(Value::StringValue(row.text)), row.asInteger) << row.text;
    EXPECT_EQ(ToInt64(Value::StringValue(row.text)), row.asInteger) << row.text;
    EXPECT_EQ(ToFloat(Value::StringValue(row.text)), static_cast<float>(row.asReal)) << row.text;
    EXPECT_EQ(ToDouble(Value::StringValue(row.text)), row.asReal) << row.text;
  }
}

TEST(ValueConvertTo, NoTextGivesAnIntegerOfMoreThan32Bits) {
  EXPECT_EQ(ToInt64(Value::StringValue("3000000000")), -1294967296);
  EXPECT_EQ(ToInt64(Value::StringValue("4294967301")), 5);
  EXPECT_EQ(ToInt64(Value::StringValue("99999999999999999999")), -1);
}

TEST(ValueConvertTo, TextEndsAtItsFirstNulWhenReadAsANumber) {
  EXPECT_EQ(ToInt32(Value::StringValue(std::string("1\0002", 3))), 1);
}

TEST(ValueConvertTo, MembersThatAConversionDoesNotWriteKeepTheirContent) {
  Value text = Value::StringValue("42abc");
  text.ConvertTo(ValueType::Int32);
  EXPECT_EQ(text.str, "42abc");

  Value number = Value::Int64Value(-5);
  number.ConvertTo(ValueType::String);
  EXPECT_EQ(number.str, "-5");
  EXPECT_EQ(number.numeric.i64, -5);
}

TEST(ValueConvertTo, NumberToBinaryAndBackIsZero) {
  Value value = Value::Int32Value(7);
  value.ConvertTo(ValueType::Binary);
  EXPECT_EQ(value.binary, nullptr);
  EXPECT_EQ(value.binarySize, 0U);
  value.ConvertTo(ValueType::Int32);
  EXPECT_EQ(value.numeric.i32, 0);
}

TEST(ValueConvertTo, TextDoesNotBecomeBytesNorBytesText) {
  Value text = Value::StringValue("hi");
  text.ConvertTo(ValueType::Binary);
  EXPECT_EQ(text.binary, nullptr);
  EXPECT_EQ(text.binarySize, 0U);
  EXPECT_EQ(text.str, "hi");

  Value bytes = Value::BinaryValue(kBytes, 3);
  bytes.ConvertTo(ValueType::String);
  EXPECT_EQ(bytes.type, ValueType::String);
  EXPECT_EQ(bytes.str, "");
}

TEST(ValueConvertTo, BinaryToNoneKeepsThePointer) {
  Value value = Value::BinaryValue(kBytes, 3);
  value.ConvertTo(ValueType::None);
  EXPECT_EQ(value.binary, kBytes);
  EXPECT_EQ(value.binarySize, 3U);
}

TEST(ValueConvertTo, ReplacedTextGivesItsMemoryBack) {
  Value value = Crowded(ValueType::Int32);
  value.str.assign(100000, 'x');
  value.ConvertTo(ValueType::String);
  EXPECT_EQ(value.str, "7");
  EXPECT_LT(value.str.capacity(), 1000U);
}

}  // namespace
}  // namespace Kestrun
