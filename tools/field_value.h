// tools/field_value.h: the values of records as text and JSON, and back, without losing a bit of a number.
//
//   Int32, Int64    decimal
//   Float, Double   the shortest decimal that reads back as the same number; "nan", "inf", "-inf"
//   String          its bytes
//   Binary          hexadecimal digits; in JSON {"hex": "..."}
#pragma once

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "kestrun/record.h"
#include "kestrun/value.h"
#include "tools/json_bytes.h"
#include "tools/rows.h"

namespace Kestrun::Tools {

// Values for a record. Binary values point into `bytes`, so they live as long as this and no longer.
struct RecordValues {
  std::vector<Value> values;
  std::deque<std::string> bytes;
};

// Adds the value that `cell` stands for in a field of this type. Otherwise false, and `*why` says what the
// field takes.
bool AddValue(const Cell& cell, ValueType type, RecordValues* values, std::string* why);

// The values of a decoded record in the order of the fields of `meta`. What a record that was cut off lacks,
// and a field that stores nothing, is a value of type None; a Binary that is not there is an empty one.
std::vector<Value> FieldValues(const RecordMeta& meta, const Record& record);

std::string TextOf(const Value& value);
Json JsonOf(const Value& value);

}  // namespace Kestrun::Tools
