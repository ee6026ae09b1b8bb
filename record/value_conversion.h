// record/value_conversion.h: the conversions between values, for those who must not allocate.
//
// Value::ConvertTo is made of these; Record::Encode uses them to convert on the way to a buffer.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kestrun/value.h"

namespace Kestrun {

// Room for the longest text of a number and its NUL: a sign, the 309 digits of the largest double, the point,
// for which some languages use several bytes, and six more digits.
inline constexpr size_t kNumberTextSize = 328;

inline bool IsNumber(ValueType type) {
  return type >= ValueType::Int32 && type <= ValueType::Double;
}

inline bool IsKnown(ValueType type) {
  return type <= ValueType::Binary;
}

// Stores `source`, converted to the number type `target`, in the numeric member of `result`, which may be
// `source` itself. A source of that type or of an unknown one is taken over as it is.
void ConvertToNumber(const Value& source, ValueType target, Value* result);

// Writes the text of a number, with a NUL, and returns its length. `number` is of a number type.
size_t WriteNumberText(const Value& number, char (&text)[kNumberTextSize]);

}  // namespace Kestrun
