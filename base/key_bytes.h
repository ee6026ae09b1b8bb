// base/key_bytes.h: a key as the bytes that it consists of.
#pragma once

#include <cstddef>
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

}  // namespace Kestrun
