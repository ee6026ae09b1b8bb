// inspect/dump_parts.h: DumpFile for each kind of file. What they leave over is dumped as plain bytes.
#pragma once

#include <cstdint>

#include "inspect/field_writer.h"
#include "inspect/read_only_file.h"

namespace Kestrun::Inspect {

void DumpLog(const ReadOnlyFile& file, FieldWriter* writer);
void DumpManifest(const ReadOnlyFile& file, FieldWriter* writer);
void DumpBlock(const ReadOnlyFile& file, uint64_t pageSize, FieldWriter* writer);
void DumpSchema(const ReadOnlyFile& file, FieldWriter* writer);

}  // namespace Kestrun::Inspect
