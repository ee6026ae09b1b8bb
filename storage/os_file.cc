#include "storage/os_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>

#include "kestrun/status.h"

namespace Kestrun {
namespace {

constexpr int64_t kGateByte = 0x40000000;
constexpr int64_t kGateLength = 1;
constexpr int64_t kLockRangeStart = 0x40000001;
constexpr int64_t kLockRangeLength = 511;
static_assert(kLockRangeStart == kGateByte + kGateLength);

constexpr int kLockAttempts = 4;
constexpr useconds_t kLockRetryMicros = 1000;

// The descriptors below this one are the standard streams, onto which the host may print.
constexpr int kFirstUsableDescriptor = 3;

constexpr uint32_t kUnmapFailed = 0xFFFFFFFF;

// What a device, a pipe or the like answers to fsync and fallocate.
bool IsRefusalOfSpecialFile(int error) {
  return error == EINVAL || error == ENODEV || error == EOPNOTSUPP || error == ESPIPE;
}

// Whether a level takes the mutex: any value with one of the two low bits set.
bool TakesMutex(LockLevel level) {
  return (static_cast<uint8_t>(level) & 3) != 0;
}

int OpenUninterrupted(const std::string& path, int openFlags) {
  int descriptor;
  do {
    descriptor = open(path.c_str(), openFlags, 0600);
  } while (descriptor < 0 && errno == EINTR);
  return descriptor;
}

// A regular file is waited for where another process has a lease on it; nothing else is.
bool IsLeased(const std::string& path) {
  struct stat info = {};
  return errno == EWOULDBLOCK && stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

int OpenDescriptor(const std::string& path, uint16_t flags) {
  const bool writable = (flags & (kOpenReadWrite | kOpenCreate)) != 0;
  const int openFlags = (writable ? O_RDWR | O_CREAT : O_RDONLY) | O_CLOEXEC | O_NOCTTY;
  int descriptor = OpenUninterrupted(path, openFlags | O_NONBLOCK);
  if (descriptor < 0 && IsLeased(path)) descriptor = OpenUninterrupted(path, openFlags);

  if (descriptor <= 0) {
    // Descriptor 0 counts as a failure; callers rely on it.
    if (descriptor == 0) CloseWhenUnlocked(descriptor);
    return -1;
  }
  return MoveAboveStdio(descriptor);
}

}  // namespace

InodeId InodeIdOf(const struct stat& info) {
  return {static_cast<uint64_t>(info.st_dev), static_cast<uint64_t>(info.st_ino)};
}

void CloseWhenUnlocked(int descriptor, InodeInfo* inode) {
  const std::lock_guard<std::recursive_mutex> lock(inode->mutex);
  close(descriptor);
}

void CloseWhenUnlocked(int descriptor) noexcept {
  struct stat info = {};
  InodeInfo* inode = nullptr;
  try {
    if (fstat(descriptor, &info) == 0) {
      inode = InodeRegistry<InodeInfo>::FindOrCreate(InodeIdOf(info), [](InodeInfo&) {});
    }
  } catch (const std::bad_alloc&) {
  }
  if (inode == nullptr) {
    close(descriptor);
  } else {
    CloseWhenUnlocked(descriptor, inode);
  }
}

int MoveAboveStdio(int descriptor) noexcept {
  if (descriptor < 0 || descriptor >= kFirstUsableDescriptor) return descriptor;
  const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, kFirstUsableDescriptor);
  CloseWhenUnlocked(descriptor);
  return moved;
}

void InodeInfo::AfterFork() {
  level = LockLevel::None;
  ReinitAfterFork(mutex);
}

OsFile::OsFile(int descriptor, std::string path, uint16_t flags, const struct stat& info, InodeInfo* inode)
    : descriptor_(descriptor),
      path_(std::move(path)),
      id_(InodeIdOf(info)),
      inode_(inode),
      flags_(flags),
      isSpecial_(!S_ISREG(info.st_mode)) {}

OsFile::~OsFile() {
  UnmapAndClose();
}

uint32_t OsFile::Open(const std::string& path, uint16_t flags, OsFile** out) {
  const int descriptor = OpenDescriptor(path, flags);
  if (descriptor < 0) return kStatusOpenFailed;

  struct stat info = {};
  if (fstat(descriptor, &info) != 0) {
    close(descriptor);
    return kStatusStatFailed;
  }

  try {
    InodeInfo* inode =
        InodeRegistry<InodeInfo>::FindOrCreate(InodeIdOf(info), [](InodeInfo& found) { ++found.openCount; });
    *out = new OsFile(descriptor, path, flags, info, inode);
  } catch (...) {
    close(descriptor);
    throw;
  }
  return kStatusOk;
}

uint32_t OsFile::Open(const std::string& path, uint16_t flags, std::shared_ptr<OsFile>* out) {
  OsFile* file = nullptr;
  const uint32_t status = Open(path, flags, &file);
  if (status == kStatusOk) out->reset(file);
  return status;
}

uint32_t OsFile::Lock(LockLevel level) {
  if (flags_ == kOpenNoLock) return kStatusOk;
  if (TakesMutex(level)) inode_->mutex.lock();
  if ((flags_ & kOpenLocalLockOnly) != 0) return kStatusOk;
  if (inode_->level >= level) return kStatusOk;
  if (const uint32_t status = LockBytes(level); status != kStatusOk) return status;
  inode_->level = level;
  return kStatusOk;
}

// The gate byte comes first: a writer that holds it keeps new readers out while it waits for the range. A
// reader lets go of it once it has the range. What was locked before a failing step stays locked.
uint32_t OsFile::LockBytes(LockLevel level) {
  if (level == LockLevel::Shared) {
    const bool locked = SetByteLock(F_RDLCK, kGateByte, kGateLength) &&
                        SetByteLock(F_RDLCK, kLockRangeStart, kLockRangeLength) &&
                        SetByteLock(F_UNLCK, kGateByte, kGateLength);
    return locked ? kStatusOk : kStatusLockFailed;
  }
  if (level == LockLevel::Exclusive) {
    const bool locked = SetByteLock(F_WRLCK, kGateByte, kGateLength) &&
                        SetByteLock(F_WRLCK, kLockRangeStart, kLockRangeLength);
    return locked ? kStatusOk : kStatusLockFailed;
  }
  return kStatusOk;
}

// The byte-range locks go before the mutex, so that no other thread finds a level on record that is about
// to be dropped.
uint32_t OsFile::Unlock(LockLevel level) {
  if (flags_ == kOpenNoLock) return kStatusOk;
  uint32_t status = kStatusOk;
  if ((flags_ & kOpenLocalLockOnly) == 0 && inode_->level >= level) status = UnlockBytes(level);
  if (TakesMutex(level)) inode_->mutex.unlock();
  return status;
}

uint32_t OsFile::UnlockBytes(LockLevel level) {
  if (level != LockLevel::Shared && level != LockLevel::Exclusive) return kStatusOk;
  if (!SetByteLock(F_UNLCK, kLockRangeStart, kLockRangeLength)) return kStatusLockFailed;
  if (level == LockLevel::Exclusive && !SetByteLock(F_UNLCK, kGateByte, kGateLength))
    return kStatusLockFailed;
  inode_->level = LockLevel::None;
  return kStatusOk;
}

bool OsFile::LockByte(int64_t offset) {
  return SetByteLock(F_WRLCK, offset, 1);
}

void OsFile::UnlockByte(int64_t offset) {
  IgnoreStatus(SetByteLock(F_UNLCK, offset, 1));  // closing the file releases it at the latest
}

bool OsFile::SetByteLock(short type, int64_t start, int64_t length) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = start;
  lock.l_len = length;
  for (int attempt = 1;; ++attempt) {
    if (fcntl(descriptor_, F_SETLK, &lock) >= 0) return true;
    if (attempt == kLockAttempts) return false;
    usleep(kLockRetryMicros);
  }
}

