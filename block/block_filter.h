// block/block_filter.h: which blocks certainly lack a key, in memory.
//
// The filter that the manifest keeps for a block is small; this one, of 16 bits for each key, errs for about
// one absent key in 500. A key touches a single line of the processor's cache.
//
// Threads:   any number may ask a filter at once.
// Failure:   building may throw std::bad_alloc.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "block/block_index.h"

namespace Kestrun {

class BlockFilter {
 public:
  // What a filter knows of a key; computed once for all blocks.
  struct Probe {
    explicit Probe(std::string_view key);
    std::string_view key;
    uint64_t hash;
  };

  explicit BlockFilter(const BlockIndex& index);
  // An empty filter with room for `count` keys, which are added in the order of the block.
  explicit BlockFilter(uint32_t count);
  void Add(std::string_view key);

  // False when the block has no entry for the key.
  bool MayContain(const Probe& probe) const;
  size_t MemoryUsed() const {
    return lines_.size() * sizeof(Line) + first_.size() + last_.size() + sizeof(*this);
  }

 private:
  struct alignas(64) Line {
    std::array<uint64_t, 8> words;
  };

  size_t LineIndexOf(uint64_t hash) const { return static_cast<size_t>((hash >> 32) * lines_.size() >> 32); }
  void SetBits(std::string_view key);

  std::string first_;  // the keys at both ends of the block
  std::string last_;
  std::vector<Line> lines_;  // none in an empty block
  bool isEmpty_ = true;
};

}  // namespace Kestrun
