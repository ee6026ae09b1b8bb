// format/wal_format.h: the bytes of the write-ahead log, wal_v5.
// docs/internals/format/wal.md shows a whole file.
//
//   0    header (24 bytes)
//   24   unused, zero in a new file
//   128  records, one after the other without gaps, up to the header's `used`
//
// A record is its 40-byte header, the key's bytes and the value's bytes. Integers are little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "format/crc32c.h"
#include "format/file_names.h"

namespace Kestrun {

inline constexpr uint32_t kWalFirstRecord = 128;

namespace WalHeaderOffset {
inline constexpr size_t kMagic = 0;
inline constexpr size_t kVersion = 8;
inline constexpr size_t kUsed = 12;
inline constexpr size_t kChecksum = 16;
inline constexpr size_t kReserved = 20;
inline constexpr size_t kEnd = 24;
}  // namespace WalHeaderOffset

struct WalHeader {
  uint8_t magic[8];
  uint32_t version;
  uint32_t used;      // file offset of the first free byte; kWalFirstRecord in an empty log
  uint32_t checksum;  // StoreChecksum of [kMagic, kChecksum)
  uint32_t reserved;  // 0 at creation, carried over by every update
};
static_assert(offsetof(WalHeader, version) == WalHeaderOffset::kVersion);
static_assert(offsetof(WalHeader, used) == WalHeaderOffset::kUsed);
static_assert(offsetof(WalHeader, checksum) == WalHeaderOffset::kChecksum);
static_assert(offsetof(WalHeader, reserved) == WalHeaderOffset::kReserved);
static_assert(sizeof(WalHeader) == WalHeaderOffset::kEnd);
static_assert(std::has_unique_object_representations_v<WalHeader>);

namespace WalRecordOffset {
inline constexpr size_t kValueOffset = 0;
inline constexpr size_t kValueSize = 4;
inline constexpr size_t kDeleted = 8;
inline constexpr size_t kEpoch = 9;
inline constexpr size_t kTimestamp = 16;
inline constexpr size_t kTtl = 24;
inline constexpr size_t kCrc = 28;
inline constexpr size_t kKeySize = 32;
inline constexpr size_t kMark = 34;
inline constexpr size_t kChecksum = 36;
inline constexpr size_t kEnd = 40;
}  // namespace WalRecordOffset

// The header of one record. Padding is written as zero; a reader gives it no meaning, but the checksum covers
// it as it stands. What a record of LSDBImpl has in the place of mark, crc and epoch is padding, too.
struct WalRecord {
  uint32_t valueOffset;  // file offset of the value: the record's own offset + 40 + keySize
  uint32_t valueSize;
  uint8_t deleted;   // nonzero: a tombstone
  uint8_t epoch[4];  // with the mark: low 32 bits of a number that all marked records of one filling share
  uint8_t padding0[3];
  uint64_t timestamp;  // seconds since the Unix epoch
  uint32_t ttl;        // seconds
  uint32_t crc;        // with the mark: CRC-32C of the key's and the value's bytes
  uint16_t keySize;
  uint16_t mark;      // kChecksummedMark, or padding
  uint32_t checksum;  // StoreChecksum of [kValueOffset, kChecksum)
};
static_assert(offsetof(WalRecord, epoch) == WalRecordOffset::kEpoch);
static_assert(offsetof(WalRecord, crc) == WalRecordOffset::kCrc);
static_assert(offsetof(WalRecord, mark) == WalRecordOffset::kMark);
static_assert(offsetof(WalRecord, valueSize) == WalRecordOffset::kValueSize);
static_assert(offsetof(WalRecord, deleted) == WalRecordOffset::kDeleted);
static_assert(offsetof(WalRecord, timestamp) == WalRecordOffset::kTimestamp);
static_assert(offsetof(WalRecord, ttl) == WalRecordOffset::kTtl);
static_assert(offsetof(WalRecord, keySize) == WalRecordOffset::kKeySize);
static_assert(offsetof(WalRecord, checksum) == WalRecordOffset::kChecksum);
static_assert(sizeof(WalRecord) == WalRecordOffset::kEnd);
static_assert(std::has_unique_object_representations_v<WalRecord>);

}  // namespace Kestrun
