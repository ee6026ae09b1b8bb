// store/key_rules.h: what the safe face takes as a key, a value and a time to live.
#pragma once

#include <cstddef>
#include <string_view>

namespace Kestrun {

inline constexpr size_t kMaxKeySize = 65535;

// 1 to 65,535 bytes that do not begin with 0xFF, which a flush would drop.
bool IsValidKey(std::string_view key);

// Values have sizes of 32 bits.
bool IsValidValue(std::string_view value);

}  // namespace Kestrun
