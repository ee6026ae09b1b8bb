// format/scan_range.h: which keys a scan visits, a flush copies and a merge keeps.
#pragma once

#include <string_view>

#include "format/file_names.h"

namespace Kestrun {

// The keys in [MinKey, MaxKey): not the empty one, and none that begins with the byte 0xFF.
inline bool InScanRange(std::string_view key) {
  return !key.empty() && static_cast<unsigned char>(key.front()) < kFirstUnflushedByte;
}

}  // namespace Kestrun
