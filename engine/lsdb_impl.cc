// How a store is opened, closed and removed.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/catch_bad_alloc.h"
#include "engine/core.h"
#include "kestrun/lsdb.h"
#include "storage/directory.h"

namespace Kestrun {
namespace {

bool IsDirectory(const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Only the last component is made. EEXIST is a success if another process has just made the directory. It
// also stands for a link that leads nowhere and for a file whose path ends in a slash.
bool EnsureDirectory(const std::string& path) {
  if (access(path.c_str(), F_OK) == 0) return true;
  if (mkdir(path.c_str(), 0700) != 0) return errno == EEXIST && IsDirectory(path);
  // Only a loss of power could tell, and the parent need not be ours to sync.
  IgnoreStatus(SyncDirectory(DirectoryOf(path)));
  return true;
}

}  // namespace

LSDBImpl::LSDBImpl(std::string path, const LSDBConfig& /*config*/) : path_(std::move(path)) {}

// The cache goes first, then the manifest, then the log.
LSDBImpl::~LSDBImpl() = default;

// Directory, manifest, log, cache, in this order and without a lock. No block is opened yet.
uint32_t LSDBImpl::Open(const std::string& path, const LSDBConfig& config, LSDBImpl** out) {
  return CatchBadAlloc([&]() -> uint32_t {
    if (!EnsureDirectory(path)) {
      Diagnostics::Printing().Printf("Failed to create directory: %s", path.c_str());
      return kStatusDirectoryFailed;
    }
    auto engine = std::make_unique<LSDBImpl>(path, config);

    Manifest* manifest = nullptr;
    if (const uint32_t status = Manifest::Open(path + "/" + kManifestFileName, &manifest);
        status != kStatusOk) {
      return status;
    }
    engine->manifest_.reset(manifest);

    Wal* wal = nullptr;
    if (const uint32_t status = Wal::Open(path + "/" + kWalFileName, config, &wal); status != kStatusOk) {
      return status;
    }
    // A log that can't be inspected or mapped gives success and no handle.
    if (wal == nullptr) return kStatusWalOpenFailed;
    engine->wal_.reset(wal);

    engine->cache_ = std::make_unique<BlockCache>();
    if (out != nullptr) *out = engine.release();
    return kStatusOk;
  });
}

uint32_t LSDBImpl::Remove(const std::string& path) {
  return CatchBadAlloc([&] { return RemoveDirectoryTree(path); });
}

Core LSDBImpl::MakeCore() const {
  return {path_, *wal_, *manifest_, *cache_, Diagnostics::Printing(), LockPatience()};
}

}  // namespace Kestrun
