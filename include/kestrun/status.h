// kestrun/status.h: every status that an operation of the store returns.
//
// A status is a uint32_t; 0 is success. A key that is missing is not an error: reads return kStatusOk with
// an empty result. The numbers never change: programs may store and compare them.
#pragma once

#include <cstdint>

#include "kestrun/export.h"

namespace Kestrun {

// Success; for reads also "no such key", for a compaction also "nothing to do".
inline constexpr uint32_t kStatusOk = 0;
// An argument or stored data can't be used: an empty key, a log size of 128 or less, a value without bytes,
// a value outside the log, a key that is not in the block, an entry of a block that has expired, a record
// without a record type.
inline constexpr uint32_t kStatusInvalid = 2;
// A file could not be opened; a directory could not be read or not be removed.
inline constexpr uint32_t kStatusOpenFailed = 3;
// The path is a file, or a directory that holds other files and no whole store, or part of a store only.
inline constexpr uint32_t kStatusNotAStore = 4;
// There is no store.
inline constexpr uint32_t kStatusStoreMissing = 5;
// There is a store, or something else, where a new one was to be made.
inline constexpr uint32_t kStatusStoreExists = 6;
// The system does not allow it: permissions, or a file system that is read-only.
inline constexpr uint32_t kStatusNoPermission = 7;
// The manifest could not be opened, or one of its block records is damaged or cut off.
inline constexpr uint32_t kStatusManifestUnreadable = 258;
// A block file gave fewer bytes of a value than its entry says.
inline constexpr uint32_t kStatusBlockShortRead = 259;
// The record type of a stored record is not in the schema.
inline constexpr uint32_t kStatusRecordTypeUnknown = 514;
// The log could not be opened.
inline constexpr uint32_t kStatusWalOpenFailed = 770;
// A write failed while the log, the manifest or a block file was being created, for want of space perhaps.
inline constexpr uint32_t kStatusCreateFailed = 771;
// fsync failed: what was written may not survive a loss of power.
inline constexpr uint32_t kStatusSyncFailed = 1027;
// A block record could not be written to the manifest.
inline constexpr uint32_t kStatusManifestWriteFailed = 1282;
// A file could not be inspected (fstat).
inline constexpr uint32_t kStatusStatFailed = 1795;
// A section of a block file could not be written, or the block would reach 4 GiB.
inline constexpr uint32_t kStatusBlockWriteFailed = 2050;
// The checksum of the log's header is wrong.
inline constexpr uint32_t kStatusWalChecksum = 2818;
// A block file is cut short or fails a checksum.
inline constexpr uint32_t kStatusBlockCorrupt = 3074;
// Memory could not be allocated.
inline constexpr uint32_t kStatusNoMemory = 3075;
// The log has no room for the entry, not even after it was flushed.
inline constexpr uint32_t kStatusWalFull = 3330;
// The log or the manifest does not begin with the store's magic.
inline constexpr uint32_t kStatusBadMagic = 3586;
// The checksum of the manifest's header is wrong.
inline constexpr uint32_t kStatusManifestChecksum = 3842;
// A file lock was not obtained or not released within four tries (about 3 ms); trying again is safe.
inline constexpr uint32_t kStatusLockFailed = 3843;
// The entry, still in the log, has expired.
inline constexpr uint32_t kStatusExpired = 4098;
// The store's directory could not be created.
inline constexpr uint32_t kStatusDirectoryFailed = 4355;
// A file could not be mapped into memory.
inline constexpr uint32_t kStatusMapFailed = 4611;
// A file could not be cut to its new length.
inline constexpr uint32_t kStatusTruncateFailed = 4867;
// A position in a file could not be reached.
inline constexpr uint32_t kStatusSeekFailed = 5123;

// One line that says what `status` means, without a line end; "unknown status" for a number that no
// operation returns. The text lives until the process ends. Safe from any thread.
KESTRUN_EXPORT const char* StatusText(uint32_t status);

// The name of the constant of `status`, such as "kStatusWalFull"; "unknown" for a number that no operation
// returns. The text lives until the process ends. Safe from any thread.
KESTRUN_EXPORT const char* StatusName(uint32_t status);

}  // namespace Kestrun
