#include "kestrun/record_meta.h"

#include <limits>
#include <memory>
#include <new>
#include <utility>

#include "record/record_meta_parser.h"

namespace Kestrun {

RecordMeta::RecordMeta(unsigned short id, std::string text, std::string name, std::vector<Field*> fields)
    : id(id), text(std::move(text)), name(std::move(name)), fields(std::move(fields)) {}

RecordMeta::~RecordMeta() {
  for (const Field* field : fields) delete field;
}

RecordMeta* RecordMeta::Create(unsigned short id, const std::string& text) {
  try {
    return ParseRecordMeta(id, text).release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

bool RecordMeta::operator==(const RecordMeta& other) const {
  return this == &other || text == other.text;
}

bool RecordMeta::operator!=(const RecordMeta& other) const {
  return !(*this == other);
}

std::unique_ptr<RecordMeta> ParseRecordMeta(unsigned short id, const std::string& text) {
  std::vector<std::string> parts;
  SplitString(text, parts, " ", 2);
  if (parts.size() < 2) return nullptr;

  std::vector<std::string> declarations;
  SplitString(parts[1], declarations, ",");

  // The record type owns its fields from the start, so that nothing is lost when memory runs out.
  auto meta = std::make_unique<RecordMeta>(id, text, std::move(parts[0]), std::vector<Field*>());
  meta->fields.reserve(declarations.size());
  for (const std::string& declaration : declarations) {
    std::vector<std::string> field;
    SplitString(declaration, field, ":", 2);
    if (field.size() < 2) continue;
    const ValueType type = ParseValueType(field[1]);
    meta->fields.push_back(new Field{std::move(field[0]), type});
  }
  return meta;
}

ValueType ParseValueType(const std::string& token) {
  if (token == "%i4") return ValueType::Int32;
  if (token == "%i8") return ValueType::Int64;
  if (token == "%f") return ValueType::Float;
  if (token == "%d") return ValueType::Double;
  if (token == "%s") return ValueType::String;
  if (token == "*") return ValueType::Binary;
  return ValueType::None;
}

void SplitString(const std::string& text, std::vector<std::string>& pieces, const std::string& separator,
                 uint32_t limit) {
  if (text.empty()) return;

  size_t start = 0;
  size_t next = separator.empty() ? std::string::npos : text.find(separator);
  for (uint32_t count = 1; next != std::string::npos && count != limit; ++count) {
    pieces.push_back(text.substr(start, next - start));
    start = next + separator.size();
    next = text.find(separator, start);
  }
  if (start < text.size()) pieces.push_back(text.substr(start));
}

void SplitString(const std::string& text, std::vector<std::string>& pieces, const std::string& separator) {
  SplitString(text, pieces, separator, std::numeric_limits<uint32_t>::max());
}

}  // namespace Kestrun
