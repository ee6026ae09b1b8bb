#include "record/schema_format.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "kestrun/record_meta.h"

namespace Kestrun {

void SchemaLineReader::Feed(const char* bytes, size_t size, const Visit& visit) {
  const char* const end = bytes + size;
  while (bytes != end) {
    const char* lineEnd = std::find_if(bytes, end, [](char c) { return c == '\n' || c == '\0'; });
    line_.append(bytes, lineEnd);
    if (lineEnd == end) return;
    bytes = lineEnd + 1;

    std::vector<std::string> pieces;
    SplitString(line_, pieces, "#");
    line_.clear();
    if (pieces.size() < 2) continue;
    visit(static_cast<uint16_t>(std::strtol(pieces[0].c_str(), nullptr, 10)), pieces[1]);
  }
}

std::string SchemaLine(uint64_t id, const std::string& text) {
  return std::to_string(id) + "#" + text + "\n";
}

}  // namespace Kestrun
