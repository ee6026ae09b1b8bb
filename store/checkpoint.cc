// A consistent copy of a store in use.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/catch_bad_alloc.h"
#include "format/block_format.h"
#include "format/checksum.h"
#include "format/file_magic.h"
#include "format/manifest_format.h"
#include "format/wal_format.h"
#include "kestrun/status.h"
#include "storage/directory.h"
#include "store/store_impl.h"

namespace Kestrun {
namespace {

constexpr char kPartialSuffix[] = ".partial";
constexpr char kSchemaName[] = "meta_v5";
constexpr size_t kCopyPiece = size_t{64} << 20;

// A descriptor that is closed, and a file that goes unless it was completed.
class NewFile {
 public:
  NewFile(const std::string& path, mode_t mode)
      : descriptor_(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode)) {
    if (descriptor_ >= 0) static_cast<void>(fchmod(descriptor_, mode));  // whatever the process masks out
  }
  ~NewFile() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  int Descriptor() const { return descriptor_; }
  bool Write(const void* bytes, size_t size) {
    const auto* next = static_cast<const char*>(bytes);
    while (size != 0) {
      const ssize_t written = write(descriptor_, next, size);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return false;
      next += written;
      size -= static_cast<size_t>(written);
    }
    return true;
  }
  bool Sync() { return fsync(descriptor_) == 0; }

 private:
  int descriptor_;
};

mode_t ModeOf(const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0600;
}

// Within the kernel where it can, else through memory.
bool CopyBytes(OsFile& from, uint64_t size, NewFile& to) {
  off_t offset = 0;
  std::vector<char> buffer;
  while (static_cast<uint64_t>(offset) < size) {
    const size_t left =
        static_cast<size_t>(std::min<uint64_t>(size - static_cast<uint64_t>(offset), kCopyPiece));
    if (buffer.empty()) {
      const ssize_t copied = copy_file_range(from.Descriptor(), &offset, to.Descriptor(), nullptr, left, 0);
      if (copied > 0) continue;
      if (copied < 0 && errno == EINTR) continue;
      if (copied < 0 && errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP)
        return false;
      buffer.resize(size_t{1} << 20);
    }
    const ssize_t read = from.PReadFully(buffer.data(), std::min(left, buffer.size()), offset);
    if (read <= 0 || !to.Write(buffer.data(), static_cast<size_t>(read))) return false;
    offset += read;
  }
  return true;
}

// The open file, whatever has become of its name, under a new one: linked where the
// file system can, else copied.
bool TakeOver(OsFile& file, const std::string& path) {
  const std::string open = "/proc/self/fd/" + std::to_string(file.Descriptor());
  if (linkat(AT_FDCWD, open.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0) return true;
  uint64_t size = 0;
  struct stat info = {};
  if (file.Size(&size) != 0 || fstat(file.Descriptor(), &info) != 0) return false;
  NewFile copy(path, info.st_mode & 07777);
  return copy.Descriptor() >= 0 && CopyBytes(file, size, copy) && copy.Sync();
}

bool WriteManifest(const std::string& path, const BlockSet& blocks, mode_t mode) {
  std::vector<uint8_t> image(sizeof(ManifestHeader));
  ManifestHeader header = {};
  std::memcpy(header.magic, kFileMagic, kMagicSize);
  header.version = kFormatVersion;
  header.headerSize = sizeof(ManifestHeader);
  header.generation = static_cast<uint32_t>(blocks.size());
  header.checksum = StoreChecksum(&header, ManifestHeaderOffset::kChecksum);
  std::memcpy(image.data(), &header, sizeof(header));
  for (const OpenBlock& block : blocks) {
    const std::vector<uint8_t> entry = ManifestEntryBytes(block.entry->name, block.entry->filter);
    image.insert(image.end(), entry.begin(), entry.end());
  }
  NewFile file(path, mode);
  return file.Descriptor() >= 0 && file.Write(image.data(), image.size()) && file.Sync();
}

bool WriteLog(const std::string& path, const LogView& view, uint32_t capacity, mode_t mode) {
  WalHeader header = {};
  std::memcpy(header.magic, kFileMagic, kMagicSize);
  header.version = kFormatVersion;
  header.used = view.copy == nullptr ? kWalFirstRecord : view.end;
  header.checksum = StoreChecksum(&header, WalHeaderOffset::kChecksum);
  std::vector<uint8_t> head(kWalFirstRecord);
  std::memcpy(head.data(), &header, sizeof(header));
  NewFile file(path, mode);
  if (file.Descriptor() < 0 || !file.Write(head.data(), head.size())) return false;
  if (view.copy != nullptr && !file.Write(view.copy->Bytes() + kWalFirstRecord, view.end - kWalFirstRecord)) {
    return false;
  }
  return ftruncate(file.Descriptor(), capacity) == 0 && file.Sync();
}

// The file of record types, as far as it goes now: it only grows.
bool CopySchema(const std::string& from, const std::string& to) {
  std::shared_ptr<OsFile> file;
  errno = 0;
  if (OsFile::Open(from, kOpenReadOnly, &file) != kStatusOk) return errno == ENOENT;
  uint64_t size = 0;
  if (file->Size(&size) != 0) return false;
  NewFile copy(to, ModeOf(from));
  return copy.Descriptor() >= 0 && CopyBytes(*file, size, copy) && copy.Sync();
}

// rename that replaces nothing. Not every C library has a function for it.
int RenameToNew(const std::string& from, const std::string& to) {
  constexpr unsigned int kNoReplace = 1;
  return static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), kNoReplace));
}

}  // namespace

