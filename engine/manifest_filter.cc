#include "engine/manifest_filter.h"

#include <string_view>

#include "format/key_filter.h"
#include "format/scan_range.h"

namespace Kestrun {
namespace {

// As Key::GetPrimary: the key up to its last dash, unless that is its first byte.
std::string_view PrimaryOf(std::string_view key) {
  const size_t dash = key.rfind('-');
  return dash == std::string_view::npos || dash == 0 ? key : key.substr(0, dash);
}

}  // namespace

std::vector<uint8_t> BuildManifestFilter(const Block& block) {
  std::vector<uint32_t> hashes;
  hashes.reserve(size_t{block.Count()} * 2);
  for (uint32_t i = 0; i < block.Count(); ++i) {
    const std::string_view key = block.KeyAt(i);
    if (!InScanRange(key)) continue;
    hashes.push_back(KeyHash(key));
    const std::string_view primary = PrimaryOf(key);
    if (primary.size() != key.size()) hashes.push_back(KeyHash(primary));
  }
  return BuildKeyFilter(hashes);
}

}  // namespace Kestrun
