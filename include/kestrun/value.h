// kestrun/value.h: one typed scalar, the content of one field of a record.
//
// Ownership: a value owns its text and nothing else. A Binary value borrows its bytes: copies of it, those
//            inside a record included, point at the same bytes, which must outlive them all.
// Threads:   a value that nobody changes may be read from any number of threads.
// Failure:   nothing but std::bad_alloc, from making, copying or converting to text.
#pragma once

#include <cstdint>
#include <string>

#include "kestrun/export.h"

namespace Kestrun {

// The numbers are fixed: stored records depend on them. Numbers above 6 are carried along and mean nothing.
enum class ValueType : uint8_t {
  None = 0,
  Int32 = 1,
  Int64 = 2,
  Float = 3,
  Double = 4,
  String = 5,  // bytes, of any encoding
  Binary = 6,  // bytes that belong to somebody else
};

class KESTRUN_EXPORT Value {
 public:
  // The default value: type None, everything else zero or empty. Every factory starts from it.
  Value() noexcept {}

  static Value Int32Value(int number);
  static Value Int64Value(long number);
  static Value FloatValue(float number);
  static Value DoubleValue(double number);
  static Value StringValue(const std::string& text);
  // Keeps the pointer and the size as they are: nothing is copied, nothing is checked.
  static Value BinaryValue(const void* bytes, unsigned int size);

  // Turns the value into one of type `target`, in place; never fails and reports nothing.
  //
  // Numbers    convert as C++ converts them: a larger integer keeps its low bits, a fraction is cut toward
  //            zero. A real number outside the integer's range becomes the nearest integer of the range and
  //            not-a-number becomes 0, on every processor.
  // To text    integers in decimal, real numbers with six digits after the point ("1.500000").
  // From text  as atoi and atof read it; text that does not begin with a number gives 0. Int64 is read with
  //            atoi too, so that no text gives a number of more than 32 bits. Compat: text-to-int64
  // None and Binary become 0; as a String they have whatever `str` holds, usually nothing.
  // To None, Binary or an unknown type only the label changes: no number and no text becomes bytes.
  //
  // Members that a conversion does not write keep what they held.
  void ConvertTo(ValueType target);

  ValueType type = ValueType::None;
  union {
    int32_t i32;
    int64_t i64 = 0;
    float f32;
    double f64;
  } numeric;                     // only the view that `type` names has a meaning
  std::string str;               // the text of a String
  const void* binary = nullptr;  // the bytes of a Binary, not owned
  uint32_t binarySize = 0;       // bytes
};

}  // namespace Kestrun