// Everything is on the disk before the directory gets its name.
uint32_t Store::Impl::Checkpoint(const std::string& directory) {
  std::string target = directory;
  while (target.size() > 1 && target.back() == '/') target.pop_back();
  if (target.empty()) return kStatusDirectoryFailed;
  struct stat info = {};
  if (lstat(target.c_str(), &info) == 0) return kStatusStoreExists;

  std::shared_ptr<const Snapshot::Impl> snapshot;
  if (const uint32_t status = TakeSnapshot(&snapshot); status != kStatusOk) return status;
  for (const OpenBlock& block : *snapshot->blocks) {
    if (block.block == nullptr) return kStatusBlockCorrupt;
  }

  const std::string partial = target + kPartialSuffix;
  IgnoreStatus(RemoveDirectoryTree(partial));  // what a killed checkpoint has left
  if (mkdir(partial.c_str(), 0700) != 0) {
    const int error = errno;
    TellReason(core_.diagnostics, "Failed to create directory", partial, error);
    return error == EACCES || error == EPERM || error == EROFS ? kStatusNoPermission : kStatusDirectoryFailed;
  }
  IgnoreStatus(static_cast<uint32_t>(chmod(partial.c_str(), ModeOf(path_))));  // 0700 will do
  const uint32_t status = CatchBadAlloc([&] { return FillCheckpoint(*snapshot, partial, target); });
  if (status != kStatusOk) IgnoreStatus(RemoveDirectoryTree(partial));  // the next attempt removes what stays
  return status;
}

uint32_t Store::Impl::FillCheckpoint(const Snapshot::Impl& snapshot, const std::string& partial,
                                     const std::string& target) {
  const auto fail = [&](uint32_t status) {
    TellReason(core_.diagnostics, "Failed to write a checkpoint to", partial, errno);
    return status;
  };
  for (const OpenBlock& block : *snapshot.blocks) {
    if (!TakeOver(*block.block->File(), partial + "/" + block.entry->name + kBlockFileSuffix)) {
      return fail(kStatusCreateFailed);
    }
  }
  const std::string manifest = std::string("/") + kManifestFileName;
  const std::string log = std::string("/") + kWalFileName;
  const std::string schema = std::string("/") + kSchemaName;
  if (!WriteManifest(partial + manifest, *snapshot.blocks, ModeOf(path_ + manifest)) ||
      !WriteLog(partial + log, snapshot.log, wal_->Capacity(), ModeOf(path_ + log)) ||
      !CopySchema(path_ + schema, partial + schema)) {
    return fail(kStatusCreateFailed);
  }
  if (!SyncDirectory(partial)) return fail(kStatusSyncFailed);
  const std::string parent = DirectoryOf(target);  // what may run out of memory comes before the name
  if (RenameToNew(partial, target) != 0) {
    if (errno == EEXIST || errno == ENOTEMPTY) return kStatusStoreExists;
    const bool isUnknown = errno == EINVAL || errno == ENOSYS;
    struct stat info = {};
    if (!isUnknown || lstat(target.c_str(), &info) == 0 || rename(partial.c_str(), target.c_str()) != 0) {
      return fail(kStatusCreateFailed);
    }
  }
  if (SyncDirectory(parent)) return kStatusOk;
  const uint32_t status = fail(kStatusSyncFailed);
  IgnoreStatus(RemoveDirectoryTree(target));  // a failure leaves nothing
  return status;
}

}  // namespace Kestrun
