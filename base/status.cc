#include "kestrun/status.h"

namespace Kestrun {
namespace {

struct StatusRow {
  uint32_t status;
  const char* name;
  const char* text;
};

constexpr StatusRow kRows[] = {
    {kStatusOk, "kStatusOk", "success"},
    {kStatusInvalid, "kStatusInvalid", "an argument or stored data is not usable, or the entry has expired"},
    {kStatusOpenFailed, "kStatusOpenFailed", "a file or directory could not be opened or removed"},
    {kStatusNotAStore, "kStatusNotAStore", "this is not a store, or only part of one"},
    {kStatusStoreMissing, "kStatusStoreMissing", "there is no store"},
    {kStatusStoreExists, "kStatusStoreExists", "there is something of that name already"},
    {kStatusNoPermission, "kStatusNoPermission", "the system does not allow it"},
    {kStatusManifestUnreadable, "kStatusManifestUnreadable", "the manifest could not be opened or read"},
    {kStatusBlockShortRead, "kStatusBlockShortRead", "a block file ends before the value does"},
    {kStatusRecordTypeUnknown, "kStatusRecordTypeUnknown", "the record's type is not in the schema"},
    {kStatusWalOpenFailed, "kStatusWalOpenFailed", "the log could not be opened"},
    {kStatusCreateFailed, "kStatusCreateFailed", "writing failed while a file was being created"},
    {kStatusSyncFailed, "kStatusSyncFailed", "data could not be forced to the disk"},
    {kStatusManifestWriteFailed, "kStatusManifestWriteFailed",
     "a block could not be recorded in the manifest"},
    {kStatusStatFailed, "kStatusStatFailed", "a file could not be inspected"},
    {kStatusBlockWriteFailed, "kStatusBlockWriteFailed", "a block file could not be written"},
    {kStatusWalChecksum, "kStatusWalChecksum", "the log's header fails its checksum"},
    {kStatusBlockCorrupt, "kStatusBlockCorrupt", "a block file is cut short or fails a checksum"},
    {kStatusNoMemory, "kStatusNoMemory", "memory could not be allocated"},
    {kStatusWalFull, "kStatusWalFull", "the log has no room for the entry"},
    {kStatusBadMagic, "kStatusBadMagic", "the log or the manifest is not a file of this store"},
    {kStatusManifestChecksum, "kStatusManifestChecksum", "the manifest's header fails its checksum"},
    {kStatusLockFailed, "kStatusLockFailed", "another process holds the file's lock; try again"},
    {kStatusExpired, "kStatusExpired", "the entry has expired"},
    {kStatusDirectoryFailed, "kStatusDirectoryFailed", "the store's directory could not be created"},
    {kStatusMapFailed, "kStatusMapFailed", "a file could not be mapped into memory"},
    {kStatusTruncateFailed, "kStatusTruncateFailed", "a file could not be cut to its new length"},
    {kStatusSeekFailed, "kStatusSeekFailed", "a position in a file could not be reached"},
};

}  // namespace

const char* StatusText(uint32_t status) {
  for (const StatusRow& row : kRows) {
    if (row.status == status) return row.text;
  }
  return "unknown status";
}

const char* StatusName(uint32_t status) {
  for (const StatusRow& row : kRows) {
    if (row.status == status) return row.name;
  }
  return "unknown";
}

}  // namespace Kestrun