ssize_t OsFile::Read(void* buffer, size_t length) {
  return read(descriptor_, buffer, length);
}

ssize_t OsFile::PRead(void* buffer, size_t length, int64_t offset) {
  return pread(descriptor_, buffer, length, offset);
}

ssize_t OsFile::Write(const void* buffer, size_t length) {
  return write(descriptor_, buffer, length);
}

ssize_t OsFile::PWrite(const void* buffer, size_t length, int64_t offset) {
  return pwrite(descriptor_, buffer, length, offset);
}

off_t OsFile::Seek(int64_t offset, uint32_t whence) {
  return lseek(descriptor_, offset, static_cast<int>(whence));
}

int OsFile::Truncate(int64_t length) {
  return ftruncate(descriptor_, length);
}

int OsFile::Sync() {
  return fsync(descriptor_);
}

int OsFile::Size(uint64_t* size) {
  struct stat info = {};
  const int result = fstat(descriptor_, &info);
  *size = result == 0 ? static_cast<uint64_t>(info.st_size) : 0;
  return result;
}

ssize_t OsFile::PReadFully(void* buffer, size_t length, int64_t offset) {
  size_t done = 0;
  while (done < length) {
    const ssize_t moved =
        PRead(static_cast<char*>(buffer) + done, length - done, offset + static_cast<int64_t>(done));
    if (moved < 0 && errno == EINTR) continue;
    // Fewer bytes than the file holds would look like a file that ends here, so any failure is one.
    if (moved < 0) return -1;
    if (moved == 0) break;
    done += static_cast<size_t>(moved);
  }
  return static_cast<ssize_t>(done);
}

