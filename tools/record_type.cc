#include "tools/record_type.h"

#include <set>
#include <vector>

#include "inspect/escape.h"
#include "inspect/schema_lines.h"
#include "inspect/store_directory.h"
#include "tools/failure.h"

namespace Kestrun::Tools {
namespace {

constexpr char kExample[] = "; a record type is written like 'Point x:%i4,y:%i4,label:%s'";

[[noreturn]] void Refuse(const std::string& text, const std::string& why) {
  throw UsageError("the record type \"" + Inspect::Printable(text) + "\" " + why + kExample);
}

// The pieces between the commas, empty ones included.
std::vector<std::string> FieldTexts(const std::string& list) {
  std::vector<std::string> pieces;
  size_t start = 0;
  for (size_t comma = list.find(','); comma != std::string::npos; comma = list.find(',', start)) {
    pieces.push_back(list.substr(start, comma - start));
    start = comma + 1;
  }
  pieces.push_back(list.substr(start));
  return pieces;
}

void CheckField(const std::string& text, const std::string& piece, bool last, std::set<std::string>* names) {
  const size_t colon = piece.find(':');
  const std::string name = piece.substr(0, colon);
  const std::string shown = "\"" + Inspect::Printable(piece) + "\"";
  if (colon == std::string::npos || name.empty())
    Refuse(text, "has the field " + shown + " without a name or a type");
  if (name.front() == ' ' || name.back() == ' ') {
    Refuse(text, "has a blank in the name of the field " + shown + ", which would belong to the name");
  }
  const ValueType type = ParseValueType(piece.substr(colon + 1));
  if (type == ValueType::None) {
    Refuse(text, "has the field " + shown + " of no known type; the types are %i4 %i8 %f %d %s *");
  }
  if (type == ValueType::Binary && !last) {
    Refuse(text,
           "has the field " + shown + " before others; bytes can be read back from the last field only");
  }
  if (!names->insert(name).second)
    Refuse(text, "has two fields of the name \"" + Inspect::Printable(name) + "\"");
}

}  // namespace

std::unique_ptr<RecordMeta> ParseRecordType(const std::string& text) {
  if (text.find_first_of(std::string("#\n\0", 3)) != std::string::npos) {
    Refuse(text, "has a '#', a line end or a NUL, which the schema file can't hold");
  }
  const size_t blank = text.find(' ');
  if (blank == std::string::npos || blank == 0 || blank + 1 == text.size()) {
    Refuse(text, "is not a name, a blank and fields");
  }
  std::set<std::string> names;
  const std::vector<std::string> pieces = FieldTexts(text.substr(blank + 1));
  for (size_t i = 0; i < pieces.size(); ++i) CheckField(text, pieces[i], i + 1 == pieces.size(), &names);

  std::unique_ptr<RecordMeta> meta(RecordMeta::Create(0, text));
  if (meta == nullptr || meta->fields.size() != pieces.size()) Refuse(text, "is not understood");
  return meta;
}

const char* TokenOf(ValueType type) {
  switch (type) {
    case ValueType::Int32:
      return "%i4";
    case ValueType::Int64:
      return "%i8";
    case ValueType::Float:
      return "%f";
    case ValueType::Double:
      return "%d";
    case ValueType::String:
      return "%s";
    case ValueType::Binary:
      return "*";
    case ValueType::None:
      break;
  }
  return "none";
}

RecordTypes ReadRecordTypes(const std::string& store) {
  RecordTypes types;
  std::string why;
  const auto file = Inspect::ReadOnlyFile::Open(Inspect::SchemaPath(store), &why);
  if (!file) return types;
  Inspect::ScanSchema(*file, [&types](const SchemaLineView& line) {
    if (!line.IsRecordType()) return true;
    std::unique_ptr<RecordMeta> meta(RecordMeta::Create(line.id, line.text));
    if (meta != nullptr) types[line.id] = std::move(meta);
    return true;
  });
  return types;
}

}  // namespace Kestrun::Tools
