#include "store/store_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

#include "format/block_format.h"
#include "format/checksum.h"
#include "format/file_magic.h"
#include "format/manifest_format.h"
#include "format/wal_format.h"
#include "kestrun/status.h"
#include "storage/os_file.h"
#include "store/store_impl.h"

namespace Kestrun {
namespace {

struct Contents {
  bool hasLog = false;
  bool hasManifest = false;
  bool hasBlocks = false;
  bool hasOthers = false;
};

// How far the header of a file has come.
enum class HeaderState {
  Missing,
  Empty,    // the file has no complete header: its creation did not end
  Damaged,  // the checksum does not match
  Sound,
};

bool EndsWith(std::string_view name, std::string_view end) {
  return name.size() > end.size() && name.substr(name.size() - end.size()) == end;
}

uint32_t List(const std::string& path, const Diagnostics& diagnostics, Contents* contents, bool* isMissing) {
  *isMissing = false;
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(path.c_str()), &closedir);
  if (stream == nullptr) {
    const int error = errno;
    *isMissing = error == ENOENT;
    if (*isMissing) {
      struct stat info = {};
      // A link that leads nowhere is something of that name.
      if (lstat(path.c_str(), &info) != 0) return kStatusOk;
      *isMissing = false;
      if (S_ISDIR(info.st_mode)) return List(path, diagnostics, contents, isMissing);  // made at this moment
    }
    if (error == ENOTDIR || error == ENOENT) {
      diagnostics.Printf("%s is not a directory\n", path.c_str());
      return kStatusNotAStore;
    }
    TellReason(diagnostics, "Failed to read directory", path, error);
    return error == EACCES || error == EPERM ? kStatusNoPermission : kStatusOpenFailed;
  }
  while (const dirent* entry = readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (name == kWalFileName) {
      contents->hasLog = true;
    } else if (name == kManifestFileName) {
      contents->hasManifest = true;
    } else if (EndsWith(name, kBlockFileSuffix)) {
      contents->hasBlocks = true;
    } else {
      contents->hasOthers = true;
    }
  }
  return kStatusOk;
}

// Reads the first bytes of a file; through OsFile, whose closing drops no lock of this process.
template <typename Header>
uint32_t ReadHeader(const std::string& path, size_t checksumOffset, Header* header, HeaderState* state) {
  *state = HeaderState::Missing;
  std::shared_ptr<OsFile> file;
  errno = 0;
  if (OsFile::Open(path, kOpenReadOnly, &file) != kStatusOk) {
    if (errno == ENOENT) return kStatusOk;
    return errno == EACCES || errno == EPERM ? kStatusNoPermission : kStatusOpenFailed;
  }
  const auto matches = [&] { return StoreChecksum(header, checksumOffset) == header->checksum; };
  const ssize_t count = file->PReadFully(header, sizeof(*header), 0);
  if (count < 0) return kStatusOpenFailed;
  if (count < static_cast<ssize_t>(sizeof(*header))) {
    *state = HeaderState::Empty;
    return kStatusOk;
  }
  *state = matches() ? HeaderState::Sound : HeaderState::Damaged;
  if (*state == HeaderState::Damaged) {
    // Another process may be in the middle of an update.
    const FileLockGuard lock(file, LockLevel::Shared);
    if (lock.Status() == kStatusOk && file->PReadFully(header, sizeof(*header), 0) == count && matches()) {
      *state = HeaderState::Sound;
    }
  }
  return kStatusOk;
}

const char* Describe(HeaderState state) {
  switch (state) {
    case HeaderState::Missing:
      return "missing";
    case HeaderState::Empty:
      return "incomplete";
    case HeaderState::Damaged:
      return "damaged";
    case HeaderState::Sound:
      break;
  }
  return "sound";
}

}  // namespace

uint32_t ExamineDirectory(const std::string& path, const Diagnostics& diagnostics, DirectoryState* state) {
  Contents contents;
  bool isMissing = false;
  if (const uint32_t status = List(path, diagnostics, &contents, &isMissing); status != kStatusOk)
    return status;
  const bool hasStoreFiles = contents.hasLog || contents.hasManifest || contents.hasBlocks;
  if (!hasStoreFiles && contents.hasOthers) {
    diagnostics.Printf("%s holds other files and no store\n", path.c_str());
    return kStatusNotAStore;
  }
  if (!hasStoreFiles) {
    *state = isMissing ? DirectoryState::Missing : DirectoryState::Empty;
    return kStatusOk;
  }

  WalHeader log = {};
  ManifestHeader manifest = {};
  HeaderState logState = HeaderState::Missing;
  HeaderState manifestState = HeaderState::Missing;
  uint32_t status = ReadHeader(path + "/" + kWalFileName, WalHeaderOffset::kChecksum, &log, &logState);
  if (status == kStatusOk) {
    status = ReadHeader(path + "/" + kManifestFileName, ManifestHeaderOffset::kChecksum, &manifest,
                        &manifestState);
  }
  if (status != kStatusOk) {
    TellReason(diagnostics, "Failed to read the store in", path, errno);
    return status;
  }
  if (logState == HeaderState::Sound && manifestState == HeaderState::Sound) {
    *state = DirectoryState::Store;
    return kStatusOk;
  }
  // A file that is whole but damaged beside no block says so itself when it is opened.
  const bool isDamaged = logState == HeaderState::Damaged || manifestState == HeaderState::Damaged;
  if (isDamaged && !contents.hasBlocks && contents.hasLog && contents.hasManifest) {
    *state = DirectoryState::Store;
    return kStatusOk;
  }
  const bool logIsEmpty = logState != HeaderState::Sound || log.used == kWalFirstRecord;
  const bool manifestIsEmpty = manifestState != HeaderState::Sound || manifest.generation == 0;
  if (!contents.hasBlocks && !isDamaged && logIsEmpty && manifestIsEmpty) {
    *state = DirectoryState::Incomplete;
    return kStatusOk;
  }
  diagnostics.Printf("%s holds part of a store only: %s is %s, %s is %s\n", path.c_str(), kWalFileName,
                     Describe(logState), kManifestFileName, Describe(manifestState));
  return kStatusNotAStore;
}

}  // namespace Kestrun
