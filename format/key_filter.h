// format/key_filter.h: the Bloom filter that tells which blocks certainly lack a key.
//
// A filter is a bit array of m bytes followed by one byte k, the number of probes. Bit i is bit i mod 8,
// least significant first, of byte i / 8. A key's probes are (h + j * delta) mod the number of bits for
// j = 0 .. k-1, where h is its hash and delta is h rotated right by 17.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Kestrun {

// A 32-bit hash of `size` bytes. The filters on disk depend on every bit of it.
uint32_t FilterHash(const uint8_t* data, size_t size, uint32_t seed);

// The hash under which filters know a key.
uint32_t KeyHash(std::string_view key);

// The longest filter: 32768 bits and the number of probes.
inline constexpr size_t kMaxKeyFilterSize = 32768 / 8 + 1;

// Builds a filter: 8 bits per key, at least 64 bits and at most 32768, and 5 probes. Takes
// bounded memory. May throw std::bad_alloc.
class KeyFilterBuilder {
 public:
  void Add(uint32_t hash);
  std::vector<uint8_t> Finish();

 private:
  static std::vector<uint8_t> EmptyFilter(size_t bits);

  std::vector<uint32_t> hashes_;  // until there are so many that the filter is of the longest
  std::vector<uint8_t> filter_;   // the longest, from then on
};

// The filter over keys with these hashes.
std::vector<uint8_t> BuildKeyFilter(const std::vector<uint32_t>& hashes);

// Whether a filter may have been built from the key with this hash. A filter of fewer than 2 bytes holds
// nothing; one with no probes, or with more than 30, holds everything.
bool KeyFilterMayContain(uint32_t hash, const std::vector<uint8_t>& filter);

}  // namespace Kestrun
