#include "tools/json_writer.h"

#include <charconv>

#include "inspect/escape.h"
#include "tools/streams.h"

namespace Kestrun::Tools {

void AppendJsonText(std::string_view text, std::string* out) {
  *out += '"';
  size_t begin = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte >= 0x20 && byte != '"' && byte != '\\' && byte != 0x7F) continue;
    out->append(text.substr(begin, i - begin));
    begin = i + 1;
    switch (byte) {
      case '"':
        *out += "\\\"";
        break;
      case '\\':
        *out += "\\\\";
        break;
      case '\n':
        *out += "\\n";
        break;
      case '\r':
        *out += "\\r";
        break;
      case '\t':
        *out += "\\t";
        break;
      default:
        *out += "\\u00" + Inspect::Hex(text.substr(i, 1));
    }
  }
  out->append(text.substr(begin));
  *out += '"';
}

JsonWriter& JsonWriter::Name(std::string_view name) {
  Comma();
  AppendJsonText(name, &text_);
  text_ += ':';
  needsComma_ = false;
  return *this;
}

JsonWriter& JsonWriter::Text(std::string_view text) {
  Comma();
  AppendJsonText(text, &text_);
  needsComma_ = true;
  return *this;
}

JsonWriter& JsonWriter::Bytes(std::string_view bytes) {
  return hex_ || !Inspect::IsUtf8(bytes) ? Hex(bytes) : Text(bytes);
}

JsonWriter& JsonWriter::Hex(std::string_view bytes) {
  Comma();
  text_ += "{\"hex\":\"";
  text_ += Inspect::Hex(bytes);
  text_ += "\"}";
  needsComma_ = true;
  return *this;
}

JsonWriter& JsonWriter::Number(uint64_t number) {
  char digits[24];
  const auto result = std::to_chars(digits, digits + sizeof(digits), number);
  return Digits({digits, static_cast<size_t>(result.ptr - digits)});
}

JsonWriter& JsonWriter::Signed(int64_t number) {
  char digits[24];
  const auto result = std::to_chars(digits, digits + sizeof(digits), number);
  return Digits({digits, static_cast<size_t>(result.ptr - digits)});
}

JsonWriter& JsonWriter::Digits(std::string_view digits) {
  Comma();
  text_ += digits;
  needsComma_ = true;
  return *this;
}

void JsonWriter::Clear() {
  text_.clear();
  needsComma_ = false;
}

JsonWriter& JsonWriter::Open(char bracket) {
  Comma();
  text_ += bracket;
  needsComma_ = false;
  return *this;
}

JsonWriter& JsonWriter::Close(char bracket) {
  text_ += bracket;
  needsComma_ = true;
  return *this;
}

void JsonWriter::Comma() {
  if (needsComma_) text_ += ',';
}

void WriteJsonLine(const JsonWriter& json) {
  WriteLine(json.Result());
}

}  // namespace Kestrun::Tools
