// tools/field_value.h: the values of records as text and JSON, and back, without losing a bit of a number.
//
//   Int32, Int64    decimal
//   Float, Double   the shortest decimal that reads back as the same number; "nan", "inf", "-inf"
//   String          its bytes
//   Binary          hexadecimal digits; in JSON {"hex": "..."}
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kestrun/record_meta.h"
#include "kestrun/value.h"
#include "tools/json_writer.h"
#include "tools/rows.h"

namespace Kestrun::Tools {

// A stored record begins with the number of its type.
inline constexpr size_t kRecordIdSize = 2;
uint16_t RecordIdOf(std::string_view bytes);

// Sets `*value` to what `cell` stands for in a field of this type. Otherwise false, and `*why` says what the
// field takes. `*bytes` keeps the bytes of a Binary value, which points into it.
bool ParseFieldValue(const Cell& cell, ValueType type, Value* value, std::string* bytes, std::string* why);

// One field of a stored record.
struct FieldView {
  ValueType type =
      ValueType::None;     // None for a field that stores nothing, or that a record that is cut off lacks
  int64_t integer = 0;     // of Int32 and Int64
  double real = 0;         // of Double
  float single = 0;        // of Float
  std::string_view bytes;  // of String and Binary, in the record
};

// Takes a stored record apart, one view for each field. Whether the record holds all
// its fields and nothing else.
bool DecodeFields(const RecordMeta& meta, std::string_view bytes, std::vector<FieldView>* fields);

void AppendFieldText(const FieldView& field, std::string* out);
void AddFieldJson(const FieldView& field, JsonWriter* json);

// The shortest decimal that reads back as the same number.
std::string_view ShortestText(double number, char (&buffer)[32]);

}  // namespace Kestrun::Tools
