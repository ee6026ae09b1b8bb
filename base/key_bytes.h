// base/key_bytes.h: a key as the bytes that it consists of.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "kestrun/key.h"

namespace Kestrun {

// The bytes of `key`, valid as long as it is; none of one that was moved from.
inline std::string_view BytesOf(const Key& key) {
  const unsigned char* data = key.Data();
  return {reinterpret_cast<const char*>(data), data == nullptr ? size_t{0} : key.Size()};
}

// The key of at most 65,535 `bytes`. May throw std::bad_alloc.
inline Key ToKey(std::string_view bytes) {
  return Key(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<unsigned short>(bytes.size()));
}

// The first eight bytes of a key as a number that orders as the bytes do; missing bytes count as zero.
inline uint64_t PrefixOf(std::string_view key) {
  uint64_t prefix = 0;
  if (key.size() >= sizeof(prefix)) {
    std::memcpy(&prefix, key.data(), sizeof(prefix));
  } else {
    // Byte by byte: a copy of a length that is not known costs a call.
    uint8_t padded[sizeof(prefix)] = {};
    for (size_t i = 0; i < key.size(); ++i) padded[i] = static_cast<uint8_t>(key[i]);
    std::memcpy(&prefix, padded, sizeof(prefix));
  }
  return __builtin_bswap64(prefix);
}

// How many bytes two keys have in common at their beginnings.
inline size_t CommonPrefixSize(std::string_view left, std::string_view right) {
  const size_t most = std::min(left.size(), right.size());
  size_t size = 0;
  while (size < most && left[size] == right[size]) ++size;
  return size;
}

}  // namespace Kestrun
