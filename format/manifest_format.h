// format/manifest_format.h: the bytes of the manifest, manifest_v5.
// docs/internals/format/manifest.md shows a file.
//
//   0    header (128 bytes)
//   128  one entry for each block, oldest first: 56 bytes and the block's key filter
//
// Integers are little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "format/file_names.h"

namespace Kestrun {

namespace ManifestHeaderOffset {
inline constexpr size_t kMagic = 0;
inline constexpr size_t kVersion = 8;
inline constexpr size_t kGeneration = 12;
inline constexpr size_t kHeaderSize = 16;
inline constexpr size_t kChecksum = 20;
inline constexpr size_t kUnused = 24;
inline constexpr size_t kEnd = 128;
}  // namespace ManifestHeaderOffset

struct ManifestHeader {
  uint8_t magic[8];
  uint32_t version;
  uint32_t generation;  // 0 at creation, one more with every block recorded
  uint32_t headerSize;  // 128; written and never read
  uint32_t checksum;    // StoreChecksum of [kMagic, kChecksum)
  uint8_t unused[104];  // zero
};
static_assert(offsetof(ManifestHeader, version) == ManifestHeaderOffset::kVersion);
static_assert(offsetof(ManifestHeader, generation) == ManifestHeaderOffset::kGeneration);
static_assert(offsetof(ManifestHeader, headerSize) == ManifestHeaderOffset::kHeaderSize);
static_assert(offsetof(ManifestHeader, checksum) == ManifestHeaderOffset::kChecksum);
static_assert(offsetof(ManifestHeader, unused) == ManifestHeaderOffset::kUnused);
static_assert(sizeof(ManifestHeader) == ManifestHeaderOffset::kEnd);
static_assert(std::has_unique_object_representations_v<ManifestHeader>);

namespace ManifestEntryOffset {
inline constexpr size_t kName = 0;
inline constexpr size_t kCreateTime = 32;
inline constexpr size_t kModifyTime = 40;
inline constexpr size_t kFilterSize = 48;
inline constexpr size_t kChecksum = 52;
inline constexpr size_t kFilter = 56;
}  // namespace ManifestEntryOffset

struct ManifestEntry {
  char name[kBlockNameLength + 1];  // NUL-terminated; the block's file is the name and ".blk_v5"
  uint64_t createTime;              // seconds since the Unix epoch; written and never read
  uint64_t modifyTime;              // the same clock, read once more
  uint32_t filterSize;              // bytes of the key filter that follows
  uint32_t checksum;                // StoreChecksum of [kName, kChecksum); the filter is not covered
};
static_assert(offsetof(ManifestEntry, createTime) == ManifestEntryOffset::kCreateTime);
static_assert(offsetof(ManifestEntry, modifyTime) == ManifestEntryOffset::kModifyTime);
static_assert(offsetof(ManifestEntry, filterSize) == ManifestEntryOffset::kFilterSize);
static_assert(offsetof(ManifestEntry, checksum) == ManifestEntryOffset::kChecksum);
static_assert(sizeof(ManifestEntry) == ManifestEntryOffset::kFilter);
static_assert(std::has_unique_object_representations_v<ManifestEntry>);

// The journal, manifest_v5.next, which makes a replacement of the manifest's entries survive the death of the
// process that does it. It holds the entries that are to stand in the manifest, is synced before the first
// byte of the manifest changes, and is removed when the manifest is complete on the disk.
//
//   0   header (40 bytes)
//   40  the new entries
namespace ManifestJournalHeaderOffset {
inline constexpr size_t kMagic = 0;
inline constexpr size_t kVersion = 8;
inline constexpr size_t kGeneration = 12;
inline constexpr size_t kOldLength = 16;
inline constexpr size_t kOldHash = 24;
inline constexpr size_t kHash = 32;
inline constexpr size_t kEnd = 40;
}  // namespace ManifestJournalHeaderOffset

struct ManifestJournalHeader {
  uint8_t magic[8];
  uint32_t version;
  uint32_t generation;  // that the manifest gets
  uint64_t oldLength;   // of the old entries in bytes
  uint64_t oldHash;     // ManifestJournalHash of the old entries
  uint64_t hash;        // of bytes 0 to 31 and of the new entries
};
static_assert(offsetof(ManifestJournalHeader, version) == ManifestJournalHeaderOffset::kVersion);
static_assert(offsetof(ManifestJournalHeader, generation) == ManifestJournalHeaderOffset::kGeneration);
static_assert(offsetof(ManifestJournalHeader, oldLength) == ManifestJournalHeaderOffset::kOldLength);
static_assert(offsetof(ManifestJournalHeader, oldHash) == ManifestJournalHeaderOffset::kOldHash);
static_assert(offsetof(ManifestJournalHeader, hash) == ManifestJournalHeaderOffset::kHash);
static_assert(sizeof(ManifestJournalHeader) == ManifestJournalHeaderOffset::kEnd);
static_assert(std::has_unique_object_representations_v<ManifestJournalHeader>);

}  // namespace Kestrun
