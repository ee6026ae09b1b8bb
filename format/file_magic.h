// format/file_magic.h: how every binary file of a store begins.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Kestrun {

inline constexpr size_t kMagicSize = 8;
inline constexpr uint8_t kFileMagic[kMagicSize] = {'K', 'E', 'S', 'T', 'R', 'U', 'N', '\0'};
inline constexpr uint32_t kFormatVersion = 5;

}  // namespace Kestrun
