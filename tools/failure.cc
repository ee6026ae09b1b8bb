#include "tools/failure.h"

#include "kestrun/status.h"

namespace Kestrun::Tools {
namespace {

const char* AdviceFor(uint32_t status) {
  switch (status) {
    case kStatusOpenFailed:
    case kStatusWalOpenFailed:
    case kStatusStatFailed:
      return "Check that the path is right and that you may read and write there.";
    case kStatusManifestUnreadable:
    case kStatusWalChecksum:
    case kStatusBlockCorrupt:
    case kStatusBadMagic:
    case kStatusManifestChecksum:
    case kStatusBlockShortRead:
    case kStatusInvalid:
      return "Run 'kestrun verify' on the store to see what is damaged.";
    case kStatusRecordTypeUnknown:
      return "'kestrun types' lists the record types of the store, 'kestrun get' reads the value as bytes.";
    case kStatusCreateFailed:
    case kStatusManifestWriteFailed:
    case kStatusBlockWriteFailed:
    case kStatusSyncFailed:
    case kStatusTruncateFailed:
    case kStatusSeekFailed:
      return "Check that the disk has space left and is writable, then try again.";
    case kStatusNoMemory:
    case kStatusMapFailed:
      return "Free some memory, then try again.";
    case kStatusWalFull:
      return "Give a larger log with --wal-size.";
    case kStatusLockFailed:
      return "Another process is using the store; try again when it is done.";
    case kStatusExpired:
      return "The entry has outlived its time to live.";
    case kStatusDirectoryFailed:
      return "Make the directory that is to hold the store, and check that you may write there.";
    default:
      return "Run 'kestrun verify' on the store.";
  }
}

}  // namespace

std::string StoreFailure::Message() const {
  return std::string(what()) + ": status " + std::to_string(status_) + " (" + StatusName(status_) +
         "): " + StatusText(status_) + ". " + (advice_.empty() ? AdviceFor(status_) : advice_.c_str());
}

}  // namespace Kestrun::Tools
