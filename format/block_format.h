// format/block_format.h: the bytes of a block file, <name>.blk_v5.
// docs/internals/format/block.md shows a whole file.
//
//   0    file header (128 bytes)
//   128  data section: the values, one after the other
//   O2   key table: the keys, one after the other; O2 is the next page boundary
//   O3   entry table: one BlockDataEntry per key; O3 is the next page boundary
//
// Each section begins with a 28-byte header whose size counts the whole section. All three list the keys in
// ascending order. The page size of the machine is part of the format. Integers are little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "format/crc32c.h"
#include "format/file_names.h"

namespace Kestrun {

namespace BlockFileHeaderOffset {
inline constexpr size_t kMagic = 0;
inline constexpr size_t kVersion = 8;
inline constexpr size_t kChecksum = 12;
inline constexpr size_t kZero = 16;
inline constexpr size_t kEnd = 128;
}  // namespace BlockFileHeaderOffset

struct BlockFileHeader {
  uint8_t magic[8];
  uint32_t version;
  uint32_t checksum;  // StoreChecksum of [kMagic, kChecksum)
  uint8_t zero[112];
};
static_assert(offsetof(BlockFileHeader, version) == BlockFileHeaderOffset::kVersion);
static_assert(offsetof(BlockFileHeader, checksum) == BlockFileHeaderOffset::kChecksum);
static_assert(offsetof(BlockFileHeader, zero) == BlockFileHeaderOffset::kZero);
static_assert(sizeof(BlockFileHeader) == BlockFileHeaderOffset::kEnd);
static_assert(std::has_unique_object_representations_v<BlockFileHeader>);

enum class SectionType : uint16_t { Data = 0, KeyTable = 1, EntryTable = 2 };

inline constexpr char kDataSectionName[] = "__DATA__";
inline constexpr char kKeyTableName[] = "__KEYTAB__";
inline constexpr char kEntryTableName[] = "__ENTRY__";

namespace SectionHeaderOffset {
inline constexpr size_t kType = 0;
inline constexpr size_t kName = 2;
inline constexpr size_t kZero = 18;
inline constexpr size_t kSize = 20;
inline constexpr size_t kChecksum = 24;
inline constexpr size_t kEnd = 28;
}  // namespace SectionHeaderOffset

struct SectionHeader {
  uint16_t type;  // SectionType; not looked at when reading
  char name[16];  // NUL-padded; not looked at when reading
  uint16_t zero;
  uint32_t size;      // of the section in bytes, this header included
  uint32_t checksum;  // StoreChecksum of [kType, kChecksum)
};
static_assert(offsetof(SectionHeader, name) == SectionHeaderOffset::kName);
static_assert(offsetof(SectionHeader, zero) == SectionHeaderOffset::kZero);
static_assert(offsetof(SectionHeader, size) == SectionHeaderOffset::kSize);
static_assert(offsetof(SectionHeader, checksum) == SectionHeaderOffset::kChecksum);
static_assert(sizeof(SectionHeader) == SectionHeaderOffset::kEnd);
static_assert(std::has_unique_object_representations_v<SectionHeader>);

inline constexpr uint64_t kDataSectionOffset = sizeof(BlockFileHeader);
inline constexpr uint64_t kFirstValueOffset = kDataSectionOffset + sizeof(SectionHeader);

namespace BlockDataEntryOffset {
inline constexpr size_t kValueOffset = 0;
inline constexpr size_t kValueSize = 4;
inline constexpr size_t kDeleted = 8;
inline constexpr size_t kTimestamp = 16;
inline constexpr size_t kTtl = 24;
inline constexpr size_t kCrc = 28;
inline constexpr size_t kKeyOffset = 32;
inline constexpr size_t kKeySize = 36;
inline constexpr size_t kMark = 38;
inline constexpr size_t kChecksum = 40;
inline constexpr size_t kPadding3 = 44;
inline constexpr size_t kEnd = 48;
}  // namespace BlockDataEntryOffset

// Padding is written as zero; a reader accepts any value, and the checksum covers it as it stands. Without
// kChecksummedMark as mark, mark and crc are padding, too.
struct BlockDataEntry {
  uint32_t valueOffset;  // file offset of the value
  uint32_t valueSize;
  uint8_t deleted;  // nonzero: a tombstone
  uint8_t padding0[7];
  uint64_t timestamp;  // seconds since the Unix epoch at which the entry was first written
  uint32_t ttl;        // seconds
  uint32_t crc;        // with the mark: CRC-32C of the key's and the value's bytes
  uint32_t keyOffset;  // from the start of the key table section: 28 for the first key
  uint16_t keySize;
  uint16_t mark;      // kChecksummedMark, or padding
  uint32_t checksum;  // StoreChecksum of [kValueOffset, kChecksum)
  uint32_t padding3;
};
static_assert(offsetof(BlockDataEntry, valueSize) == BlockDataEntryOffset::kValueSize);
static_assert(offsetof(BlockDataEntry, deleted) == BlockDataEntryOffset::kDeleted);
static_assert(offsetof(BlockDataEntry, timestamp) == BlockDataEntryOffset::kTimestamp);
static_assert(offsetof(BlockDataEntry, ttl) == BlockDataEntryOffset::kTtl);
static_assert(offsetof(BlockDataEntry, crc) == BlockDataEntryOffset::kCrc);
static_assert(offsetof(BlockDataEntry, mark) == BlockDataEntryOffset::kMark);
static_assert(offsetof(BlockDataEntry, keyOffset) == BlockDataEntryOffset::kKeyOffset);
static_assert(offsetof(BlockDataEntry, keySize) == BlockDataEntryOffset::kKeySize);
static_assert(offsetof(BlockDataEntry, checksum) == BlockDataEntryOffset::kChecksum);
static_assert(offsetof(BlockDataEntry, padding3) == BlockDataEntryOffset::kPadding3);
static_assert(sizeof(BlockDataEntry) == BlockDataEntryOffset::kEnd);
static_assert(std::has_unique_object_representations_v<BlockDataEntry>);

// The smallest multiple of `pageSize` that is not less than `offset`.
constexpr uint64_t RoundUpToPage(uint64_t offset, uint64_t pageSize) {
  return (offset + pageSize - 1) / pageSize * pageSize;
}

// Where the sections of a block lie, from their sizes.
struct BlockLayout {
  uint64_t keyTableOffset;
  uint64_t entryTableOffset;
  uint64_t fileSize;
};
constexpr BlockLayout LayOutBlock(uint64_t dataSize, uint64_t keyTableSize, uint64_t entryTableSize,
                                  uint64_t pageSize) {
  const uint64_t keyTableOffset = RoundUpToPage(kDataSectionOffset + dataSize, pageSize);
  const uint64_t entryTableOffset = RoundUpToPage(keyTableOffset + keyTableSize, pageSize);
  return {keyTableOffset, entryTableOffset, entryTableOffset + entryTableSize};
}
// Offsets and sizes are 32-bit, so a block stays below 4 GiB.
inline constexpr uint64_t kBlockSizeLimit = uint64_t{1} << 32;

}  // namespace Kestrun
