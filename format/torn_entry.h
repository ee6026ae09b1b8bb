// format/torn_entry.h: what a loss of power can leave at the end of the manifest.
//
// While an entry is appended the file grows, and the new length may reach the disk before the entry's bytes
// do: sectors of zeros stand in their place. The block was not recorded yet, so the log still has what is in
// it; such a tail is not an entry, like one that is cut off by the end of the file.
#pragma once

#include <cstddef>
#include <cstdint>

#include "format/key_filter.h"
#include "format/manifest_format.h"

namespace Kestrun {

// No entry that this store writes is longer.
inline constexpr size_t kMaxManifestEntry = sizeof(ManifestEntry) + kMaxKeyFilterSize;

// Whether the `size` bytes from file offset `offset` on, which do not begin with a sound entry, are what is
// left of one that was being appended: they are no longer than one entry, a sector that holds part of the
// entry's head is all zeros, and no sound entry stands among them, so that nothing else can be meant.
bool IsTornEntry(const uint8_t* bytes, size_t size, uint64_t offset);

}  // namespace Kestrun
