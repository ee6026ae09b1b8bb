// tools/row_writer.h: the rows that export writes, in each of the formats.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kestrun/record_meta.h"
#include "tools/field_value.h"
#include "tools/rows.h"

namespace Kestrun::Tools {

// An entry as it is exported.
struct ExportedEntry {
  std::string_view key;
  const RecordMeta* type = nullptr;      // null for a raw value
  const std::vector<FieldView>* fields;  // of a record
  std::string_view value;                // a raw one
  uint64_t written = 0;                  // seconds since the Unix epoch
  uint32_t ttl = 0;                      // what is left of it; kTtlForever stays
};

struct RowWriterOptions {
  RowFormat format = RowFormat::JsonLines;
  char delimiter = ',';
  bool hex = false;
  bool withEntry = false;
  bool namesTypes = false;  // rows of several types: each names its own
  std::string keyColumn = "key";
  std::string table;                 // of SQLite; empty: the name of the type
  const RecordMeta* type = nullptr;  // the only type; null for raw values and for several
};

class RowWriter {
 public:
  virtual ~RowWriter() = default;
  virtual void Add(const ExportedEntry& entry) = 0;
  // After the last row.
  virtual void Finish() = 0;
};

// Takes text as it is written.
using TextSink = std::function<void(std::string_view)>;

// CSV, TSV, JSON Lines or JSON. Throws InputError for bytes that the format can't hold.
std::unique_ptr<RowWriter> MakeTextWriter(const RowWriterOptions& options, TextSink sink);
// A new SQLite file with a table for each type. Throws SystemFailure.
std::unique_ptr<RowWriter> MakeSqliteWriter(const RowWriterOptions& options, const std::string& path);

}  // namespace Kestrun::Tools
