// bindings/node/src/key_escape.h: the keys of abstract-level as keys of a store.
//
// A store takes keys of 1 to 65,535 bytes that do not begin with 0xFF; abstract-level also has the empty key
// and any first byte. What a store can't take is escaped, so that the order of the keys stays:
//
//   key            stored
//   (empty)        00
//   00 ...         00 00 ...
//   FE ...         FE FE ...
//   FF ...         FE FF ...
//   anything else  the same bytes
//
// Everything is a key of the store but these, which no key is stored as: those that begin with 00 or FE and
// go on in another way.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Kestrun::Script {

inline constexpr size_t kMaxStoredKeySize = 65535;

// What `key` is stored as; may be longer than kMaxStoredKeySize.
inline std::string EscapeKey(std::string_view key) {
  constexpr char kLow = '\x00', kHigh = '\xFE', kTop = '\xFF';
  if (key.empty()) return std::string(1, kLow);
  const char first = key.front();
  if (first != kLow && first != kHigh && first != kTop) return std::string(key);
  std::string stored;
  stored.reserve(key.size() + 1);
  stored.push_back(first == kLow ? kLow : kHigh);
  stored.append(key);
  return stored;
}

// Sets `*key` to the part of `stored` that is the key; false when no key is stored like this.
inline bool UnescapeKey(std::string_view stored, std::string_view* key) {
  constexpr char kLow = '\x00', kHigh = '\xFE', kTop = '\xFF';
  if (stored.empty()) return false;
  const char first = stored.front();
  if (first != kLow && first != kHigh) {
    *key = stored;
    return first != kTop;
  }
  *key = stored.substr(1);
  if (first == kLow) return key->empty() || key->front() == kLow;
  return !key->empty() && (key->front() == kHigh || key->front() == kTop);
}

}  // namespace Kestrun::Script
