// tools/json_writer.h: puts JSON together, without building a tree first.
//
//   JsonWriter json;
//   json.BeginObject().Name("key").Bytes(key).Name("size").Number(size).EndObject();
//
// Texts must be UTF-8; Bytes takes anything. May throw std::bad_alloc.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Kestrun::Tools {

class JsonWriter {
 public:
  // With `hex` all bytes are written as hexadecimal digits.
  explicit JsonWriter(bool hex = false) : hex_(hex) {}

  JsonWriter& BeginObject() { return Open('{'); }
  JsonWriter& EndObject() { return Close('}'); }
  JsonWriter& BeginArray() { return Open('['); }
  JsonWriter& EndArray() { return Close(']'); }
  // The name of the member that comes next.
  JsonWriter& Name(std::string_view name);

  JsonWriter& Text(std::string_view text);
  // Text where the bytes are UTF-8 and --hex is not given, else {"hex": "..."}.
  JsonWriter& Bytes(std::string_view bytes);
  // {"hex": "..."} always.
  JsonWriter& Hex(std::string_view bytes);
  JsonWriter& Number(uint64_t number);
  JsonWriter& Signed(int64_t number);
  // Digits as they stand, of a number that is written in JSON.
  JsonWriter& Digits(std::string_view digits);
  JsonWriter& Bool(bool value) { return Digits(value ? "true" : "false"); }
  JsonWriter& Null() { return Digits("null"); }

  const std::string& Result() const { return text_; }
  void Clear();

 private:
  JsonWriter& Open(char bracket);
  JsonWriter& Close(char bracket);
  void Comma();

  bool hex_;
  bool needsComma_ = false;
  std::string text_;
};

// Appends a JSON string.
void AppendJsonText(std::string_view text, std::string* out);

// A line of standard output.
void WriteJsonLine(const JsonWriter& json);

}  // namespace Kestrun::Tools
