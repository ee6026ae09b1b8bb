#include "engine/manifest_filter.h"

#include <cstring>
#include <string_view>

#include "block/block_pages.h"
#include "format/key_filter.h"
#include "format/scan_range.h"
#include "kestrun/status.h"

namespace Kestrun {
namespace {

// As Key::GetPrimary: the key up to its last dash, unless that is its first byte.
std::string_view PrimaryOf(std::string_view key) {
  if (key.empty()) return key;
  const auto* const dash = static_cast<const char*>(memrchr(key.data(), '-', key.size()));
  return dash == nullptr || dash == key.data() ? key : key.substr(0, static_cast<size_t>(dash - key.data()));
}

}  // namespace

uint32_t BuildManifestFilter(const Block& block, std::vector<uint8_t>* filter) {
  KeyFilterBuilder builder;
  BlockPages pages(block);
  for (uint32_t i = 0; i < block.Count(); ++i) {
    if (const uint32_t status = pages.Load(i); status != kStatusOk) return status;
    const std::string_view key = pages.KeyAt(i);
    if (!InScanRange(key)) continue;
    builder.Add(KeyHash(key));
    const std::string_view primary = PrimaryOf(key);
    if (primary.size() != key.size()) builder.Add(KeyHash(primary));
  }
  *filter = builder.Finish();
  return kStatusOk;
}

}  // namespace Kestrun
