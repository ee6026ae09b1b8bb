// inspect/schema_lines.h: the lines of the record types of a store, meta_v5.
#pragma once

#include "format/schema_reader.h"
#include "inspect/read_only_file.h"

namespace Kestrun::Inspect {

// Lines up to this length are read; no record type comes near it.
inline constexpr size_t kMaxSchemaLine = size_t{1} << 20;

// Visits the lines that are not empty. The visitor returns false to stop. False when the file can't be read
// to its end.
bool ScanSchema(const ReadOnlyFile& file, const SchemaReader::Visit& visit);

}  // namespace Kestrun::Inspect
