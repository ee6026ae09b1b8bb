// format/crc32c.h: CRC-32C (Castagnoli), which protects keys and values.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Kestrun {

// In the place of padding of a log's record or a block's entry: it carries the CRC-32C of its content.
inline constexpr uint16_t kChecksummedMark = 0x4B43;

// The CRC-32C of `size` bytes that follow others whose CRC-32C is `crc`; 0 before the first. Uses the
// processor's instruction where it has one.
uint32_t Crc32c(const void* data, size_t size, uint32_t crc = 0);

// The same by tables, which every processor can; for comparison.
uint32_t Crc32cByTables(const void* data, size_t size, uint32_t crc = 0);

}  // namespace Kestrun
