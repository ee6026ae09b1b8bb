// tools/seen_keys.h: which keys an import has certainly not met yet, in the same memory
// for any number of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

namespace Kestrun::Tools {

// A Bloom filter of 8 MiB: of 10 million keys it takes some 2 in 100 for seen that were not.
class SeenKeys {
 public:
  SeenKeys() : words_(kBits / 64) {}

  bool AddAndTellWhetherMaybeSeen(std::string_view key) {
    uint64_t hash = std::hash<std::string_view>{}(key);
    bool seen = true;
    for (int i = 0; i < kProbes; ++i) {
      const uint64_t bit = (hash >> 7) % kBits;
      const uint64_t mask = uint64_t{1} << (bit & 63);
      seen = seen && (words_[bit / 64] & mask) != 0;
      words_[bit / 64] |= mask;
      hash = hash * 0x9E3779B97F4A7C15 + 0x7F4A7C15;
      hash ^= hash >> 29;
    }
    return seen;
  }

 private:
  static constexpr uint64_t kBits = uint64_t{8} << 23;
  static constexpr int kProbes = 4;

  std::vector<uint64_t> words_;
};

}  // namespace Kestrun::Tools
