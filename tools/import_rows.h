// tools/import_rows.h: what a row of a file becomes in a store.
//
//   with a record type      a record of the cells that its fields name
//   without, CSV            the row as it stands in the file, under a key made of its columns
//   without, JSON Lines     with a key pattern the row as it stands in the file; else the member "value"
//
// The key comes from the key pattern; without one it is the column or member "key". CSV rows that are stored
// as they stand have no such column and need a pattern.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kestrun/record_meta.h"
#include "tools/field_value.h"
#include "tools/key_template.h"
#include "tools/rows.h"

namespace Kestrun::Tools {

// The column and the member that hold the key where no pattern makes it, and the one of a raw value.
inline constexpr char kKeyColumn[] = "key";
inline constexpr char kValueColumn[] = "value";

struct DecodedRow {
  std::string key;
  std::string value;    // of a raw row
  RecordValues record;  // of a typed one
};

class RowDecoder {
 public:
  // Throws UsageError when type or pattern can't be understood, or a pattern is needed and missing.
  RowDecoder(RowFormat format, const std::optional<std::string>& type,
             const std::optional<std::string>& pattern);

  // Throws UsageError when rows of these columns lack one that is needed.
  void RequireColumns(const std::vector<std::string>& columns) const;

  // False when the row can't be stored in a log with room for `capacity` bytes, with the reason in `*why`.
  bool Decode(const Row& row, uint64_t capacity, DecodedRow* decoded, std::string* why) const;

  // Null for raw rows.
  const RecordMeta* Type() const { return type_.get(); }

 private:
  bool DecodeValue(const Row& row, DecodedRow* decoded, std::string* why) const;
  bool DecodeRecord(const Row& row, DecodedRow* decoded, std::string* why) const;

  std::unique_ptr<RecordMeta> type_;
  KeyTemplate key_;
  bool wholeRow_;  // a raw row is stored as it stands
};

}  // namespace Kestrun::Tools
