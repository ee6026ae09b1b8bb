#include "store/key_rules.h"

namespace Kestrun {
namespace {

constexpr unsigned char kFirstDroppedByte = 0xFF;

}  // namespace

bool IsValidKey(std::string_view key) {
  return !key.empty() && key.size() <= kMaxKeySize && static_cast<unsigned char>(key[0]) != kFirstDroppedByte;
}

bool IsValidValue(std::string_view value) {
  return value.size() <= UINT32_MAX;
}

Key ToKey(std::string_view key) {
  return Key(reinterpret_cast<const unsigned char*>(key.data()), static_cast<unsigned short>(key.size()));
}

}  // namespace Kestrun
