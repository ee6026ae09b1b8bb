// Random record types, values and bytes. A run that fails prints how to repeat it (RC_PARAMS).
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kestrun/kestrun.h"
#include "record/schema.h"
#include "tests/support/file_bytes.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun {
namespace {

using Testing::ReadFile;
using Testing::ScratchDirectory;
using Types = std::vector<ValueType>;

constexpr unsigned short kId = 0x1234;

const char* TokenOf(ValueType type) {
  switch (type) {
    case ValueType::Int32:
      return "%i4";
    case ValueType::Int64:
      return "%i8";
    case ValueType::Float:
      return "%f";
    case ValueType::Double:
      return "%d";
    case ValueType::String:
      return "%s";
    case ValueType::Binary:
      return "*";
    default:
      return "?";
  }
}

std::string FormatOf(const Types& types) {
  std::string format = "Random ";
  for (size_t i = 0; i < types.size(); ++i) {
    format += "field" + std::to_string(i) + ":" + TokenOf(types[i]) + ",";
  }
  return format;
}

// Field types as a record needs them to read as it was written: Binary only as the last one.
rc::Gen<Types> ReadableTypes() {
  const auto plain = rc::gen::element(ValueType::None, ValueType::Int32, ValueType::Int64, ValueType::Float,
                                      ValueType::Double, ValueType::String);
  return rc::gen::map(rc::gen::pair(rc::gen::container<Types>(plain), rc::gen::arbitrary<bool>()),
                      [](std::pair<Types, bool> drawn) {
                        if (drawn.second) drawn.first.push_back(ValueType::Binary);
                        return drawn.first;
                      });
}

rc::Gen<Types> AnyTypes() {
  return rc::gen::container<Types>(rc::gen::element(ValueType::None, ValueType::Int32, ValueType::Int64,
                                                    ValueType::Float, ValueType::Double, ValueType::String,
                                                    ValueType::Binary));
}

std::string AnyBytes() {
  return *rc::gen::container<std::string>(rc::gen::arbitrary<char>());
}

// Bit patterns too, not-a-number among them.
Value AnyValue(ValueType type, std::vector<std::unique_ptr<std::string>>* owners) {
  switch (type) {
    case ValueType::Int32:
      return Value::Int32Value(*rc::gen::arbitrary<int32_t>());
    case ValueType::Int64:
      return Value::Int64Value(*rc::gen::arbitrary<int64_t>());
    case ValueType::Float: {
      const auto bits = *rc::gen::arbitrary<uint32_t>();
      float number = 0;
      std::memcpy(&number, &bits, sizeof(number));
      return Value::FloatValue(number);
    }
    case ValueType::Double: {
      const auto bits = *rc::gen::arbitrary<uint64_t>();
      double number = 0;
      std::memcpy(&number, &bits, sizeof(number));
      return Value::DoubleValue(number);
    }
    case ValueType::String:
      return Value::StringValue(*rc::gen::arbitrary<bool>() ? std::to_string(*rc::gen::arbitrary<int>())
                                                            : AnyBytes());
    case ValueType::Binary:
      owners->push_back(std::make_unique<std::string>(AnyBytes()));
      return Value::BinaryValue(owners->back()->data(), static_cast<unsigned int>(owners->back()->size()));
    default:
      return Value();
  }
}

// Equal in type and in payload; numbers bit by bit.
bool Same(const Value& a, const Value& b) {
  if (a.type != b.type) return false;
  switch (a.type) {
    case ValueType::Int32:
    case ValueType::Float:
      return a.numeric.i32 == b.numeric.i32;
    case ValueType::Int64:
    case ValueType::Double:
      return a.numeric.i64 == b.numeric.i64;
    case ValueType::String:
      return a.str == b.str;
    case ValueType::Binary:
      return a.binarySize == b.binarySize && std::memcmp(a.binary, b.binary, a.binarySize) == 0;
    default:
      return true;
  }
}

void AssertHolds(const Record& record, const std::vector<Value>& expected) {
  for (unsigned int i = 0; i < expected.size(); ++i) RC_ASSERT(Same(record.GetValue(i), expected[i]));
  RC_ASSERT(record.GetValue(static_cast<unsigned int>(expected.size())).type == ValueType::None);
}

std::unique_ptr<Record> Decode(const RecordMeta& meta, const std::string& bytes) {
  auto* buffer = static_cast<unsigned char*>(std::malloc(bytes.empty() ? 1 : bytes.size()));
  std::memcpy(buffer, bytes.data(), bytes.size());
  return std::make_unique<Record>(&meta, buffer, static_cast<unsigned int>(bytes.size()));
}

// The values that decoding gives: none for a field of type None, none for an empty Binary.
std::vector<Value> Decodable(const std::vector<Value>& values) {
  std::vector<Value> decodable;
  for (const Value& value : values) {
    if (value.type == ValueType::None) continue;
    if (value.type == ValueType::Binary && (value.binary == nullptr || value.binarySize == 0)) continue;
    decodable.push_back(value);
  }
  return decodable;
}

RC_GTEST_PROP(RecordProperty, ValuesOfTheirFieldsTypesDecodeToTheSame, ()) {
  const Types types = *ReadableTypes();
  std::vector<std::unique_ptr<std::string>> owners;
  std::vector<Value> values;
  for (const ValueType type : types) values.push_back(AnyValue(type, &owners));

  const std::unique_ptr<RecordMeta> meta(RecordMeta::Create(kId, FormatOf(types) + ","));
  Record record(meta.get(), values);
  std::string bytes(record.Capacity(), '\0');
  record.Encode(reinterpret_cast<unsigned char*>(bytes.data()));
  RC_ASSERT(bytes.substr(0, 2) == "\x34\x12");
  AssertHolds(*Decode(*meta, bytes), Decodable(values));
}

class SeriesProperty : public testing::Test {
 protected:
  SeriesProperty() {
    Series* series = nullptr;
    EXPECT_EQ(Series::Open(directory_.PathOf("store"), {1024 * 1024, 0}, &series), kStatusOk);
    series_.reset(series);
  }

