#include "tools/failure.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "inspect/escape.h"
#include "kestrun/status.h"
#include "tools/diagnostics.h"

namespace Kestrun::Tools {
namespace {

const char* AdviceFor(uint32_t status) {
  switch (status) {
    case kStatusStoreMissing:
      return "Check the path; 'kestrun put', 'append' and 'import' make a new store.";
    case kStatusNotAStore:
      return "Name the directory of a store, or an empty one. If part of a store is all that is left, "
             "'kestrun recover' takes what can be read.";
    case kStatusStoreExists:
      return "Choose a name that is not taken.";
    case kStatusNoPermission:
      return "Check that you may read and write there.";
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
      return "'kestrun verify' tells what is damaged; 'kestrun recover STORE NEW' makes a new store of what "
             "can be "
             "read.";
    case kStatusRecordTypeUnknown:
      return "'kestrun types' lists the record types of the store, 'kestrun get' reads the value as bytes, "
             "and "
             "'kestrun recover' guesses types that were lost.";
    case kStatusCreateFailed:
    case kStatusManifestWriteFailed:
    case kStatusBlockWriteFailed:
    case kStatusSyncFailed:
    case kStatusTruncateFailed:
    case kStatusSeekFailed:
      return "Check that the disk has space left and can be written to, then try again.";
    case kStatusNoMemory:
    case kStatusMapFailed:
      return "Free some memory, then try again.";
    case kStatusWalFull:
      return "Give a larger log with --log-size.";
    case kStatusLockFailed:
      return "Another process holds a lock of the store; try again when it is done.";
    case kStatusDirectoryFailed:
      return "Make the directory that is to hold the store, and check that you may write there.";
    default:
      return "'kestrun verify' tells whether the store is sound.";
  }
}

// Statuses behind which the system's refusal may stand.
bool MayBeTheSystems(uint32_t status) {
  switch (status) {
    case kStatusOpenFailed:
    case kStatusNoPermission:
    case kStatusWalOpenFailed:
    case kStatusCreateFailed:
    case kStatusSyncFailed:
    case kStatusManifestWriteFailed:
    case kStatusBlockWriteFailed:
    case kStatusDirectoryFailed:
    case kStatusTruncateFailed:
      return true;
    default:
      return false;
  }
}

// One line, without the full stop that may end it.
std::string OneLine(std::string text) {
  for (char& letter : text) {
    if (letter == '\n') letter = ' ';
  }
  while (!text.empty() && (text.back() == ' ' || text.back() == '.')) text.pop_back();
  return text;
}

}  // namespace

StoreFailure::StoreFailure(uint32_t status, const std::string& text, const std::string& path,
                           std::string advice)
    : Failure(kExitRefused, text, advice), status_(status) {
  report_.status = StatusName(status);
  report_.message =
      text + ": status " + std::to_string(status) + " (" + report_.status + "): " + StatusText(status);
  std::string reason = OneLine(TakeDiagnostics());
  if (MayBeTheSystems(status) && !path.empty()) {
    const std::string system = SystemReason(path);
    if (reason.find(system) == std::string::npos) reason += (reason.empty() ? "" : ": ") + system;
  }
  if (!reason.empty()) report_.message += ": " + reason;
  report_.advice = advice.empty() ? AdviceFor(status) : advice;
}

DamageFound::DamageFound(const std::string& store, const std::string& message)
    : Failure(kExitRefused, message,
              "'kestrun recover " + Inspect::Printable(store) +
                  " NEW' makes a new store of whatever can be read.") {}

std::string SystemReason(const std::string& path) {
  // What is missing is to be made in its parent.
  std::string place = path;
  while (access(place.c_str(), F_OK) != 0) {
    if (errno != ENOENT) return std::strerror(errno);
    const size_t slash = place.find_last_of('/');
    if (slash == std::string::npos) {
      place = ".";
    } else if (slash == 0) {
      place = "/";
    } else {
      place.resize(slash);
    }
  }
  if (access(place.c_str(), W_OK) != 0) return std::strerror(errno);
  struct statvfs system = {};
  constexpr uint64_t kFull = 64 << 10;  // nothing of a store is smaller
  if (statvfs(place.c_str(), &system) == 0) {
    if ((system.f_flag & ST_RDONLY) != 0) return std::strerror(EROFS);
    if (system.f_blocks != 0 && uint64_t{system.f_bavail} * system.f_frsize < kFull)
      return std::strerror(ENOSPC);
    if (system.f_files != 0 && system.f_favail == 0) return std::strerror(ENOSPC);
  }
  return std::string();
}

}  // namespace Kestrun::Tools
