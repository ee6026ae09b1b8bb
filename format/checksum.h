// format/checksum.h: the checksum of the store's headers and entry descriptors.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Kestrun {

inline constexpr uint32_t kChecksumSeed = 0xBC9F1D34;

// The seed plus every byte, each taken unsigned, modulo 2^32. It protects headers and descriptors only,
// never keys, values or filters.
//
// Eight bytes are added at a time, in four lanes of 16 bits: a lane takes two bytes of each word, so that 128
// words fit before the lanes are added up.
inline uint32_t StoreChecksum(const void* data, size_t size) {
  constexpr uint64_t kEvenBytes = 0x00FF00FF00FF00FF;
  constexpr uint64_t kEvenLanes = 0x0000FFFF0000FFFF;
  constexpr size_t kWordsAtOnce = 128;
  const auto* bytes = static_cast<const uint8_t*>(data);
  uint32_t sum = kChecksumSeed;
  while (size >= sizeof(uint64_t)) {
    const size_t words = std::min(size / sizeof(uint64_t), kWordsAtOnce);
    uint64_t lanes = 0;
    for (size_t i = 0; i < words; ++i) {
      uint64_t word;
      std::memcpy(&word, bytes + i * sizeof(word), sizeof(word));
      lanes += (word & kEvenBytes) + ((word >> 8) & kEvenBytes);
    }
    lanes = (lanes & kEvenLanes) + ((lanes >> 16) & kEvenLanes);
    sum += static_cast<uint32_t>(lanes) + static_cast<uint32_t>(lanes >> 32);
    bytes += words * sizeof(uint64_t);
    size -= words * sizeof(uint64_t);
  }
  for (size_t i = 0; i < size; ++i) sum += bytes[i];
  return sum;
}

}  // namespace Kestrun
