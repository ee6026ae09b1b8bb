// How a log is found, made and verified.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <limits>

#include "format/checksum.h"
#include "format/file_magic.h"
#include "kestrun/status.h"
#include "storage/directory.h"
#include "storage/file_creation.h"
#include "storage/published_header.h"
#include "storage/wal.h"

namespace Kestrun {
namespace {

WalHeader EmptyLogHeader() {
  WalHeader header = {};
  std::memcpy(header.magic, kFileMagic, kMagicSize);
  header.version = kFormatVersion;
  header.used = kWalFirstRecord;
  header.checksum = StoreChecksum(&header, WalHeaderOffset::kChecksum);
  return header;
}

// Fills in a log that is missing, empty or shorter than asked for. Disk space comes first, so that a full
// disk leaves what there is; the header comes before the size, which is what makes the log count as complete.
uint32_t InitializeInPlace(OsFile& file, uint32_t walSize) {
  const WalHeader header = EmptyLogHeader();
  const char zero = 0;
  if (file.Seek(walSize - 1, SEEK_SET) < 0) return kStatusSeekFailed;  // a pipe
  if (!file.Reserve(walSize)) return kStatusCreateFailed;
  if (file.PWriteFully(&header, sizeof(header), 0) != static_cast<ssize_t>(sizeof(header))) {
    return kStatusCreateFailed;
  }
  if (!file.SyncIfSupported()) return kStatusCreateFailed;
  return file.PWriteFully(&zero, 1, walSize - 1) == 1 ? kStatusOk : kStatusCreateFailed;
}

bool IsLongEnough(uint64_t size, uint32_t walSize, ShortLog shortLog) {
  return size >= walSize || (shortLog == ShortLog::Keep && size > kWalFirstRecord);
}

// Recreates a short log unless another process has done so meanwhile.
uint32_t GrowTo(OsFile& file, uint32_t walSize, ShortLog shortLog, uint64_t* size, bool* isNewFile) {
  const DirectoryCreationLock guard(DirectoryOf(file.Path()));
  if (file.Size(size) != 0) return kStatusCreateFailed;
  if (IsLongEnough(*size, walSize, shortLog)) return kStatusOk;
  if (const uint32_t status = InitializeInPlace(file, walSize); status != kStatusOk) return status;
  *size = walSize;
  *isNewFile = true;
  return SyncDirectory(DirectoryOf(file.Path())) ? kStatusOk : kStatusCreateFailed;
}

}  // namespace

// Creates a missing log at once with its header. An existing one is opened, checked for its length, given its
// disk space, mapped and verified, in this order; the index that the process has for the file starts over
// when the log is new.
uint32_t Wal::Open(const std::string& path, const LSDBConfig& config, Wal** out,
                   const Diagnostics& diagnostics, ShortLog shortLog) {
  bool isNewFile = false;
  if (config.walSize > kWalFirstRecord && access(path.c_str(), F_OK) != 0) {
    const WalHeader header = EmptyLogHeader();
    isNewFile = CreateFileAtomically(path, &header, sizeof(header), config.walSize);
    if (isNewFile && !SyncDirectory(DirectoryOf(path))) return kStatusCreateFailed;
  }

  std::shared_ptr<OsFile> file;
  if (OsFile::Open(path, kOpenReadWrite, &file) != kStatusOk) return kStatusWalOpenFailed;
  if (config.walSize <= kWalFirstRecord) {
    diagnostics.Printf("invalid wal size: %s", path.c_str());
    return kStatusInvalid;
  }

  uint64_t size = 0;
  if (file->Size(&size) != 0) {
    diagnostics.Printf("Failed to get file size: %s", path.c_str());
    return kStatusOk;
  }
  // Keeps the other threads of this process out while the log is made, unless one of them is inside already:
  // an opening does not wait for it, and leaves the index alone that it may be walking.
  const TryFileLockGuard threadLock(file, LockLevel::ThreadOnly);
  // A log of 4 GiB or more can't be addressed by its own offsets.
  const bool mappable = size <= std::numeric_limits<uint32_t>::max();
  if (!IsLongEnough(size, config.walSize, shortLog)) {
    if (const uint32_t status = GrowTo(*file, config.walSize, shortLog, &size, &isNewFile);
        status != kStatusOk) {
      return status;
    }
  } else if (mappable && !file->Reserve(size)) {
    if (isNewFile) return kStatusCreateFailed;
    diagnostics.Printf("Failed to map wal: %s", path.c_str());
    return kStatusOk;
  }

  void* base = mappable ? file->Map(static_cast<uint32_t>(size), 0, 0) : nullptr;
  if (base == nullptr) {
    diagnostics.Printf("Failed to map wal: %s", path.c_str());
    return kStatusOk;
  }
  file->TrackMapping(base, static_cast<uint32_t>(size));
  if (isNewFile && file->IsSpecial()) {
    const WalHeader header = EmptyLogHeader();
    std::memcpy(base, &header, sizeof(header));  // what was written to a device need not show in its mapping
  }

  std::unique_ptr<Wal> wal(new Wal(file, static_cast<uint8_t*>(base), static_cast<uint32_t>(size),
                                   config.walOptions, diagnostics));
  uint32_t status = kStatusOk;
  if (!wal->VerifyAtOpen(&status)) return status;
  wal->state_ = InodeRegistry<WalSharedState>::FindOrCreate(file->Id(), [](WalSharedState&) {});
  // The number of a file that was removed may have been given to this one, index and all.
  if (isNewFile && threadLock.Entered()) wal->state_->Clear();
  if (isNewFile && !threadLock.Entered()) wal->state_->wasRecreated = true;
  *out = wal.release();
  return kStatusOk;
}

Wal::Wal(std::shared_ptr<OsFile> file, uint8_t* base, uint32_t capacity, uint16_t walOptions,
         const Diagnostics& diagnostics)
    : file_(std::move(file)),
      base_(base),
      state_(nullptr),
      capacity_(capacity),
      walOptions_(walOptions),
      diagnostics_(diagnostics) {}

Wal::~Wal() = default;

// The checksum first, then the magic; the version and the used offset are not looked at. Another process may
// be in the middle of an update, so a bad header is read again under the lock before it is called damaged.
bool Wal::VerifyAtOpen(uint32_t* status) const {
  WalHeader header;
  if (!ReadAtOpen(file_, [&] { return ReadHeader(&header); })) {
    diagnostics_.Print("Invalid wal checksum");
    *status = kStatusWalChecksum;
    return false;
  }
  if (std::memcmp(header.magic, kFileMagic, kMagicSize) != 0) {
    diagnostics_.Print("Invalid wal magic");
    *status = kStatusBadMagic;
    return false;
  }
  return true;
}

uint32_t Wal::Reset() {
  state_->Clear();
  const WalHeader header = EmptyLogHeader();
  std::memcpy(base_, header.magic, kMagicSize);
  StoreHeaderAtomically(base_, &header);
  return kStatusOk;
}

}  // namespace Kestrun
