// format/checksum.h: the checksum of the store's headers and entry descriptors.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Kestrun {

inline constexpr uint32_t kChecksumSeed = 0xBC9F1D34;

// The seed plus every byte, each taken unsigned, modulo 2^32. It protects headers and descriptors only,
// never keys, values or filters.
inline uint32_t StoreChecksum(const void* data, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  uint32_t sum = kChecksumSeed;
  for (size_t i = 0; i < size; ++i) sum += bytes[i];
  return sum;
}

}  // namespace Kestrun
