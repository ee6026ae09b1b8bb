#include "format/key_filter.h"

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <utility>

#include "format/checksum.h"

namespace Kestrun {
namespace {

constexpr uint32_t kHashMultiplier = 0xC6A4A793;
constexpr uint8_t kProbes = 5;
constexpr uint8_t kMaxProbes = 30;  // more are read as a filter of some other kind, which holds everything
constexpr size_t kBitsPerKey = 8;
constexpr size_t kMinBits = 64;
constexpr size_t kMaxBits = (kMaxKeyFilterSize - 1) * 8;

uint32_t ProbeStep(uint32_t hash) {
  return (hash >> 17) | (hash << 15);
}

// `bits` is the size of the filter; a constant saves divisions.
template <typename Bits>
void SetProbes(uint32_t probe, Bits bits, uint8_t* filter) {
  const uint32_t step = ProbeStep(probe);
  for (int j = 0; j < kProbes; ++j, probe += step) {
    const size_t bit = probe % bits;
    filter[bit / 8] = static_cast<uint8_t>(filter[bit / 8] | (1u << (bit % 8)));
  }
}

constexpr std::integral_constant<size_t, kMaxBits> kLongest;

}  // namespace

uint32_t FilterHash(const uint8_t* data, size_t size, uint32_t seed) {
  uint32_t hash = seed ^ (static_cast<uint32_t>(size) * kHashMultiplier);
  while (size >= 4) {
    uint32_t word;
    std::memcpy(&word, data, sizeof(word));
    hash = (hash + word) * kHashMultiplier;
    hash ^= hash >> 16;
    data += 4;
    size -= 4;
  }
  if (size == 3) hash += static_cast<uint32_t>(data[2]) << 16;
  if (size >= 2) hash += static_cast<uint32_t>(data[1]) << 8;
  if (size >= 1) {
    hash += data[0];
    hash *= kHashMultiplier;
    hash ^= hash >> 24;
  }
  return hash;
}

uint32_t KeyHash(std::string_view key) {
  return FilterHash(reinterpret_cast<const uint8_t*>(key.data()), key.size(), kChecksumSeed);
}

std::vector<uint8_t> KeyFilterBuilder::EmptyFilter(size_t bits) {
  std::vector<uint8_t> filter(bits / 8 + 1);
  filter.back() = kProbes;
  return filter;
}

void KeyFilterBuilder::Add(uint32_t hash) {
  if (!filter_.empty()) {
    SetProbes(hash, kLongest, filter_.data());
    return;
  }
  hashes_.push_back(hash);
  if (hashes_.size() * kBitsPerKey < kMaxBits) return;
  filter_ = EmptyFilter(kMaxBits);
  for (const uint32_t each : hashes_) SetProbes(each, kLongest, filter_.data());
}

std::vector<uint8_t> KeyFilterBuilder::Finish() {
  if (!filter_.empty()) return std::move(filter_);
  const size_t bits = std::clamp(hashes_.size() * kBitsPerKey, kMinBits, kMaxBits);
  std::vector<uint8_t> filter = EmptyFilter(bits);
  for (const uint32_t each : hashes_) SetProbes(each, bits, filter.data());
  return filter;
}

std::vector<uint8_t> BuildKeyFilter(const std::vector<uint32_t>& hashes) {
  KeyFilterBuilder builder;
  for (const uint32_t hash : hashes) builder.Add(hash);
  return builder.Finish();
}

bool KeyFilterMayContain(uint32_t hash, const std::vector<uint8_t>& filter) {
  if (filter.size() < 2) return false;
  const uint8_t probes = filter.back();
  if (probes > kMaxProbes) return true;
  const size_t bits = (filter.size() - 1) * 8;
  const uint32_t step = ProbeStep(hash);
  for (int j = 0; j < probes; ++j, hash += step) {
    const size_t bit = hash % bits;
    if ((filter[bit / 8] & (1u << (bit % 8))) == 0) return false;
  }
  return true;
}

}  // namespace Kestrun
