#include "record/strict_record.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <string_view>

#include "record/record_format.h"
#include "record/value_conversion.h"

namespace Kestrun {
namespace {

constexpr double kTwoTo31 = 2147483648.0;
constexpr double kTwoTo63 = 9223372036854775808.0;

// The declarations of the fields that are not empty, as ParseRecordMeta tells them apart.
size_t CountDeclarations(std::string_view text) {
  size_t count = 0;
  size_t start = text.find(' ');
  if (start == std::string_view::npos) return 0;
  for (++start; start < text.size();) {
    const size_t end = std::min(text.find(',', start), text.size());
    if (end != start) ++count;
    start = end + 1;
  }
  return count;
}

bool IsInteger(ValueType type) {
  return type == ValueType::Int32 || type == ValueType::Int64;
}

int64_t IntegerOf(const Value& value) {
  return value.type == ValueType::Int32 ? value.numeric.i32 : value.numeric.i64;
}

double RealOf(const Value& value) {
  return value.type == ValueType::Float ? static_cast<double>(value.numeric.f32) : value.numeric.f64;
}

// The bounds are powers of two and therefore exact.
bool IsWholeBelow(double number, double bound) {
  return number >= -bound && number < bound && std::trunc(number) == number;
}

bool IntegerFits(int64_t number, ValueType type) {
  switch (type) {
    case ValueType::Int32:
      return number >= std::numeric_limits<int32_t>::min() && number <= std::numeric_limits<int32_t>::max();
    case ValueType::Float: {
      const auto real = static_cast<double>(static_cast<float>(number));
      return IsWholeBelow(real, kTwoTo63) && static_cast<int64_t>(real) == number;
    }
    case ValueType::Double: {
      const auto real = static_cast<double>(number);
      return IsWholeBelow(real, kTwoTo63) && static_cast<int64_t>(real) == number;
    }
    default:
      return true;
  }
}

bool RealFits(double number, ValueType type) {
  switch (type) {
    case ValueType::Int32:
      return IsWholeBelow(number, kTwoTo31);
    case ValueType::Int64:
      return IsWholeBelow(number, kTwoTo63);
    case ValueType::Float:
      if (!std::isfinite(number)) return true;
      // Checked first: a number beyond the narrower type's range has no defined conversion to it.
      if (std::fabs(number) > static_cast<double>(std::numeric_limits<float>::max())) return false;
      return static_cast<double>(static_cast<float>(number)) == number;
    default:
      return true;
  }
}

}  // namespace

bool IsStrictType(const std::string& text, const std::vector<Field*>& fields) {
  if (text.find_first_of(std::string_view("#\n\0", 3)) != std::string::npos) return false;
  if (fields.empty() || fields.size() != CountDeclarations(text)) return false;
  for (const Field* field : fields) {
    const ValueType type = TypeOf(field);
    if (!IsNumber(type) && type != ValueType::String && type != ValueType::Binary) return false;
    if (type == ValueType::Binary && field != fields.back()) return false;
  }
  return true;
}

bool ConvertExactly(const Value& source, ValueType type, Value* result) {
  if (IsNumber(type)) {
    if (!IsNumber(source.type)) return false;
    const bool fits =
        IsInteger(source.type) ? IntegerFits(IntegerOf(source), type) : RealFits(RealOf(source), type);
    if (!fits) return false;
    Value converted;
    converted.type = type;
    ConvertToNumber(source, type, &converted);
    *result = std::move(converted);
    return true;
  }
  if (type == ValueType::String && source.type == ValueType::String) {
    *result = Value::StringValue(source.str);
    return true;
  }
  if (type != ValueType::Binary) return false;
  if (source.type == ValueType::String && source.str.size() <= std::numeric_limits<uint32_t>::max()) {
    *result = Value::BinaryValue(source.str.data(), static_cast<uint32_t>(source.str.size()));
    return true;
  }
  if (source.type != ValueType::Binary || (source.binary == nullptr && source.binarySize != 0)) return false;
  *result = Value::BinaryValue(source.binary, source.binarySize);
  return true;
}

bool EndsWithEmptyBinary(const std::vector<Field*>& fields, const unsigned char* bytes, uint32_t size,
                         const std::vector<Value>& values) {
  if (fields.empty() || TypeOf(fields.back()) != ValueType::Binary) return false;
  if (values.size() != fields.size() - 1) return false;

  uint64_t offset = kRecordFirstField;
  for (const Value& value : values) {
    if (value.type == ValueType::String) {
      offset += kRecordLengthSize + value.str.size();
    } else if (IsNumber(value.type)) {
      offset += NumberSize(value.type);
    } else {
      return false;
    }
  }
  if (offset == size) return true;
  uint32_t length = 0;
  if (offset + sizeof(length) > size) return false;
  std::memcpy(&length, bytes + offset, sizeof(length));
  return length == 0;
}

}  // namespace Kestrun
