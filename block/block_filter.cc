#include "block/block_filter.h"

#include <cstring>

namespace Kestrun {
namespace {

constexpr size_t kBitsPerKey = 16;
constexpr size_t kBitsPerLine = 512;
constexpr int kProbes = 6;

uint64_t Mix(uint64_t hash, uint64_t word) {
  hash = (hash ^ word) * 0x9E3779B97F4A7C15;
  return hash ^ (hash >> 29);
}

uint64_t HashOf(std::string_view key) {
  uint64_t hash = key.size();
  uint64_t word = 0;
  for (; key.size() >= sizeof(word); key.remove_prefix(sizeof(word))) {
    std::memcpy(&word, key.data(), sizeof(word));
    hash = Mix(hash, word);
  }
  word = 0;
  if (!key.empty()) std::memcpy(&word, key.data(), key.size());
  return Mix(Mix(hash, word), hash >> 32);
}

// Calls `visit(word, bit)` for the bits of a key within its line, as long as it returns true. The line is
// chosen by the upper half of the hash, the bits by 9 bits each of what follows from both halves.
template <typename Visit>
bool ForEachBit(uint64_t hash, Visit visit) {
  uint64_t bits = hash * 0xD6E8FEB86659FD93;
  for (int i = 0; i < kProbes; ++i, bits >>= 9) {
    if (!visit((bits >> 6) & 7, uint64_t{1} << (bits & 63))) return false;
  }
  return true;
}

}  // namespace

BlockFilter::Probe::Probe(std::string_view bytes) : key(bytes), hash(HashOf(bytes)) {}

BlockFilter::BlockFilter(uint32_t count)
    : lines_((size_t{count} * kBitsPerKey + kBitsPerLine - 1) / kBitsPerLine) {}

BlockFilter::BlockFilter(const BlockIndex& index) : BlockFilter(index.Count()) {
  const uint32_t count = index.Count();
  if (count == 0) return;
  for (uint32_t i = 0; i < count; ++i) SetBits(index.KeyAt(i));
  first_ = index.KeyAt(0);
  last_ = index.KeyAt(count - 1);
  isEmpty_ = false;
}

void BlockFilter::Add(std::string_view key) {
  if (isEmpty_) first_ = key;
  isEmpty_ = false;
  last_ = key;
  SetBits(key);
}

void BlockFilter::SetBits(std::string_view key) {
  const uint64_t hash = HashOf(key);
  Line& line = lines_[LineIndexOf(hash)];
  ForEachBit(hash, [&line](uint64_t word, uint64_t bit) {
    line.words[word] |= bit;
    return true;
  });
}

// Keys before the first one and after the last one are not found, in a damaged block either.
bool BlockFilter::MayContain(const Probe& probe) const {
  if (isEmpty_ || probe.key < first_ || last_ < probe.key) return false;
  const Line& line = lines_[LineIndexOf(probe.hash)];
  return ForEachBit(probe.hash,
                    [&line](uint64_t word, uint64_t bit) { return (line.words[word] & bit) != 0; });
}

}  // namespace Kestrun
