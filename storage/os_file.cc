#include "storage/os_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "kestrun/status.h"

namespace Kestrun {
namespace {

constexpr uint32_t kUnmapFailed = 0xFFFFFFFF;

constexpr int kReadAttempts = 100;
constexpr useconds_t kReadRetryMicros = 1000;

// What a device, a pipe or the like answers to fsync and fallocate.
bool IsRefusalOfSpecialFile(int error) {
  return error == EINVAL || error == ENODEV || error == EOPNOTSUPP || error == ESPIPE;
}

// Whether a level takes the mutex: any value with one of the two low bits set.
bool TakesMutex(LockLevel level) {
  return (static_cast<uint8_t>(level) & 3) != 0;
}

// A regular file is waited for where another process has a lease on it; nothing else is.
bool IsLeased(const std::string& path) {
  struct stat info = {};
  return errno == EWOULDBLOCK && stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool OpenDescriptor(const std::string& path, uint16_t flags, FileDescriptor* descriptor) {
  const bool writable = (flags & (kOpenReadWrite | kOpenCreate)) != 0;
  const int openFlags = (writable ? O_RDWR | O_CREAT : O_RDONLY) | O_NOCTTY;
  const bool opened =
      descriptor->Open(path, openFlags | O_NONBLOCK) || (IsLeased(path) && descriptor->Open(path, openFlags));
  // Compat: descriptor-0-fails-open.
  return opened && !descriptor->WasStandardInput();
}

}  // namespace

OsFile::OsFile(FileDescriptor descriptor, std::string path, uint16_t flags, const struct stat& info,
               InodeInfo* inode)
    : descriptor_(std::move(descriptor)),
      path_(std::move(path)),
      id_(InodeIdOf(info)),
      inode_(inode),
      flags_(flags),
      isSpecial_(!S_ISREG(info.st_mode)) {}

OsFile::~OsFile() {
  UnmapAndClose();
}

uint32_t OsFile::Open(const std::string& path, uint16_t flags, OsFile** out) {
  FileDescriptor descriptor;
  if (!OpenDescriptor(path, flags, &descriptor)) return kStatusOpenFailed;
  struct stat info = {};
  if (fstat(descriptor.Get(), &info) != 0) return kStatusStatFailed;
  InodeInfo* const inode =
      InodeRegistry<InodeInfo>::FindOrCreate(InodeIdOf(info), [](InodeInfo& found) { ++found.openCount; });
  descriptor.SetInode(inode);
  *out = new OsFile(std::move(descriptor), path, flags, info, inode);
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
  if (TakesMutex(level)) inode_->Enter();
  return LockBytes(level);
}

bool OsFile::TryLock(LockLevel level, uint32_t* status) {
  *status = kStatusOk;
  if (flags_ == kOpenNoLock) return true;
  if (TakesMutex(level) && !inode_->TryEnter()) {
    *status = kStatusLockFailed;
    return false;
  }
  *status = LockBytes(level);
  return true;
}

uint32_t OsFile::LockWithin(LockLevel level, unsigned int milliseconds, std::atomic<uint64_t>* retries,
                            std::atomic<uint64_t>* failures) {
  return inode_->RaiseWithin(level, descriptor_.Get(), milliseconds, retries, failures);
}

uint32_t OsFile::LockBytes(LockLevel level) {
  return (flags_ & kOpenLocalLockOnly) != 0 ? kStatusOk : inode_->RaiseTo(level, descriptor_.Get());
}

// The byte-range locks go before the mutex, so that no other thread finds a level on record that is about
// to be dropped.
uint32_t OsFile::Unlock(LockLevel level) {
  if (flags_ == kOpenNoLock) return kStatusOk;
  uint32_t status = kStatusOk;
  if ((flags_ & kOpenLocalLockOnly) == 0) status = inode_->DropFrom(level, descriptor_.Get());
  if (TakesMutex(level)) inode_->Leave();
  return status;
}

bool OsFile::LockByte(int64_t offset) {
  return SetByteLock(descriptor_.Get(), F_WRLCK, offset, 1);
}

void OsFile::UnlockByte(int64_t offset) {
  IgnoreStatus(
      SetByteLock(descriptor_.Get(), F_UNLCK, offset, 1));  // closing the file releases it at the latest
}

ssize_t OsFile::Read(void* buffer, size_t length) {
  return read(descriptor_.Get(), buffer, length);
}

ssize_t OsFile::PRead(void* buffer, size_t length, int64_t offset) {
  return pread(descriptor_.Get(), buffer, length, offset);
}

ssize_t OsFile::Write(const void* buffer, size_t length) {
  return write(descriptor_.Get(), buffer, length);
}

ssize_t OsFile::PWrite(const void* buffer, size_t length, int64_t offset) {
  return pwrite(descriptor_.Get(), buffer, length, offset);
}

off_t OsFile::Seek(int64_t offset, uint32_t whence) {
  return lseek(descriptor_.Get(), offset, static_cast<int>(whence));
}

int OsFile::Truncate(int64_t length) {
  return ftruncate(descriptor_.Get(), length);
}

void OsFile::StartWriting(uint64_t offset, uint64_t size) {
  const int error = errno;
  // A file system that can't waits for Sync.
  static_cast<void>(sync_file_range(descriptor_.Get(), static_cast<off64_t>(offset),
                                    static_cast<off64_t>(size), SYNC_FILE_RANGE_WRITE));
  errno = error;
}

int OsFile::Sync() {
  return fsync(descriptor_.Get());
}

int OsFile::Size(uint64_t* size) {
  struct stat info = {};
  const int result = fstat(descriptor_.Get(), &info);
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
    result = fallocate(descriptor_.Get(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(length));
  } while (result != 0 && errno == EINTR);
  if (result == 0 || errno == EOPNOTSUPP || errno == ENOSYS) return true;
  return isSpecial_ && IsRefusalOfSpecialFile(errno);
}

bool OsFile::SyncIfSupported() {
  return Sync() == 0 || (isSpecial_ && IsRefusalOfSpecialFile(errno));
}

void* OsFile::Map(uint32_t length, uint32_t offset, uint32_t mapFlags) {
  const int protection = (mapFlags & kMapReadOnly) != 0 ? PROT_READ : PROT_READ | PROT_WRITE;
  void* address =
      mmap(nullptr, length, protection, MAP_SHARED, descriptor_.Get(), static_cast<off_t>(offset));
  return address == MAP_FAILED ? nullptr : address;
}

void OsFile::TrackMapping(void* address, uint32_t length) {
  try {
    mappings_.emplace_back(address, length);
  } catch (...) {
    munmap(address, length);  // nobody else would
    throw;
  }
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
  IgnoreStatus(UnmapAll());  // most handles track nothing
  descriptor_.Close();
}

bool ReadAtOpen(const std::shared_ptr<OsFile>& file, const std::function<bool()>& read) {
  for (int attempt = 1;; ++attempt) {
    if (read()) return true;
    const TryFileLockGuard lock(file, LockLevel::Shared);
    if (lock.Entered() || attempt == kReadAttempts) return read();
    usleep(kReadRetryMicros);
  }
}

}  // namespace Kestrun
