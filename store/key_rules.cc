#include "store/key_rules.h"

#include "format/scan_range.h"

namespace Kestrun {
bool IsValidKey(std::string_view key) {
  return InScanRange(key) && key.size() <= kMaxKeySize;
}

bool IsValidValue(std::string_view value) {
  return value.size() <= UINT32_MAX;
}

}  // namespace Kestrun
