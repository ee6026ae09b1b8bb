#include "inspect/dump.h"

#include "format/block_format.h"
#include "format/manifest_reader.h"
#include "format/wal_reader.h"
#include "inspect/block_file.h"
#include "inspect/dump_parts.h"
#include "inspect/field_writer.h"

namespace Kestrun::Inspect {

const char* FileKindName(FileKind kind) {
  switch (kind) {
    case FileKind::Log:
      return "log";
    case FileKind::Manifest:
      return "manifest";
    case FileKind::Block:
      return "block";
    case FileKind::Schema:
      return "schema";
    case FileKind::Unknown:
      break;
  }
  return "unknown";
}

FileKind DetectFileKind(const ReadOnlyFile& file) {
  const std::string& path = file.Path();
  const std::string name = path.substr(path.rfind('/') + 1);
  if (name == kWalFileName) return FileKind::Log;
  if (name == kManifestFileName) return FileKind::Manifest;
  if (name == kSchemaFileName) return FileKind::Schema;
  if (name.ends_with(kBlockFileSuffix)) return FileKind::Block;
  // The three binary files begin alike, but keep the checksum of their headers at different places.
  FileSource source(file);
  if (ReadWalHeader(source).Usable()) return FileKind::Log;
  if (ReadManifestHeader(source).Usable()) return FileKind::Manifest;
  if (const BlockFile block(file, 4096); block.HeaderChecksumMatches() && block.MagicMatches()) {
    return FileKind::Block;
  }
  return FileKind::Unknown;
}

bool DumpFile(const ReadOnlyFile& file, FileKind kind, uint64_t pageSize, DumpSink* sink) {
  FieldWriter writer(file, sink);
  switch (kind) {
    case FileKind::Log:
      DumpLog(file, &writer);
      break;
    case FileKind::Manifest:
      DumpManifest(file, &writer);
      break;
    case FileKind::Block:
      DumpBlock(file, pageSize, &writer);
      break;
    case FileKind::Schema:
      DumpSchema(file, &writer);
      break;
    case FileKind::Unknown:
      break;
  }
  writer.Filler(file.Size(), "bytes");
  return !writer.Failed();
}

}  // namespace Kestrun::Inspect
