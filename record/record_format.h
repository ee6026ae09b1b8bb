// record/record_format.h: the layout of a stored record, as kestrun/record.h pictures it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kestrun/record_meta.h"
#include "kestrun/value.h"

namespace Kestrun {

inline constexpr size_t kRecordTypeOffset = 0;  // u16: the number of the record type
inline constexpr size_t kRecordFirstField = 2;
inline constexpr size_t kRecordLengthSize = 4;  // u32 before the bytes of a String or Binary

// A value of fewer bytes decodes to nothing and is not taken for a record.
inline constexpr size_t kRecordSmallestWithValues = 3;

// The bytes of a number type.
inline constexpr size_t NumberSize(ValueType type) {
  return type == ValueType::Int64 || type == ValueType::Double ? 8 : 4;
}

// The fields that a record goes through; none without a record type.
const std::vector<Field*>& FieldsOf(const RecordMeta* meta);

// A record type that a caller put together may hold null fields; they store nothing.
inline ValueType TypeOf(const Field* field) {
  return field == nullptr ? ValueType::None : field->type;
}

}  // namespace Kestrun
