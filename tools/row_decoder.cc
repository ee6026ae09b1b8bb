#include "tools/row_decoder.h"

#include <algorithm>

#include "inspect/escape.h"
#include "tools/bytes_text.h"
#include "tools/failure.h"
#include "tools/field_value.h"
#include "tools/quantities.h"
#include "tools/record_type.h"

namespace Kestrun::Tools {
namespace {

constexpr size_t kNone = SIZE_MAX;
constexpr char kKeyPattern[] = "{key}";

size_t ColumnOf(const std::vector<std::string>& names, std::string_view name) {
  const auto found = std::find(names.begin(), names.end(), name);
  return found == names.end() ? kNone : static_cast<size_t>(found - names.begin());
}

std::string ListOf(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) list += (list.empty() ? "" : ", ") + Inspect::Printable(name);
  return "; the columns are: " + list;
}

// Finds the columns of the fields; returns what is wrong.
std::string FindFields(const RecordMeta& meta, const std::vector<std::string>& names,
                       std::vector<size_t>* columns) {
  columns->clear();
  for (const Field* field : meta.fields) {
    const size_t column = ColumnOf(names, field->name);
    if (column == kNone)
      return "there is no column for the field \"" + Inspect::Printable(field->name) + "\"";
    if (std::count(names.begin(), names.end(), field->name) > 1) {
      return "there is more than one column for the field \"" + Inspect::Printable(field->name) + "\"";
    }
    columns->push_back(column);
  }
  return std::string();
}

}  // namespace

RowDecoder::RowDecoder(const Invocation& line, const RowSource& source, RowFormat format)
    : hex_(IsHex(line)),
      wholeRow_((format == RowFormat::Csv || format == RowFormat::Tsv) && line.Has("--key") &&
                !line.Has("--type")),
      withEntry_(line.Has("--with-entry")),
      ttl_(TtlOf(line)),
      key_(line.Has("--key") ? *line.Find("--key") : kKeyPattern, hex_),
      hasType_(line.Has("--type")) {
  if (withEntry_ && line.Has("--ttl"))
    throw UsageError("--with-entry takes the time to live from the rows, not from --ttl");
  if (hasType_) types_.push_back({*line.Find("--type"), ParseRecordType(*line.Find("--type")), {}, 0, {}});
  if (source.Columns() == nullptr) return;
  const std::vector<std::string>& names = *source.Columns();
  std::string problem = Bind(names);
  if (problem.empty() && hasType_) problem = FindFields(*types_.front().meta, names, &types_.front().columns);
  if (!problem.empty()) throw UsageError(problem + ListOf(names));
}

// Returns what is wrong with the columns, whatever the rows hold.
std::string RowDecoder::Bind(const std::vector<std::string>& names) {
  valueColumn_ = ColumnOf(names, "value");
  typeColumn_ = hasType_ || wholeRow_ ? kNone : ColumnOf(names, "type");
  ttlColumn_ = withEntry_ ? ColumnOf(names, "ttl") : kNone;
  if (withEntry_ && ttlColumn_ == kNone) return "there is no column \"ttl\" for --with-entry";
  std::string problem = key_.Bind(names);
  if (problem.empty() && !hasType_ && !wholeRow_ && valueColumn_ == kNone && typeColumn_ == kNone) {
    problem = "there is no column \"value\"; rows of typed records need --type";
  }
  return problem;
}

