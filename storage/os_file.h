// storage/os_file.h: a handle on one file of a store.
//
// Ownership: held through std::shared_ptr; the last reference unmaps what is tracked and closes the file.
// Threads:   Lock and Unlock may be called from any thread; the thread that locked unlocks. The wrappers of
//            system calls are as safe as these are.
// Failure:   Open, Lock and Unlock return a status; the wrappers return what the system call returns and
//            leave errno to the caller. Nothing is printed.
// Compat:    close-drops-locks. A descriptor that is closed on the thread that holds a lock on the file drops
//            the locks of the process on it, while the level stays on record. On other threads the descriptor
//            waits until the lock is given up (storage/file_lock.h); the destructor never blocks.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "storage/file_descriptor.h"
#include "storage/file_lock.h"

namespace Kestrun {

// Bits of OsFile::Open's flags.
inline constexpr uint16_t kOpenReadOnly = 1;
inline constexpr uint16_t kOpenReadWrite = 2;       // read-write, created (mode 0600) when missing
inline constexpr uint16_t kOpenCreate = 4;          // the same as kOpenReadWrite
inline constexpr uint16_t kOpenNoLock = 8;          // flags of exactly this value: Lock and Unlock do nothing
inline constexpr uint16_t kOpenLocalLockOnly = 32;  // Lock and Unlock take the mutex only

// Bit of OsFile::Map's flags: without it the mapping can be written.
inline constexpr uint32_t kMapReadOnly = 1;

class OsFile {
 public:
  // Opens `path` with a descriptor of at least 3, closed on exec; a low one would let the library's own
  // messages end up in the file. Does not wait for the other end of a pipe or a device. kStatusOpenFailed
  // when it can't be opened (descriptor 0 counts as such), kStatusStatFailed when it can't be inspected. May
  // throw std::bad_alloc.
  static uint32_t Open(const std::string& path, uint16_t flags, OsFile** out);
  // The same, under shared ownership.
  static uint32_t Open(const std::string& path, uint16_t flags, std::shared_ptr<OsFile>* out);

  ~OsFile();
  OsFile(const OsFile&) = delete;
  OsFile& operator=(const OsFile&) = delete;

  // Takes the mutex and then, for Shared and Exclusive, the byte-range locks, unless the process has that
  // level on record already. Each step is tried four times, 1 ms apart. kStatusLockFailed when a step fails:
  // the mutex is held nevertheless and Unlock must follow, and a gate byte that was locked stays locked until
  // a later lock at that level succeeds. Compat: failed-lock-keeps-mutex, failed-lock-keeps-gate.
  [[nodiscard]] uint32_t Lock(LockLevel level);
  // The same, unless another thread is inside: false at once, nothing is held then and Unlock must not
  // follow.
  [[nodiscard]] bool TryLock(LockLevel level, uint32_t* status);
  // Undoes one Lock of the same level, also one that failed. Whatever the nesting, the byte-range locks and
  // the level on record are dropped at once (Compat: nested-unlock-drops-locks). Level Shared while Exclusive
  // is on record leaves the gate byte write-locked (Compat: unlock-shared-keeps-gate). kStatusLockFailed when
  // a lock can't be released; the level stays on record.
  [[nodiscard]] uint32_t Unlock(LockLevel level);

  // Lock that is tried for `milliseconds`; see InodeInfo::RaiseWithin. Unlock must follow unless it fails.
  [[nodiscard]] uint32_t LockWithin(LockLevel level, unsigned int milliseconds,
                                    std::atomic<uint64_t>* retries, std::atomic<uint64_t>* failures);

  // Locks one byte of the file for writing against other processes, tried as the steps of Lock are. False
  // when another process has it. The mutex is not taken: the caller holds it, and unlocks the byte.
  [[nodiscard]] bool LockByte(int64_t offset);
  void UnlockByte(int64_t offset);

  ssize_t Read(void* buffer, size_t length);
  ssize_t PRead(void* buffer, size_t length, int64_t offset);
  ssize_t Write(const void* buffer, size_t length);
  ssize_t PWrite(const void* buffer, size_t length, int64_t offset);
  off_t Seek(int64_t offset, uint32_t whence);
  int Truncate(int64_t length);
  int Sync();
  // Has the system begin to write these bytes to the disk, so that Sync has less
  // to wait for. Promises nothing.
  void StartWriting(uint64_t offset, uint64_t size);
  // 0 or -1; `*size` is 0 after a failure.
  int Size(uint64_t* size);

