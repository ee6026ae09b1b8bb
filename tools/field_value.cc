#include "tools/field_value.h"

#include <array>
#include <charconv>
#include <cmath>

#include "inspect/escape.h"

namespace Kestrun::Tools {
namespace {

template <typename Number>
std::optional<Number> NumberOf(const std::string& text) {
  // A plus sign is allowed before digits, as people write it.
  const char* begin = text.data();
  const char* end = begin + text.size();
  if (text.size() > 1 && *begin == '+' && begin[1] != '-' && begin[1] != '+') ++begin;
  Number number = {};
  const auto result = std::from_chars(begin, end, number);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return number;
}

template <typename Number>
std::string ShortestText(Number number) {
  std::array<char, 64> text{};
  const auto result = std::to_chars(text.data(), text.data() + text.size(), number);
  return std::string(text.data(), result.ptr);
}

bool IsNumeric(const Cell& cell, bool real) {
  switch (cell.kind) {
    case Cell::Kind::Text:
    case Cell::Kind::Integer:
      return true;
    case Cell::Kind::Real:
      return real;
    case Cell::Kind::String:
      // JSON has no numbers for these.
      return real && (cell.text == "nan" || cell.text == "inf" || cell.text == "-inf" || cell.text == "-nan");
    default:
      return false;
  }
}

const char* ExpectedOf(ValueType type) {
  switch (type) {
    case ValueType::Int32:
      return "a whole number from -2147483648 to 2147483647";
    case ValueType::Int64:
      return "a whole number from -9223372036854775808 to 9223372036854775807";
    case ValueType::Float:
      return "a number of single precision";
    case ValueType::Double:
      return "a number of double precision";
    case ValueType::String:
      return "a text";
    case ValueType::Binary:
      return "bytes in hexadecimal";
    case ValueType::None:
      break;
  }
  return "nothing";
}

std::string Shown(const Cell& cell) {
  constexpr size_t kMax = 60;
  if (cell.kind == Cell::Kind::Bytes) return "bytes";
  const std::string text = Inspect::Printable(cell.text.substr(0, kMax));
  return "\"" + text + (cell.text.size() > kMax ? "...\"" : "\"");
}

// Of a single precision number the digits that tell it, not the many more of its double.
template <typename Number>
Json JsonOfReal(Number number) {
  const std::string text = ShortestText(number);
  if (!std::isfinite(number)) return text;
  double wide = 0;
  std::from_chars(text.data(), text.data() + text.size(), wide);
  return wide;
}

}  // namespace

bool AddValue(const Cell& cell, ValueType type, RecordValues* values, std::string* why) {
  std::optional<Value> value;
  switch (type) {
    case ValueType::Int32:
      if (IsNumeric(cell, false)) {
        if (const auto number = NumberOf<int32_t>(cell.text)) value = Value::Int32Value(*number);
      }
      break;
    case ValueType::Int64:
      if (IsNumeric(cell, false)) {
        if (const auto number = NumberOf<int64_t>(cell.text)) value = Value::Int64Value(*number);
      }
      break;
    case ValueType::Float:
      if (IsNumeric(cell, true)) {
        if (const auto number = NumberOf<float>(cell.text)) value = Value::FloatValue(*number);
      }
      break;
    case ValueType::Double:
      if (IsNumeric(cell, true)) {
        if (const auto number = NumberOf<double>(cell.text)) value = Value::DoubleValue(*number);
      }
      break;
    case ValueType::String:
      if (cell.kind == Cell::Kind::Text || cell.kind == Cell::Kind::String ||
          cell.kind == Cell::Kind::Bytes) {
        value = Value::StringValue(cell.text);
      }
      break;
    case ValueType::Binary: {
      const auto bytes = cell.kind == Cell::Kind::Bytes  ? std::optional<std::string>(cell.text)
                         : cell.kind == Cell::Kind::Text ? BytesOfHex(cell.text)
                                                         : std::nullopt;
      if (bytes) {
        values->bytes.push_back(*bytes);
        const std::string& kept = values->bytes.back();
        value = Value::BinaryValue(kept.data(), static_cast<unsigned int>(kept.size()));
      }
      break;
    }
    case ValueType::None:
      break;
  }
  if (!value) {
    *why = "takes " + std::string(ExpectedOf(type)) + ", not " + Shown(cell);
    return false;
  }
  values->values.push_back(*value);
  return true;
}

// An empty Binary decodes to no value at all, after which the values stand one place early: a value belongs
// to the field only when it is of its type.
std::vector<Value> FieldValues(const RecordMeta& meta, const Record& record) {
  std::vector<Value> values;
  unsigned int next = 0;
  for (const Field* field : meta.fields) {
    const Value value = record.GetValue(next);
    if (value.type == field->type && value.type != ValueType::None) {
      values.push_back(value);
      ++next;
    } else if (field->type == ValueType::Binary) {
      values.push_back(Value::BinaryValue(nullptr, 0));
    } else {
      values.emplace_back();
    }
  }
  return values;
}

std::string TextOf(const Value& value) {
  switch (value.type) {
    case ValueType::Int32:
      return std::to_string(value.numeric.i32);
    case ValueType::Int64:
      return std::to_string(value.numeric.i64);
    case ValueType::Float:
      return ShortestText(value.numeric.f32);
    case ValueType::Double:
      return ShortestText(value.numeric.f64);
    case ValueType::String:
      return value.str;
    case ValueType::Binary:
      return Inspect::Hex({static_cast<const char*>(value.binary), value.binarySize});
    case ValueType::None:
      break;
  }
  return std::string();
}

Json JsonOf(const Value& value) {
  switch (value.type) {
    case ValueType::Int32:
      return value.numeric.i32;
    case ValueType::Int64:
      return value.numeric.i64;
    case ValueType::Float:
      return JsonOfReal(value.numeric.f32);
    case ValueType::Double:
      return JsonOfReal(value.numeric.f64);
    case ValueType::String:
      return JsonOfBytes(value.str);
    case ValueType::Binary: {
      Json json = Json::object();
      json["hex"] = TextOf(value);
      return json;
    }
    case ValueType::None:
      break;
  }
  return nullptr;
}

}  // namespace Kestrun::Tools
