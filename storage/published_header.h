// storage/published_header.h: how the mapped headers of the log and the manifest are changed.
//
// Both headers are 8 bytes of magic, 16 bytes of fields with a checksum among them, and bytes that never
// change. The 16 bytes are stored by one instruction, so that a process killed at any moment leaves the old
// header or the new one, never a field without its checksum.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Kestrun {

inline constexpr size_t kPublishedOffset = 8;
inline constexpr size_t kPublishedSize = 16;

// Copies bytes 8 to 23 of the header image `image` to the mapped header at `header`, after everything that
// was stored before.
void StoreHeaderAtomically(uint8_t* header, const void* image);

// One u32 of a mapped header, read without the file's lock. `field` is aligned to 4.
uint32_t LoadHeaderField(const uint8_t* field);

}  // namespace Kestrun
