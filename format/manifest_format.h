// format/manifest_format.h: the bytes of the manifest, manifest_v5. docs/internals/format/manifest.md shows a file.
//
//   0    header (128 bytes)
//   128  one entry for each block, oldest first: 56 bytes and the block's key filter
//
// Integers are little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace Kestrun {

inline constexpr char kManifestFileName[] = "manifest_v5";

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

inline constexpr size_t kBlockNameLength = 31;

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

}  // namespace Kestrun
