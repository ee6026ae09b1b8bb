// How a store is opened, and what is taken for one.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/catch_bad_alloc.h"
#include "base/clock.h"
#include "format/block_format.h"
#include "format/checksum.h"
#include "format/file_magic.h"
#include "format/manifest_format.h"
#include "format/wal_format.h"
#include "kestrun/status.h"
#include "storage/directory.h"
#include "store/store_directory.h"
#include "store/store_impl.h"

namespace Kestrun {
namespace {

uint32_t MakeDirectory(const std::string& path, const Diagnostics& diagnostics) {
  if (mkdir(path.c_str(), 0700) == 0) {
    // Only a loss of power could tell, and the parent need not be ours to sync.
    IgnoreStatus(SyncDirectory(DirectoryOf(path)));
    return kStatusOk;
  }
  struct stat info = {};
  if (errno == EEXIST && stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return kStatusOk;
  const int error = errno;
  TellReason(diagnostics, "Failed to create directory", path, error);
  return error == EACCES || error == EPERM || error == EROFS ? kStatusNoPermission : kStatusDirectoryFailed;
}

// Grows a log that is shorter than asked for, under its lock.
uint32_t GrowLog(const Core& core, uint32_t size) {
  if (core.wal.Capacity() >= size) return kStatusOk;
  const LogSection section(core, LockLevel::Exclusive);
  if (section.Status() != kStatusOk) return section.Status();
  const uint32_t status = core.wal.Grow(size);
  if (status != kStatusOk) TellReason(core.diagnostics, "Failed to extend", core.wal.File()->Path(), errno);
  return status;
}

// What an opening that failed for lack of permission should say.
uint32_t NameRefusal(uint32_t status, const std::string& path, const Diagnostics& diagnostics) {
  const bool mayBeRefusal = status == kStatusManifestUnreadable || status == kStatusWalOpenFailed ||
                            status == kStatusCreateFailed || status == kStatusOpenFailed;
  if (!mayBeRefusal) return status;
  const int error = errno;
  TellReason(diagnostics, "Failed to open the store in", path, error);
  return error == EACCES || error == EPERM || error == EROFS ? kStatusNoPermission : status;
}

uint32_t OpenParts(const std::string& path, uint32_t logSize, const Diagnostics& diagnostics,
                   std::unique_ptr<Manifest>* manifest, std::unique_ptr<Wal>* wal) {
  errno = 0;
  Manifest* openedManifest = nullptr;
  uint32_t status = Manifest::Open(path + "/" + kManifestFileName, &openedManifest, diagnostics);
  if (status != kStatusOk) return NameRefusal(status, path, diagnostics);
  manifest->reset(openedManifest);

  // A log that is there keeps its length for now: it is extended under its lock, and loses nothing.
  // Looking at its length before would not do, because another process may be making it, with
  // another length, at this moment.
  Wal* openedWal = nullptr;
  errno = 0;
  status = Wal::Open(path + "/" + kWalFileName, {logSize, 0}, &openedWal, diagnostics, ShortLog::Keep);
  if (status != kStatusOk) return NameRefusal(status, path, diagnostics);
  if (openedWal == nullptr) return NameRefusal(kStatusWalOpenFailed, path, diagnostics);
  wal->reset(openedWal);
  return kStatusOk;
}

}  // namespace

Store::Impl::Impl(std::string path, const StoreOptions& options, std::unique_ptr<Wal> wal,
                  std::unique_ptr<Manifest> manifest)
    : path_(std::move(path)),
      options_(options),
      processId_(getpid()),
      wal_(std::move(wal)),
      manifest_(std::move(manifest)),
      core_{path_,
            *wal_,
            *manifest_,
            cache_,
            Diagnostics::HandlerOnly(),
            {false, options.busyTimeout, &counters_.lockRetries, &counters_.lockFailures}} {}

Store::Impl::~Impl() {
  autoCompact_.reset();
}

uint32_t Store::Open(const std::string& path, const StoreOptions& options, std::unique_ptr<Store>* out) {
  if (out == nullptr || options.logSize <= kWalFirstRecord) return kStatusInvalid;
  return CatchBadAlloc([&]() -> uint32_t {
    const Diagnostics& diagnostics = Diagnostics::HandlerOnly();
    DirectoryState state = DirectoryState::Missing;
    if (const uint32_t status = ExamineDirectory(path, diagnostics, &state); status != kStatusOk)
      return status;
    const bool exists = state == DirectoryState::Store;
    if (exists && options.errorIfExists) return kStatusStoreExists;
    if (!exists && !options.createIfMissing) return kStatusStoreMissing;
    if (state == DirectoryState::Missing) {
      if (const uint32_t status = MakeDirectory(path, diagnostics); status != kStatusOk) return status;
    }

    std::unique_ptr<Manifest> manifest;
    std::unique_ptr<Wal> wal;
    if (const uint32_t status = OpenParts(path, options.logSize, diagnostics, &manifest, &wal);
        status != kStatusOk) {
      return status;
    }
    auto impl = std::make_unique<Impl>(path, options, std::move(wal), std::move(manifest));
    if (const uint32_t status = GrowLog(impl->core_, options.logSize); status != kStatusOk) return status;
    out->reset(new Store(std::move(impl)));
    return kStatusOk;
  });
}

}  // namespace Kestrun