ssize_t OsFile::PWriteFully(const void* buffer, size_t length, int64_t offset) {
  size_t done = 0;
  while (done < length) {
    const ssize_t moved =
        PWrite(static_cast<const char*>(buffer) + done, length - done, offset + static_cast<int64_t>(done));
    if (moved < 0 && errno == EINTR) continue;
    if (moved <= 0) return done == 0 ? -1 : static_cast<ssize_t>(done);
    done += static_cast<size_t>(moved);
  }
  return static_cast<ssize_t>(done);
}

bool OsFile::Reserve(uint64_t length) {
  int result;
  do {
    result = fallocate(descriptor_, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(length));
  } while (result != 0 && errno == EINTR);
  if (result == 0 || errno == EOPNOTSUPP || errno == ENOSYS) return true;
  return isSpecial_ && IsRefusalOfSpecialFile(errno);
}

bool OsFile::SyncIfSupported() {
  return Sync() == 0 || (isSpecial_ && IsRefusalOfSpecialFile(errno));
}

void* OsFile::Map(uint32_t length, uint32_t offset, uint32_t mapFlags) {
  const int protection = (mapFlags & kMapReadOnly) != 0 ? PROT_READ : PROT_READ | PROT_WRITE;
  void* address = mmap(nullptr, length, protection, MAP_SHARED, descriptor_, static_cast<off_t>(offset));
  return address == MAP_FAILED ? nullptr : address;
}

void OsFile::TrackMapping(void* address, uint32_t length) {
  mappings_.emplace_back(address, length);
}

uint32_t OsFile::Unmap(void* address) {
  const auto mapping = std::find_if(mappings_.begin(), mappings_.end(),
                                    [address](const auto& entry) { return entry.first == address; });
  if (mapping == mappings_.end()) return kUnmapFailed;
  const int result = munmap(mapping->first, mapping->second);
  mappings_.erase(mapping);
  return static_cast<uint32_t>(result);
}

uint32_t OsFile::UnmapAll() {
  if (mappings_.empty()) return kUnmapFailed;
  for (const auto& [address, length] : mappings_) munmap(address, length);
  mappings_.clear();
  return 0;
}

uint32_t OsFile::CloseAndRemove() {
  UnmapAndClose();
  IgnoreStatus(std::remove(path_.c_str()));  // the handle is done with the file either way
  return 0;
}

void OsFile::UnmapAndClose() {
  IgnoreStatus(UnmapAll());  // most handles have adopted nothing
  if (descriptor_ >= 1) CloseWhenUnlocked(descriptor_, inode_);
  descriptor_ = 0;
}

}  // namespace Kestrun