  ScratchDirectory directory_;
  std::unique_ptr<Series> series_;
};

// Values of any type in fields of any type: what comes back is what ConvertTo makes of them.
RC_GTEST_FIXTURE_PROP(SeriesProperty, StoredValuesComeBackConvertedToTheirFields, ()) {
  const Types types = *ReadableTypes();
  RC_PRE(!types.empty());
  std::vector<std::unique_ptr<std::string>> owners;
  std::vector<Value> values;
  std::vector<Value> expected;
  for (const ValueType type : types) {
    values.push_back(AnyValue(static_cast<ValueType>(*rc::gen::inRange(0, 7)), &owners));
    expected.push_back(values.back());
    expected.back().ConvertTo(type);
  }

  const std::string format = FormatOf(types);
  RC_ASSERT(series_->AppendRecord("key", 600, format.c_str(), values) == kStatusOk);
  Record* found = nullptr;
  RC_ASSERT(series_->Get("key", &found) == kStatusOk);
  expected = Decodable(expected);
  if (found == nullptr) {
    // Two bytes, which count as no record.
    RC_ASSERT(expected.empty());
    return;
  }
  const std::unique_ptr<Record> record(found);
  AssertHolds(*record, expected);
}

// Decoding as one would write it over a record with endless zeros after it. Numbers and texts are what such
// a record holds; a Binary is accepted where its bytes are, or where not even its length is.
std::vector<std::pair<ValueType, std::string>> DecodeByHand(const Types& types, const std::string& bytes) {
  std::vector<std::pair<ValueType, std::string>> values;
  const auto part = [&bytes](uint64_t offset, uint64_t length) {
    std::string taken = offset < bytes.size() ? bytes.substr(offset, length) : std::string();
    taken.resize(length);
    return taken;
  };
  uint64_t offset = 2;
  for (const ValueType type : types) {
    if (bytes.size() < 3 || offset >= bytes.size()) break;
    uint64_t width = type == ValueType::Int64 || type == ValueType::Double ? 8 : 4;
    if (type == ValueType::None) continue;
    const std::string number = part(offset, width);
    offset += width;
    if (type != ValueType::String && type != ValueType::Binary) {
      values.emplace_back(type, number);
      continue;
    }
    uint32_t length = 0;
    std::memcpy(&length, number.data(), sizeof(length));
    if (type == ValueType::String) {
      values.emplace_back(type, length < bytes.size() ? part(offset, length) : std::string());
      offset += length;
    } else if (length != 0 && (offset > bytes.size() || length <= bytes.size() - offset)) {
      values.emplace_back(type, part(offset, length));
    }
  }
  return values;
}

std::string PayloadOf(const Value& value) {
  switch (value.type) {
    case ValueType::Int32:
    case ValueType::Float:
      return std::string(reinterpret_cast<const char*>(&value.numeric), 4);
    case ValueType::Int64:
    case ValueType::Double:
      return std::string(reinterpret_cast<const char*>(&value.numeric), 8);
    case ValueType::String:
      return value.str;
    default:
      return std::string(static_cast<const char*>(value.binary), value.binarySize);
  }
}

RC_GTEST_PROP(RecordProperty, AnyBytesDecodeAsIfZerosFollowed, ()) {
  const Types types = *AnyTypes();
  // Lengths that fit are rare among random bytes: most are made small.
  std::string bytes = AnyBytes();
  if (*rc::gen::inRange(0, 4) != 0) {
    for (char& byte : bytes) byte = static_cast<char>(static_cast<unsigned char>(byte) % 6);
  }
  const std::unique_ptr<RecordMeta> meta(RecordMeta::Create(kId, FormatOf(types) + ","));
  const auto record = Decode(*meta, bytes);
  const auto expected = DecodeByHand(types, bytes);
  for (unsigned int i = 0; i < expected.size(); ++i) {
    RC_ASSERT(record->GetValue(i).type == expected[i].first);
    RC_ASSERT(PayloadOf(record->GetValue(i)) == expected[i].second);
  }
  RC_ASSERT(record->GetValue(static_cast<unsigned int>(expected.size())).type == ValueType::None);
}

RC_GTEST_PROP(ValueProperty, NumbersBecomeTheTextOfTheStandardLibrary, ()) {
  std::vector<std::unique_ptr<std::string>> owners;
  const auto type = static_cast<ValueType>(*rc::gen::inRange(1, 5));
  Value value = AnyValue(type, &owners);
  const Value number = value;
  value.ConvertTo(ValueType::String);
  switch (type) {
    case ValueType::Int32:
      RC_ASSERT(value.str == std::to_string(number.numeric.i32));
      break;
    case ValueType::Int64:
      RC_ASSERT(value.str == std::to_string(number.numeric.i64));
      break;
    case ValueType::Float:
      RC_ASSERT(value.str == std::to_string(number.numeric.f32));
      break;
    default:
      RC_ASSERT(value.str == std::to_string(number.numeric.f64));
      break;
  }
}

RC_GTEST_PROP(ValueProperty, IntegersOf32BitsSurviveEveryWiderType, (int32_t number)) {
  for (const ValueType wider : {ValueType::Int64, ValueType::Double, ValueType::String}) {
    Value value = Value::Int32Value(number);
    value.ConvertTo(wider);
    value.ConvertTo(ValueType::Int32);
    RC_ASSERT(value.numeric.i32 == number);
  }
}

// Texts over a small alphabet, in which separators are frequent.
std::string SmallText() {
  return *rc::gen::container<std::string>(rc::gen::element('a', 'b', ' ', ',', ':', '%', 'i', '4', '*'));
}

RC_GTEST_PROP(SplitStringProperty, PiecesJoinedAreTheTextUpToASeparatorAtTheEnd, ()) {
  const std::string text = SmallText();
  const auto limit = *rc::gen::inRange<uint32_t>(1, 6);
  const std::string separator = *rc::gen::element(std::string(","), std::string(" ,"));
  std::vector<std::string> pieces;
  SplitString(text, pieces, separator, limit);
  RC_ASSERT(pieces.size() <= limit);
  std::string joined;
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i + 1 < limit) RC_ASSERT(pieces[i].find(separator) == std::string::npos);
    joined += (i == 0 ? std::string() : separator) + pieces[i];
  }
  RC_ASSERT(joined == text || joined + separator == text);
}

