#include "tools/import_rows.h"

#include <algorithm>

#include "inspect/escape.h"
#include "kestrun/record.h"
#include "tools/failure.h"
#include "tools/record_type.h"

namespace Kestrun::Tools {
namespace {

constexpr uint64_t kRecordHeader = 40;

std::string PatternOf(RowFormat format, bool typed, const std::optional<std::string>& pattern) {
  if (pattern) return *pattern;
  if (format == RowFormat::Csv && !typed) {
    throw UsageError(
        "rows of CSV need --key, which makes their keys of columns, such as --key 'seattle-{date}'");
  }
  return std::string("{") + kKeyColumn + "}";
}

}  // namespace

RowDecoder::RowDecoder(RowFormat format, const std::optional<std::string>& type,
                       const std::optional<std::string>& pattern)
    : type_(type ? ParseRecordType(*type) : nullptr),
      key_(PatternOf(format, type.has_value(), pattern)),
      wholeRow_(format == RowFormat::Csv || pattern.has_value()) {}

void RowDecoder::RequireColumns(const std::vector<std::string>& columns) const {
  key_.RequireColumns(columns);
  if (type_ == nullptr) return;
  std::string list;
  for (const std::string& column : columns) list += (list.empty() ? "" : ", ") + Inspect::Printable(column);
  for (const Field* field : type_->fields) {
    const auto count = std::count(columns.begin(), columns.end(), field->name);
    if (count == 1) continue;
    throw UsageError((count == 0 ? "there is no column for the field \""
                                 : "there is more than one column for the field \"") +
                     Inspect::Printable(field->name) + "\"; the columns are: " + list);
  }
}

bool RowDecoder::Decode(const Row& row, uint64_t capacity, DecodedRow* decoded, std::string* why) const {
  *why = row.problem;
  if (!why->empty()) return false;
  if (!key_.Make(row, &decoded->key, why)) return false;
  if (!(type_ == nullptr ? DecodeValue(row, decoded, why) : DecodeRecord(row, decoded, why))) return false;

  const uint64_t size =
      type_ == nullptr ? decoded->value.size() : Record(type_.get(), decoded->record.values).Capacity();
  const uint64_t needed = kRecordHeader + decoded->key.size() + size;
  if (needed <= capacity) return true;
  *why = "takes " + std::to_string(needed) + " bytes in the log, which holds " + std::to_string(capacity) +
         "; give a larger --wal-size";
  return false;
}

bool RowDecoder::DecodeValue(const Row& row, DecodedRow* decoded, std::string* why) const {
  if (wholeRow_) {
    decoded->value = row.raw;
    return true;
  }
  const Cell* cell = row.Find(kValueColumn);
  if (cell == nullptr) {
    *why = "has no \"value\"; rows of typed records need --type";
    return false;
  }
  if (cell->kind != Cell::Kind::String && cell->kind != Cell::Kind::Bytes) {
    *why = "has a \"value\" that is neither a text nor {\"hex\": \"...\"}";
    return false;
  }
  decoded->value = cell->text;
  return true;
}

bool RowDecoder::DecodeRecord(const Row& row, DecodedRow* decoded, std::string* why) const {
  for (const Field* field : type_->fields) {
    const Cell* cell = row.Find(field->name);
    if (cell == nullptr) {
      *why = "has no \"" + Inspect::Printable(field->name) + "\"";
      return false;
    }
    if (!AddValue(*cell, field->type, &decoded->record, why)) {
      *why = "\"" + Inspect::Printable(field->name) + "\" " + *why;
      return false;
    }
  }
  return true;
}

}  // namespace Kestrun::Tools