bool RowDecoder::Decode(const Row& row, DecodedRow* decoded, std::string* why) {
  if (!row.problem.empty()) {
    *why = row.problem;
    return false;
  }
  if (row.shape != shape_) {
    shape_ = row.shape;
    problem_ = Bind(*row.names);
  }
  if (!problem_.empty()) {
    *why = problem_;
    return false;
  }
  if (!key_.Make(row, &decoded->key, why) || !DecodeTtl(row, decoded, why)) return false;
  decoded->type = nullptr;
  if (hasType_) return DecodeTyped(row, &types_.front(), decoded, why);
  if (typeColumn_ != kNone && row.cells[typeColumn_].kind != Cell::Kind::Null) {
    const Cell& cell = row.cells[typeColumn_];
    if (cell.kind != Cell::Kind::String && cell.kind != Cell::Kind::Text) {
      *why = "has a \"type\" that is no text";
      return false;
    }
    if (!cell.text.empty()) {
      Typed* typed = TypeNamed(cell.text, why);
      return typed != nullptr && DecodeTyped(row, typed, decoded, why);
    }
  }
  return DecodeRaw(row, decoded, why);
}

RowDecoder::Typed* RowDecoder::TypeNamed(std::string_view text, std::string* why) {
  constexpr size_t kMaxTypes = 10000;
  for (Typed& typed : types_) {
    if (typed.text == text) return &typed;
  }
  if (types_.size() == kMaxTypes) {
    *why = "names one record type more than the " + std::to_string(kMaxTypes) + " that an import takes";
    return nullptr;
  }
  try {
    types_.push_back({std::string(text), ParseRecordType(std::string(text)), {}, 0, {}});
  } catch (const UsageError& error) {
    *why = error.what();
    return nullptr;
  }
  return &types_.back();
}

bool RowDecoder::DecodeTyped(const Row& row, Typed* typed, DecodedRow* decoded, std::string* why) {
  if (typed->shape != row.shape) {
    typed->shape = row.shape;
    typed->problem = FindFields(*typed->meta, *row.names, &typed->columns);
  }
  if (!typed->problem.empty()) {
    *why = typed->problem;
    return false;
  }
  const std::vector<Field*>& fields = typed->meta->fields;
  decoded->type = &typed->text;
  decoded->values.resize(fields.size());
  bytes_.resize(std::max(bytes_.size(), fields.size()));
  for (size_t i = 0; i < fields.size(); ++i) {
    const Cell& cell = row.cells[typed->columns[i]];
    if (!ParseFieldValue(cell, fields[i]->type, &decoded->values[i], &bytes_[i], why)) {
      *why = "\"" + Inspect::Printable(fields[i]->name) + "\" " + *why;
      return false;
    }
  }
  return true;
}

bool RowDecoder::DecodeRaw(const Row& row, DecodedRow* decoded, std::string* why) {
  if (wholeRow_) {
    decoded->value.assign(row.raw);
    return true;
  }
  if (valueColumn_ == kNone) {
    *why = "has no \"value\"; rows of typed records need --type";
    return false;
  }
  const Cell& cell = row.cells[valueColumn_];
  switch (cell.kind) {
    case Cell::Kind::Bytes:
      decoded->value.assign(cell.text);
      return true;
    case Cell::Kind::Text:
    case Cell::Kind::String:
      if (!hex_) {
        decoded->value.assign(cell.text);
        return true;
      }
      if (const auto bytes = BytesOfHex(cell.text)) {
        decoded->value = *bytes;
        return true;
      }
      *why = "has a \"value\" that is no hexadecimal digits, as --hex asks for";
      return false;
    default:
      *why = "has a \"value\" that is neither a text nor {\"hex\": \"...\"}";
      return false;
  }
}

bool RowDecoder::DecodeTtl(const Row& row, DecodedRow* decoded, std::string* why) {
  decoded->ttl = ttl_;
  if (ttlColumn_ == kNone) return true;
  const Cell& cell = row.cells[ttlColumn_];
  const auto ttl = cell.kind == Cell::Kind::Null ? std::nullopt : ParseTtl(std::string(cell.text));
  if (!ttl) {
    *why = "has a \"ttl\" that is no time to live: \"" + Inspect::Printable(cell.text) + "\"";
    return false;
  }
  decoded->ttl = *ttl;
  return true;
}

}  // namespace Kestrun::Tools
