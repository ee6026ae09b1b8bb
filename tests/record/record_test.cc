#include "kestrun/record.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/file_bytes.h"

namespace Kestrun {
namespace {

using Testing::FromHex;
using Testing::ToHex;

constexpr unsigned short kId = 0x0201;

std::unique_ptr<RecordMeta> Meta(const std::string& text) {
  return std::unique_ptr<RecordMeta>(RecordMeta::Create(kId, text));
}

// A record as Series::Get makes it: the buffer is exactly as long as the bytes, so that any step outside is
// seen by the sanitizer.
std::unique_ptr<Record> Decode(const RecordMeta& meta, const std::string& bytes) {
  auto* buffer = static_cast<unsigned char*>(std::malloc(bytes.empty() ? 1 : bytes.size()));
  std::memcpy(buffer, bytes.data(), bytes.size());
  return std::make_unique<Record>(&meta, buffer, static_cast<unsigned int>(bytes.size()));
}

// What Encode writes into a buffer of Capacity() bytes that held 0xEE before.
std::string Encode(Record& record) {
  std::string bytes(record.Capacity(), '\xEE');
  record.Encode(reinterpret_cast<unsigned char*>(bytes.data()));
  return bytes;
}

std::string EncodeHex(const RecordMeta& meta, std::vector<Value> values) {
  Record record(&meta, std::move(values));
  return ToHex(Encode(record));
}

std::unique_ptr<Record> FromArguments(const RecordMeta* meta, ...) {
  va_list args;
  va_start(args, meta);
  auto record = std::make_unique<Record>(meta, args);
  va_end(args);
  return record;
}

unsigned int CountValues(const Record& record) {
  unsigned int count = 0;
  while (record.GetValue(count).type != ValueType::None) ++count;
  return count;
}

std::string BytesOf(const Value& value) {
  EXPECT_EQ(value.type, ValueType::Binary);
  return std::string(static_cast<const char*>(value.binary), value.binarySize);
}

TEST(RecordEncode, WritesIdNumberAndTextBackToBack) {
  const auto meta = Meta("T a:%i4,b:%s");
  Record record(meta.get(), {Value::Int32Value(7), Value::StringValue("hi")});
  EXPECT_EQ(record.Capacity(), 12U);
  EXPECT_EQ(ToHex(Encode(record)), "01 02 07 00 00 00 02 00 00 00 68 69");
}

TEST(RecordEncode, WritesEveryTypeLittleEndianWithoutPadding) {
  const auto meta = Meta("T b:%s,i:%i4,l:%i8,f:%f,d:%d,n:%x,r:*");
  Record record(meta.get(),
                {Value::StringValue(std::string("\0", 1)), Value::Int32Value(-2), Value::Int64Value(-3),
                 Value::FloatValue(1.5F), Value::DoubleValue(-0.1), Value(), Value::BinaryValue("xyz", 3)});
  EXPECT_EQ(record.Capacity(), 2U + 5 + 4 + 8 + 4 + 8 + 0 + 7);
  EXPECT_EQ(ToHex(Encode(record)),
            "01 02 01 00 00 00 00 fe ff ff ff fd ff ff ff ff ff ff ff 00 00 c0 3f "
            "9a 99 99 99 99 99 b9 bf 03 00 00 00 78 79 7a");
}

TEST(RecordEncode, RecordTypeWithoutFieldsIsItsIdAlone) {
  const auto meta = Meta("T x");
  Record record(meta.get(), std::vector<Value>());
  EXPECT_EQ(record.Capacity(), 2U);
  EXPECT_EQ(ToHex(Encode(record)), "01 02");
  EXPECT_EQ(CountValues(*Decode(*meta, Encode(record))), 0U);
}

TEST(RecordEncode, ConvertsEachValueToItsField) {
  EXPECT_EQ(EncodeHex(*Meta("T a:%i4"), {Value::StringValue("12")}), "01 02 0c 00 00 00");
  EXPECT_EQ(EncodeHex(*Meta("T a:%d"), {Value::Int32Value(3)}), "01 02 00 00 00 00 00 00 08 40");
  EXPECT_EQ(EncodeHex(*Meta("T a:%i8"), {Value::Int32Value(-1)}), "01 02 ff ff ff ff ff ff ff ff");
  EXPECT_EQ(EncodeHex(*Meta("T a:%i8"), {Value::StringValue("3000000000")}), "01 02 00 5e d0 b2 ff ff ff ff");
  EXPECT_EQ(EncodeHex(*Meta("T a:%f"), {Value::StringValue("1.5 m")}), "01 02 00 00 c0 3f");
  EXPECT_EQ(EncodeHex(*Meta("T a:%i4"), {Value::BinaryValue("xyz", 3)}), "01 02 00 00 00 00");
  EXPECT_EQ(EncodeHex(*Meta("T a:%s"), {Value::BinaryValue("xyz", 3)}), "01 02 00 00 00 00");
  EXPECT_EQ(EncodeHex(*Meta("T a:%s"), {Value()}), "01 02 00 00 00 00");
}

TEST(RecordEncode, LeavesTheValuesOfTheRecordAsTheyAre) {
  const auto meta = Meta("T a:%i4");
  Record record(meta.get(), {Value::StringValue("12")});
  Encode(record);
  EXPECT_EQ(record.GetValue(0U).type, ValueType::String);
  EXPECT_EQ(record.GetValue(0U).str, "12");
}

TEST(RecordEncode, TakesAnUnknownTypeOfValueAsItIs) {
  const auto meta = Meta("T a:%i4,b:%s");
  Value number = Value::Int32Value(7);
  number.type = static_cast<ValueType>(200);
  Value text = Value::StringValue("hi");
  text.type = static_cast<ValueType>(200);
  EXPECT_EQ(EncodeHex(*meta, {number, text}), "01 02 07 00 00 00 02 00 00 00 68 69");
}

// The number is written whole, for which Capacity has no room: the buffer here is larger than that.
TEST(RecordEncode, NumberInATextFieldIsWrittenAsItsTextBeyondTheCapacity) {
  const auto meta = Meta("T a:%s,b:%i4");
  Record record(meta.get(), {Value::Int32Value(-42), Value::Int32Value(1)});
  EXPECT_EQ(record.Capacity(), 10U);
  std::string bytes(16, '\xEE');
  record.Encode(reinterpret_cast<unsigned char*>(bytes.data()));
  EXPECT_EQ(ToHex(bytes), "01 02 03 00 00 00 2d 34 32 01 00 00 00 ee ee ee");
}

TEST(RecordEncode, EmptyBinaryIsCountedButNotWritten) {
  const auto meta = Meta("T a:*");
  EXPECT_EQ(EncodeHex(*meta, {Value::BinaryValue("x", 0)}), "01 02 ee ee ee ee");
  EXPECT_EQ(EncodeHex(*meta, {Value::BinaryValue(nullptr, 0)}), "01 02 ee ee ee ee");
  EXPECT_EQ(EncodeHex(*meta, {Value::BinaryValue(nullptr, 2)}), "01 02 ee ee ee ee ee ee");
  EXPECT_EQ(EncodeHex(*meta, {Value::Int32Value(7)}), "01 02 ee ee ee ee");
  EXPECT_EQ(EncodeHex(*meta, {Value::StringValue("hi")}), "01 02 ee ee ee ee");
}

TEST(RecordEncode, FieldBehindAnEmptyBinaryMovesUp) {
  const auto meta = Meta("T a:*,b:%i4");
  EXPECT_EQ(EncodeHex(*meta, {Value::BinaryValue(nullptr, 0), Value::Int32Value(7)}),
            "01 02 07 00 00 00 ee ee ee ee");
}

TEST(RecordEncode, MissingNumbersAreZero) {
  EXPECT_EQ(EncodeHex(*Meta("T a:%i4,b:%i8,c:%f,d:%d"), {Value::Int32Value(7)}),
            "01 02 07 00 00 00 " + ToHex(std::string(20, '\0')));
}

TEST(RecordEncode, ValuesWithoutAFieldAreNotWritten) {
  EXPECT_EQ(EncodeHex(*Meta("T a:%i4"), {Value::Int32Value(7), Value::Int32Value(8)}), "01 02 07 00 00 00");
}

TEST(RecordEncode, WithoutARecordTypeWritesTheIdZero) {
  Record record(nullptr, {Value::Int32Value(7)});
  EXPECT_EQ(record.Capacity(), 2U);
  EXPECT_EQ(ToHex(Encode(record)), "00 00");
  EXPECT_EQ(record.GetValue("a").type, ValueType::None);
}

TEST(RecordEncode, NullFieldsOfARecordTypeStoreNothing) {
  const RecordMeta meta(kId, "", "", {nullptr, new Field{"a", ValueType::Int32}});
  Record record(&meta, {Value::Int32Value(6), Value::Int32Value(7)});
  EXPECT_EQ(ToHex(Encode(record)), "01 02 07 00 00 00");
  EXPECT_EQ(record.GetValue("a").numeric.i32, 7);
  EXPECT_EQ(Decode(meta, FromHex("01 02 07 00 00 00"))->GetValue(0U).numeric.i32, 7);
}

TEST(RecordCapacity, MeasuresTheValuesAsTheyAreHeld) {
  const auto meta = Meta("T a:%s,b:*");
  Value text = Value::Int32Value(12345);
  EXPECT_EQ(Record(meta.get(), {text, Value()}).Capacity(), 2U + 4 + 4);
  text.str = "abc";
  EXPECT_EQ(Record(meta.get(), {text, Value::BinaryValue(nullptr, 5)}).Capacity(), 2U + 7 + 9);
}

TEST(RecordCapacity, DoesNotLookAtTheValuesOfFixedWidthFields) {
  const auto meta = Meta("T a:%i4,b:%i8,c:%f,d:%d,e:%x");
  EXPECT_EQ(Record(meta.get(), std::vector<Value>()).Capacity(), 2U + 4 + 8 + 4 + 8);
}

TEST(RecordCapacityDeathTest, AbortsWithoutAValueForATextOrBinaryField) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto text = Meta("T a:%i4,b:%s");
  const auto binary = Meta("T a:*");
  Record shortOfText(text.get(), {Value::Int32Value(7)});
  Record shortOfBinary(binary.get(), std::vector<Value>());
  EXPECT_EXIT(shortOfText.Capacity(), testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(shortOfBinary.Capacity(), testing::KilledBySignal(SIGABRT), "");
}

TEST(RecordFromArguments, ReadsOneArgumentPerField) {
  const auto meta = Meta("T i:%i4,l:%i8,f:%f,d:%d,s:%s");
  std::string text = "hi";
  const auto record = FromArguments(meta.get(), -7, std::numeric_limits<long>::min(), 0.1, 0.1, text.c_str());
  text = "--";
  EXPECT_EQ(CountValues(*record), 5U);
  EXPECT_EQ(record->GetValue("i").numeric.i32, -7);
  EXPECT_EQ(record->GetValue("l").numeric.i64, std::numeric_limits<int64_t>::min());
  EXPECT_EQ(record->GetValue("f").type, ValueType::Float);
  EXPECT_EQ(record->GetValue("f").numeric.f32, 0.1F);
  EXPECT_EQ(record->GetValue("d").numeric.f64, 0.1);
  EXPECT_EQ(record->GetValue("s").str, "hi");
}

TEST(RecordFromArguments, BinaryAndUnknownFieldsTakeNoArgumentAndNoPlace) {
  const auto meta = Meta("T a:%i4,b:*,c:%x,d:%s");
  const auto record = FromArguments(meta.get(), 7, "hi");
  EXPECT_EQ(CountValues(*record), 2U);
  EXPECT_EQ(record->GetValue(0U).numeric.i32, 7);
  EXPECT_EQ(record->GetValue(1U).str, "hi");
  // By name the value is found in the field's place, which is no longer its own.
  EXPECT_EQ(record->GetValue("b").str, "hi");
  EXPECT_EQ(record->GetValue("d").type, ValueType::None);
}

TEST(RecordFromArguments, NullTextIsEmpty) {
  const auto meta = Meta("T a:%s,b:%i4");
  const auto record = FromArguments(meta.get(), static_cast<const char*>(nullptr), 7);
  EXPECT_EQ(record->GetValue("a").type, ValueType::String);
  EXPECT_EQ(record->GetValue("a").str, "");
  EXPECT_EQ(record->GetValue("b").numeric.i32, 7);
}

TEST(RecordGetValue, CopiesByPositionAndByName) {
  const auto meta = Meta("T a:%i4,b:%s,c:%i4");
  Record record(meta.get(), {Value::Int32Value(1), Value::StringValue("two"), Value::Int32Value(3)});
  EXPECT_EQ(record.GetValue(0U).numeric.i32, 1);
  EXPECT_EQ(record.GetValue(1U).str, "two");
  EXPECT_EQ(record.GetValue("c").numeric.i32, 3);
  Value copy = record.GetValue("b");
  copy.str = "changed";
  EXPECT_EQ(record.GetValue("b").str, "two");
}

TEST(RecordGetValue, IsNoneWhereThereIsNothing) {
  const auto meta = Meta("T a:%i4,b:%s,c:%i4");
  Record record(meta.get(), {Value::Int32Value(1), Value::StringValue("two"), Value::Int32Value(3)});
  EXPECT_EQ(record.GetValue(3U).type, ValueType::None);
  EXPECT_EQ(record.GetValue(5U).type, ValueType::None);
  EXPECT_EQ(record.GetValue(4294967295U).type, ValueType::None);
  EXPECT_EQ(record.GetValue("d").type, ValueType::None);
  EXPECT_EQ(record.GetValue("A").type, ValueType::None);
  EXPECT_EQ(record.GetValue("").type, ValueType::None);
}

TEST(RecordGetValue, ByNameNeverLooksBehindTheValues) {
  const auto meta = Meta("T a:%i4,b:%s,c:%i4");
  Record record(meta.get(), {Value::Int32Value(1)});
  EXPECT_EQ(record.GetValue("b").type, ValueType::None);
  EXPECT_EQ(record.GetValue("c").type, ValueType::None);
}

TEST(RecordGetValue, TakesTheFirstOfTwoFieldsWithOneName) {
  const auto meta = Meta("T a:%i4,a:%i4,:%i4");
  Record record(meta.get(), {Value::Int32Value(1), Value::Int32Value(2), Value::Int32Value(3)});
  EXPECT_EQ(record.GetValue("a").numeric.i32, 1);
  EXPECT_EQ(record.GetValue("").numeric.i32, 3);
}

TEST(RecordDecode, ReadsBackEveryType) {
  const auto meta = Meta("T b:%s,i:%i4,l:%i8,f:%f,d:%d,n:%x,r:*");
  const auto record = Decode(*meta, FromHex("01 02 02 00 00 00 68 69 fe ff ff ff fd ff ff ff ff ff ff ff "
                                            "00 00 c0 3f 9a 99 99 99 99 99 b9 bf 03 00 00 00 78 79 7a"));
  EXPECT_EQ(CountValues(*record), 6U);
  EXPECT_EQ(record->GetValue(0U).str, "hi");
  EXPECT_EQ(record->GetValue(1U).numeric.i32, -2);
  EXPECT_EQ(record->GetValue(2U).numeric.i64, -3);
  EXPECT_EQ(record->GetValue(3U).numeric.f32, 1.5F);
  EXPECT_EQ(record->GetValue(4U).numeric.f64, -0.1);
  EXPECT_EQ(BytesOf(record->GetValue(5U)), "xyz");
}

TEST(RecordDecode, DoesNotCompareTheIdWithTheRecordType) {
  const auto meta = Meta("T a:%i4");
  EXPECT_EQ(Decode(*meta, FromHex("ff ff 07 00 00 00"))->GetValue("a").numeric.i32, 7);
}

TEST(RecordDecode, TwoBytesOrFewerHoldNoValues) {
  const auto meta = Meta("T a:%i4,b:%s");
  for (const char* bytes : {"", "01", "01 02"}) EXPECT_EQ(CountValues(*Decode(*meta, FromHex(bytes))), 0U);
}

TEST(RecordDecode, TextAsLongAsTheRecordIsEmptyAndTheLast) {
  const auto meta = Meta("T a:%s,b:%i4");
  // Ten bytes: a length of 9 is taken, with zeros after the end; one of 10 or more is not.
  const auto fits = Decode(*meta, FromHex("01 02 09 00 00 00 61 62 63 64"));
  EXPECT_EQ(CountValues(*fits), 1U);
  EXPECT_EQ(fits->GetValue(0U).str, std::string("abcd\0\0\0\0\0", 9));
  for (const char* length : {"0a 00 00 00", "ff ff ff 7f", "f8 ff ff ff", "ff ff ff ff"}) {
    const auto record = Decode(*meta, FromHex(std::string("01 02 ") + length + " 61 62 63 64"));
    EXPECT_EQ(CountValues(*record), 1U) << length;
    EXPECT_EQ(record->GetValue(0U).type, ValueType::String) << length;
    EXPECT_EQ(record->GetValue(0U).str, "") << length;
  }
}

TEST(RecordDecode, FieldBehindABinaryIsReadFromTheBytesOfTheBinary) {
  const auto meta = Meta("T a:*,b:%i4");
  const auto record = Decode(*meta, FromHex("01 02 03 00 00 00 61 62 63 07 00 00 00"));
  EXPECT_EQ(CountValues(*record), 2U);
  EXPECT_EQ(BytesOf(record->GetValue(0U)), "abc");
  EXPECT_EQ(record->GetValue(1U).numeric.i32, 0x07636261);
}

TEST(RecordDecode, EmptyBinaryGivesNoValueAndTheNextFieldFollowsItsLength) {
  const auto meta = Meta("T a:*,b:%i4");
  const auto record = Decode(*meta, FromHex("01 02 00 00 00 00 07 00 00 00"));
  EXPECT_EQ(CountValues(*record), 1U);
  EXPECT_EQ(record->GetValue(0U).numeric.i32, 7);
}

TEST(RecordDecode, BinaryThatIsCutOffGivesNoValue) {
  const auto meta = Meta("T a:*");
  EXPECT_EQ(BytesOf(Decode(*meta, FromHex("01 02 02 00 00 00 61 62"))->GetValue(0U)), "ab");
  EXPECT_EQ(CountValues(*Decode(*meta, FromHex("01 02 03 00 00 00 61 62"))), 0U);
  EXPECT_EQ(CountValues(*Decode(*meta, FromHex("01 02 ff ff ff ff 61 62"))), 0U);
  EXPECT_EQ(CountValues(*Decode(*meta, FromHex("01 02 01 00 00 00"))), 0U);
}

// What is there of the length counts, whatever there is after it: the bytes are zero, and really there.
TEST(RecordDecode, BinaryWhoseLengthIsCutOffHasZerosForBytes) {
  const auto meta = Meta("T a:*,b:*");
  const auto record = Decode(*meta, FromHex("01 02 01 00 00 00 04 00 00"));
  // The second field is read from the one byte of the first: 04 00 00 and a zero that is not there.
  EXPECT_EQ(CountValues(*record), 2U);
  EXPECT_EQ(BytesOf(record->GetValue(0U)), std::string("\x04", 1));
  EXPECT_EQ(BytesOf(record->GetValue(1U)), std::string(4, '\0'));

  const auto large = Decode(*meta, FromHex("01 02 ff ff ff"));
  EXPECT_EQ(CountValues(*large), 1U);
  EXPECT_EQ(BytesOf(large->GetValue(0U)), std::string(0xFFFFFF, '\0'));
}

TEST(RecordDecode, CutAtEveryLengthTheMissingBytesAreZero) {
  const auto meta = Meta("T i:%i4,l:%i8,f:%f,d:%d");
  const std::string whole = FromHex("01 02 " + ToHex(std::string(24, '\x3F')));
  for (size_t length = 0; length <= whole.size(); ++length) {
    const auto cut = Decode(*meta, whole.substr(0, length));
    std::string padded = whole.substr(0, length);
    padded.resize(whole.size());
    const auto expected = Decode(*meta, padded);

    const unsigned int starts[] = {2, 6, 14, 18};
    for (unsigned int i = 0; i < 4; ++i) {
      const Value value = cut->GetValue(i);
      if (length < 3 || length <= starts[i]) {
        EXPECT_EQ(value.type, ValueType::None) << length << ' ' << i;
        continue;
      }
      EXPECT_EQ(value.type, expected->GetValue(i).type) << length << ' ' << i;
      EXPECT_EQ(value.numeric.i64, expected->GetValue(i).numeric.i64) << length << ' ' << i;
    }
  }
}

TEST(RecordDecode, UnknownFieldsTakeNoBytes) {
  const auto meta = Meta("T a:%x,b:%i4");
  const auto record = Decode(*meta, FromHex("01 02 07 00 00 00"));
  EXPECT_EQ(CountValues(*record), 1U);
  EXPECT_EQ(record->GetValue(0U).numeric.i32, 7);
}

TEST(RecordDecode, NullBufferHoldsNoValues) {
  const auto meta = Meta("T a:%i4");
  const Record record(meta.get(), nullptr, 100);
  EXPECT_EQ(CountValues(record), 0U);
}

TEST(RecordDecode, DecodedRecordEncodesToItsBytes) {
  const auto meta = Meta("T a:%i4,b:%s,c:*");
  const std::string bytes = FromHex("01 02 07 00 00 00 02 00 00 00 68 69 03 00 00 00 78 79 7a");
  const auto record = Decode(*meta, bytes);
  EXPECT_EQ(ToHex(Encode(*record)), ToHex(bytes));
}

}  // namespace
}  // namespace Kestrun
