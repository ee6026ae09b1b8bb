// inspect/schema_file.h: reads the record types of a store, meta_v5, line by line.
//
// Threads: as the file. Units: offsets are bytes from the start of the file.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "inspect/read_only_file.h"

namespace Kestrun::Inspect {

inline constexpr char kSchemaFileName[] = "meta_v5";

// Lines up to this length are read; no record type comes near it.
inline constexpr size_t kMaxSchemaLine = size_t{1} << 20;

struct SchemaLineView {
  uint64_t offset = 0;
  uint64_t size = 0;   // without its end
  std::string line;    // empty when it is longer than kMaxSchemaLine
  bool ended = false;  // a line without an end is not read by a store
  bool endedByNul = false;

  // What a store makes of the line: a record type, or nothing.
  bool isRecordType = false;
  uint16_t id = 0;
  bool idIsPlain = false;  // the id is written as a store writes it, and fits into 16 bits
  std::string text;        // the format text
  bool textIsCut = false;  // a second '#' and what follows it are dropped
};

// Visits the lines that are not empty. The visitor returns false to stop. False when the file can't be read
// to its end.
bool ScanSchema(const ReadOnlyFile& file, const std::function<bool(const SchemaLineView&)>& visit);

}  // namespace Kestrun::Inspect
