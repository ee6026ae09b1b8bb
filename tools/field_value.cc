#include "tools/field_value.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <optional>

#include "inspect/escape.h"
#include "tools/bytes_text.h"

namespace Kestrun::Tools {
namespace {

template <typename Number>
bool ParseNumberText(std::string_view text, Number* number) {
  // A plus sign is allowed before digits, as people write it.
  const char* begin = text.data();
  const char* end = begin + text.size();
  if (text.size() > 1 && *begin == '+' && begin[1] != '-' && begin[1] != '+') ++begin;
  const auto result = std::from_chars(begin, end, *number);
  return result.ec == std::errc() && result.ptr == end;
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
  if (cell.kind == Cell::Kind::Null) return "null";
  const std::string text = Inspect::Printable(cell.text.substr(0, kMax));
  return "\"" + text + (cell.text.size() > kMax ? "...\"" : "\"");
}

template <typename Number>
Number Load(std::string_view bytes, size_t at) {
  Number number = 0;
  std::memcpy(&number, bytes.data() + at, sizeof(number));
  return number;
}

template <typename Number>
std::string_view Digits(Number number, char (&buffer)[32]) {
  const auto result = std::to_chars(buffer, buffer + sizeof(buffer), number);
  return {buffer, static_cast<size_t>(result.ptr - buffer)};
}

// JSON has no digits for what is not finite.
template <typename Number>
void AddReal(Number number, JsonWriter* json) {
  char buffer[32];
  const std::string_view digits = Digits(number, buffer);
  if (std::isfinite(number)) {
    // A real number stays one for those who read it: 3.0 and not 3, -0.0 and not -0.
    const bool isWhole = digits.find_first_of(".e") == std::string_view::npos;
    json->Digits(isWhole ? std::string(digits) + ".0" : std::string(digits));
  } else {
    json->Text(digits);
  }
}

}  // namespace

uint16_t RecordIdOf(std::string_view bytes) {
  if (bytes.size() <= kRecordIdSize) return 0;
  return static_cast<uint16_t>(static_cast<unsigned char>(bytes[0]) | static_cast<unsigned char>(bytes[1])
                                                                          << 8);
}

bool ParseFieldValue(const Cell& cell, ValueType type, Value* value, std::string* bytes, std::string* why) {
  bool taken = false;
  value->type = type;
  switch (type) {
    case ValueType::Int32:
      taken = IsNumeric(cell, false) && ParseNumberText(cell.text, &value->numeric.i32);
      break;
    case ValueType::Int64:
      taken = IsNumeric(cell, false) && ParseNumberText(cell.text, &value->numeric.i64);
      break;
    case ValueType::Float:
      taken = IsNumeric(cell, true) && ParseNumberText(cell.text, &value->numeric.f32);
      break;
    case ValueType::Double:
      taken = IsNumeric(cell, true) && ParseNumberText(cell.text, &value->numeric.f64);
      break;
    case ValueType::String:
      taken =
          cell.kind == Cell::Kind::Text || cell.kind == Cell::Kind::String || cell.kind == Cell::Kind::Bytes;
      if (taken) value->str.assign(cell.text);
      break;
    case ValueType::Binary:
      if (cell.kind == Cell::Kind::Bytes) {
        bytes->assign(cell.text);
        taken = true;
      } else if (cell.kind == Cell::Kind::Text) {
        const auto decoded = BytesOfHex(cell.text);
        taken = decoded.has_value();
        if (taken) *bytes = *decoded;
      }
      value->binary = bytes->data();
      value->binarySize = static_cast<uint32_t>(bytes->size());
      break;
    case ValueType::None:
      break;
  }
  if (!taken) *why = "takes " + std::string(ExpectedOf(type)) + ", not " + Shown(cell);
  return taken;
}

// As a store decodes it, kestrun/record.h: after a Binary field that is not the last one the next field is
// read from the first byte after its length, and an empty Binary stores nothing.
bool DecodeFields(const RecordMeta& meta, std::string_view bytes, std::vector<FieldView>* fields) {
  fields->assign(meta.fields.size(), FieldView());
  size_t at = kRecordIdSize;
  bool whole = bytes.size() > kRecordIdSize;
  for (size_t i = 0; i < meta.fields.size(); ++i) {
    FieldView& field = (*fields)[i];
    const ValueType type = meta.fields[i]->type;
    const size_t left = bytes.size() - std::min(at, bytes.size());
    size_t size = 0;
    switch (type) {
      case ValueType::Int32:
      case ValueType::Float:
        size = 4;
        break;
      case ValueType::Int64:
      case ValueType::Double:
        size = 8;
        break;
      case ValueType::String:
      case ValueType::Binary:
        if (type == ValueType::Binary && left == 0) {
          field.type = type;
          continue;
        }
        size = left < 4 ? 4 : size_t{4} + Load<uint32_t>(bytes, at);
        break;
      case ValueType::None:
        continue;
    }
    if (left < size) return false;
    field.type = type;
    switch (type) {
      case ValueType::Int32:
        field.integer = Load<int32_t>(bytes, at);
        break;
      case ValueType::Int64:
        field.integer = Load<int64_t>(bytes, at);
        break;
      case ValueType::Float:
        field.single = Load<float>(bytes, at);
        break;
      case ValueType::Double:
        field.real = Load<double>(bytes, at);
        break;
      default:
        field.bytes = bytes.substr(at + 4, size - 4);
        break;
    }
    const bool isLast = i + 1 == meta.fields.size();
    at += type == ValueType::Binary && !isLast ? 4 : size;
  }
  return whole && at == bytes.size();
}

std::string_view ShortestText(double number, char (&buffer)[32]) {
  return Digits(number, buffer);
}

void AppendFieldText(const FieldView& field, std::string* out) {
  char buffer[32];
  switch (field.type) {
    case ValueType::Int32:
    case ValueType::Int64:
      *out += Digits(field.integer, buffer);
      break;
    case ValueType::Float:
      *out += Digits(field.single, buffer);
      break;
    case ValueType::Double:
      *out += Digits(field.real, buffer);
      break;
    case ValueType::String:
      *out += field.bytes;
      break;
    case ValueType::Binary:
      *out += Inspect::Hex(field.bytes);
      break;
    case ValueType::None:
      break;
  }
}

void AddFieldJson(const FieldView& field, JsonWriter* json) {
  switch (field.type) {
    case ValueType::Int32:
    case ValueType::Int64:
      json->Signed(field.integer);
      break;
    case ValueType::Float:
      AddReal(field.single, json);
      break;
    case ValueType::Double:
      AddReal(field.real, json);
      break;
    case ValueType::String:
      // --hex covers keys and raw values, not typed fields.
      if (Inspect::IsUtf8(field.bytes)) {
        json->Text(field.bytes);
      } else {
        json->Hex(field.bytes);
      }
      break;
    case ValueType::Binary:
      json->Hex(field.bytes);
      break;
    case ValueType::None:
      json->Null();
      break;
  }
}

}  // namespace Kestrun::Tools