RC_GTEST_PROP(RecordMetaProperty, AnyTextIsARecordTypeOrNone, ()) {
  const std::string text = SmallText();
  const std::unique_ptr<RecordMeta> meta(RecordMeta::Create(kId, text));
  const size_t blank = text.find(' ');
  RC_ASSERT((meta != nullptr) == (blank != std::string::npos && blank + 1 < text.size()));
  if (meta == nullptr) return;
  RC_ASSERT(meta->text == text);
  RC_ASSERT(meta->name == text.substr(0, blank));
  for (const Field* field : meta->fields) RC_ASSERT(field->name.find_first_of(",:") == std::string::npos);
}

RC_GTEST_PROP(SchemaProperty, TypesAreNumberedInOrderAndFoundAgain, ()) {
  const ScratchDirectory directory;
  const std::string path = directory.PathOf("meta_v5");
  const auto open = [&path] {
    Schema* schema = nullptr;
    RC_ASSERT(Schema::Open(path, &schema) == kStatusOk);
    return std::unique_ptr<Schema>(schema);
  };

  auto schema = open();
  std::vector<std::string> known;
  std::set<std::string> texts;
  std::string content;
  const int count = *rc::gen::inRange(0, 12);
  for (int i = 0; i < count; ++i) {
    if (*rc::gen::arbitrary<bool>()) schema = open();
    const std::string text = SmallText();
    const RecordMeta* meta = schema->GetOrCreateRecordMeta(text);
    const std::unique_ptr<RecordMeta> expected(RecordMeta::Create(0, text));
    RC_ASSERT((meta == nullptr) == (expected == nullptr));
    if (meta == nullptr) continue;
    RC_ASSERT(meta->text == text);
    if (texts.insert(text).second) {
      known.push_back(text);
      content += std::to_string(known.size()) + "#" + text + "\n";
    }
    RC_ASSERT(known.at(meta->id - 1U) == text);
    RC_ASSERT(ReadFile(path) == content);
  }
  schema = open();
  for (size_t i = 0; i < known.size(); ++i) {
    RC_ASSERT(schema->FindRecordMeta(static_cast<uint16_t>(i + 1))->text == known[i]);
  }
}

}  // namespace
}  // namespace Kestrun