  // PRead that goes on after a signal or a partial transfer. Fewer bytes than `length` mean that the file
  // ends there; -1 means that the system failed, whatever was read before.
  // PWrite that does the same. Fewer bytes than `length`, or -1, mean that the system takes no more.
  ssize_t PReadFully(void* buffer, size_t length, int64_t offset);
  ssize_t PWriteFully(const void* buffer, size_t length, int64_t offset);

  // Reserves disk space for the first `length` bytes, so that storing to a mapping of them can't fail, and
  // leaves the file's size as it is. False when there is none; true where the file system, or a special file,
  // can't reserve.
  bool Reserve(uint64_t length);
  // Sync that counts as done where a special file can't be synced.
  bool SyncIfSupported();
  // Whether the file is a device, a pipe or the like: its bytes need not stay, nor show in a mapping.
  bool IsSpecial() const { return isSpecial_; }

  // A shared mapping of `length` bytes at `offset`, or null. It belongs to the caller until it is tracked.
  void* Map(uint32_t length, uint32_t offset, uint32_t mapFlags);
  // Enters a mapping into the handle's list: Unmap knows it, and it goes when the handle goes.
  void TrackMapping(void* address, uint32_t length);
  // The result of munmap for a tracked mapping; 0xFFFFFFFF for an address that is not tracked.
  uint32_t Unmap(void* address);
  // 0; 0xFFFFFFFF if nothing is tracked.
  uint32_t UnmapAll();
  // Unmaps, closes and removes the file, whatever comes of it. Returns 0.
  uint32_t CloseAndRemove();

  // For system calls that this class does not wrap.
  int Descriptor() const { return descriptor_.Get(); }
  const std::string& Path() const { return path_; }
  InodeInfo* Inode() const { return inode_; }
  const InodeId& Id() const { return id_; }

 private:
  OsFile(FileDescriptor descriptor, std::string path, uint16_t flags, const struct stat& info,
         InodeInfo* inode);

  uint32_t LockBytes(LockLevel level);
  void UnmapAndClose();

  FileDescriptor descriptor_;
  std::string path_;
  InodeId id_;
  InodeInfo* inode_;
  std::vector<std::pair<void*, uint32_t>> mappings_;
  uint16_t flags_;
  bool isSpecial_;
};

// Says in one place that a status or result is dropped on purpose; the reason stands beside the call.
template <typename Result>
void IgnoreStatus(const Result& /*result*/) {}

// Holds one file at one lock level for a scope. Unlocks even if the lock failed, because a failed Lock
// still holds the mutex.
class [[nodiscard]] FileLockGuard {
 public:
  FileLockGuard(std::shared_ptr<OsFile> file, LockLevel level)
      : file_(std::move(file)), level_(level), status_(file_->Lock(level)) {}
  ~FileLockGuard() { IgnoreStatus(file_->Unlock(level_)); }  // nobody is left to tell
  FileLockGuard(const FileLockGuard&) = delete;
  FileLockGuard& operator=(const FileLockGuard&) = delete;
  uint32_t Status() const { return status_; }

 private:
  std::shared_ptr<OsFile> file_;  // outlives the unlock
  LockLevel level_;
  uint32_t status_;
};

// The same for an opening, which never waits for a section of another thread.
class [[nodiscard]] TryFileLockGuard {
 public:
  TryFileLockGuard(std::shared_ptr<OsFile> file, LockLevel level)
      : file_(std::move(file)), level_(level), entered_(file_->TryLock(level, &status_)) {}
  ~TryFileLockGuard() {
    if (entered_) IgnoreStatus(file_->Unlock(level_));  // nobody is left to tell
  }
  TryFileLockGuard(const TryFileLockGuard&) = delete;
  TryFileLockGuard& operator=(const TryFileLockGuard&) = delete;
  // Whether no other thread is inside.
  bool Entered() const { return entered_; }
  // kStatusLockFailed also if another thread is inside.
  uint32_t Status() const { return status_; }

 private:
  std::shared_ptr<OsFile> file_;  // outlives the unlock
  LockLevel level_;
  uint32_t status_ = 0;
  bool entered_;
};

// For an opening, which reads while others write: calls `read` until it is content, at last with the file
// locked for reading. If another thread of the process is inside, the reading is tried again for about a
// tenth of a second, by when that thread is done with its change or is at something that does not change the
// file.
[[nodiscard]] bool ReadAtOpen(const std::shared_ptr<OsFile>& file, const std::function<bool()>& read);

}  // namespace Kestrun
