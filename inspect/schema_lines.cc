#include "inspect/schema_lines.h"

#include <algorithm>

namespace Kestrun::Inspect {

bool ScanSchema(const ReadOnlyFile& file, const SchemaReader::Visit& visit) {
  constexpr uint64_t kPiece = 64 << 10;
  SchemaReader reader(kMaxSchemaLine);
  std::string piece;
  for (uint64_t offset = 0; offset < file.Size(); offset += piece.size()) {
    piece.resize(static_cast<size_t>(std::min(kPiece, file.Size() - offset)));
    if (!file.ReadAt(offset, piece.data(), piece.size())) return false;
    if (!reader.Feed(piece.data(), piece.size(), visit)) return true;
  }
  reader.Finish(visit);
  return true;
}

}  // namespace Kestrun::Inspect
