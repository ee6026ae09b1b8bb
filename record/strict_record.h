// record/strict_record.h: what RecordStore adds to records: nothing is dropped, cut or guessed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kestrun/record_meta.h"
#include "kestrun/value.h"

namespace Kestrun {

// Whether records of the type `text`, which was parsed into `fields`, can be read as they
// were written, by any process:
//
// - there is a field, and every declaration between the commas that is not empty has become one;
// - every token is known, and "*" is the last one's at most, since the field after it would be
//   read from its bytes;
// - no '#', line break or NUL, which the file of record types would read as something else.
bool IsStrictType(const std::string& text, const std::vector<Field*>& fields);

// Stores `source` as a value of `type` in `result` if nothing of it is lost: an integer as a real number that
// equals it, a whole real number as an integer, a real number as a narrower one that equals it, a text as
// Binary, which then borrows the text's bytes. A text is no number and a number is no text. Not-a-number
// stays not-a-number, and the sign of a zero does not count. Throws std::bad_alloc.
bool ConvertExactly(const Value& source, ValueType type, Value* result);

// Whether `size` bytes hold an empty Binary for the last of `fields`, for which DecodeRecord has no value:
// they end where its length would stand, or that length is zero. `values` are what was decoded.
bool EndsWithEmptyBinary(const std::vector<Field*>& fields, const unsigned char* bytes, uint32_t size,
                         const std::vector<Value>& values);

}  // namespace Kestrun
