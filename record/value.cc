#include "kestrun/value.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "record/value_conversion.h"

namespace Kestrun {
namespace {

// Cuts toward zero. What lies outside the range becomes its nearest end and not-a-number becomes 0, as the
// 64-bit Arm instructions do it: a stored value must not depend on the processor that converted it.
template <typename Integer>
Integer Truncate(double number) {
  // Both bounds are powers of two and therefore exact.
  constexpr double kLowest = static_cast<double>(std::numeric_limits<Integer>::min());
  if (std::isnan(number)) return 0;
  if (number < kLowest) return std::numeric_limits<Integer>::min();
  if (number >= -kLowest) return std::numeric_limits<Integer>::max();
  return static_cast<Integer>(number);
}

// What atoi gives, also where the C library leaves too many digits undefined.
int32_t ParseInt32(const std::string& text) {
  return static_cast<int32_t>(std::strtol(text.c_str(), nullptr, 10));
}

int32_t ToInt32(const Value& source) {
  switch (source.type) {
    case ValueType::Int64:
      return static_cast<int32_t>(source.numeric.i64);
    case ValueType::Float:
      return Truncate<int32_t>(static_cast<double>(source.numeric.f32));
    case ValueType::Double:
      return Truncate<int32_t>(source.numeric.f64);
    case ValueType::String:
      return ParseInt32(source.str);
    default:
      return 0;
  }
}

int64_t ToInt64(const Value& source) {
  switch (source.type) {
    case ValueType::Int32:
      return source.numeric.i32;
    case ValueType::Float:
      return Truncate<int64_t>(static_cast<double>(source.numeric.f32));
    case ValueType::Double:
      return Truncate<int64_t>(source.numeric.f64);
    case ValueType::String:
      return ParseInt32(source.str);
    default:
      return 0;
  }
}

float ToFloat(const Value& source) {
  switch (source.type) {
    case ValueType::Int32:
      return static_cast<float>(source.numeric.i32);
    case ValueType::Int64:
      return static_cast<float>(source.numeric.i64);
    case ValueType::Double:
      return static_cast<float>(source.numeric.f64);
    case ValueType::String:
      return static_cast<float>(std::atof(source.str.c_str()));
    default:
      return 0.0F;
  }
}

double ToDouble(const Value& source) {
  switch (source.type) {
    case ValueType::Int32:
      return source.numeric.i32;
    case ValueType::Int64:
      return static_cast<double>(source.numeric.i64);
    case ValueType::Float:
      return static_cast<double>(source.numeric.f32);
    case ValueType::String:
      return std::atof(source.str.c_str());
    default:
      return 0.0;
  }
}

}  // namespace

Value Value::Int32Value(int number) {
  Value value;
  value.numeric.i32 = number;
  value.type = ValueType::Int32;
  return value;
}

Value Value::Int64Value(long number) {
  Value value;
  value.numeric.i64 = number;
  value.type = ValueType::Int64;
  return value;
}

Value Value::FloatValue(float number) {
  Value value;
  value.numeric.f32 = number;
  value.type = ValueType::Float;
  return value;
}

Value Value::DoubleValue(double number) {
  Value value;
  value.numeric.f64 = number;
  value.type = ValueType::Double;
  return value;
}

Value Value::StringValue(const std::string& text) {
  Value value;
  value.str = text;
  value.type = ValueType::String;
  return value;
}

Value Value::BinaryValue(const void* bytes, unsigned int size) {
  Value value;
  value.binary = bytes;
  value.binarySize = size;
  value.type = ValueType::Binary;
  return value;
}

void Value::ConvertTo(ValueType target) {
  if (type == target) return;
  if (IsNumber(target)) {
    ConvertToNumber(*this, target, this);
  } else if (target == ValueType::String && IsNumber(type)) {
    char text[kNumberTextSize];
    std::string converted(text, WriteNumberText(*this, text));
    str.swap(converted);
  }
  type = target;
}

void ConvertToNumber(const Value& source, ValueType target, Value* result) {
  if (source.type == target || !IsKnown(source.type)) {
    result->numeric = source.numeric;
    return;
  }
  switch (target) {
    case ValueType::Int32:
      result->numeric.i32 = ToInt32(source);
      break;
    case ValueType::Int64:
      result->numeric.i64 = ToInt64(source);
      break;
    case ValueType::Float:
      result->numeric.f32 = ToFloat(source);
      break;
    default:
      result->numeric.f64 = ToDouble(source);
      break;
  }
}

size_t WriteNumberText(const Value& number, char (&text)[kNumberTextSize]) {
  int length = 0;
  switch (number.type) {
    case ValueType::Int32:
      length = std::snprintf(text, sizeof(text), "%d", number.numeric.i32);
      break;
    case ValueType::Int64:
      length = std::snprintf(text, sizeof(text), "%ld", long{number.numeric.i64});
      break;
    case ValueType::Float:
      length = std::snprintf(text, sizeof(text), "%f", static_cast<double>(number.numeric.f32));
      break;
    default:
      length = std::snprintf(text, sizeof(text), "%f", number.numeric.f64);
      break;
  }
  return length < 0 ? 0 : static_cast<size_t>(length);
}

}  // namespace Kestrun
