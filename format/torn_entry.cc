#include "format/torn_entry.h"

#include <algorithm>
#include <cstring>

#include "format/checksum.h"
#include "format/manifest_format.h"

namespace Kestrun {
namespace {

constexpr uint64_t kSector = 512;  // what a disk writes as a whole, or more

bool IsSoundEntry(const uint8_t* bytes) {
  uint32_t checksum = 0;
  std::memcpy(&checksum, bytes + ManifestEntryOffset::kChecksum, sizeof(checksum));
  return checksum == StoreChecksum(bytes, ManifestEntryOffset::kChecksum);
}

}  // namespace

bool IsTornEntry(const uint8_t* bytes, size_t size, uint64_t offset) {
  static_assert(kMaxManifestEntry > sizeof(ManifestEntry));
  if (size < sizeof(ManifestEntry) || size > kMaxManifestEntry) return false;

  bool missing = false;
  for (size_t begin = 0; begin < sizeof(ManifestEntry) && !missing;) {
    const auto left = static_cast<size_t>(kSector - (offset + begin) % kSector);
    const size_t end = begin + std::min(left, size - begin);
    missing = std::all_of(bytes + begin, bytes + end, [](uint8_t byte) { return byte == 0; });
    begin = end;
  }
  if (!missing) return false;

  for (size_t i = 0; i + sizeof(ManifestEntry) <= size; ++i) {
    if (IsSoundEntry(bytes + i)) return false;
  }
  return true;
}

}  // namespace Kestrun
