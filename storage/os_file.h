// storage/os_file.h: a handle on one file of a store, and the locks that order threads and processes on it.
//
// A lock combines the file's mutex, one per process, with POSIX byte-range locks far beyond the end of the
// file. POSIX locks belong to a process and not to a handle, so every handle that a process has on a file
// shares one InodeInfo.
//
//   gate byte   1 byte at 0x40000000     read-locked while a reader enters, write-locked by a writer
//   lock range  511 bytes behind it      read-locked by readers, write-locked by a writer
//
// Ownership: held through std::shared_ptr; the last reference unmaps what was adopted and closes the file.
// Threads:   Lock and Unlock may be called from any thread; the thread that locked unlocks. The wrappers of
//            system calls are as safe as these are.
// Failure:   Open, Lock and Unlock return a status; the wrappers return what the system call returns and
//            leave errno to the caller. Nothing is printed.
// Traps:     closing any descriptor of a file drops all locks that the process holds on it, while the level
//            on record stays; callers rely on the store not hiding this from the thread that holds them. A
//            handle that goes waits until no other thread holds a lock.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "storage/inode_registry.h"

namespace Kestrun {

// Bits of OsFile::Open's flags.
inline constexpr uint16_t kOpenReadOnly = 1;
inline constexpr uint16_t kOpenReadWrite = 2;       // read-write, created (mode 0600) when missing
inline constexpr uint16_t kOpenCreate = 4;          // the same as kOpenReadWrite
inline constexpr uint16_t kOpenNoLock = 8;          // flags of exactly this value: Lock and Unlock do nothing
inline constexpr uint16_t kOpenLocalLockOnly = 32;  // Lock and Unlock take the mutex only

// Bit of OsFile::Map's flags: without it the mapping can be written.
inline constexpr uint32_t kMapReadOnly = 1;

enum class LockLevel : uint8_t {
  None = 0,
  ThreadOnly = 1,  // the mutex alone; keeps out the threads of this process
  Shared = 2,      // the mutex, and a read lock that keeps out writers of other processes
  Exclusive = 3,   // the mutex, and write locks that keep out every other process
};

// The lock record of one file in one process. Never freed.
struct InodeInfo {
  std::recursive_mutex mutex;
  LockLevel level = LockLevel::None;  // what this process holds; guarded by mutex
  uint32_t openCount = 0;             // calls of OsFile::Open that found this record; never counted down

  // The child of a fork holds no byte-range lock, and the thread that held the mutex may not exist in it.
  void AfterFork();
};

// What tells the file apart that was inspected.
InodeId InodeIdOf(const struct stat& info);

// Closes a descriptor of the file that `inode` belongs to while no other thread of the process is inside a
// locked section on it: any close drops the locks of the whole process.
void CloseWhenUnlocked(int descriptor, InodeInfo* inode);
// The same for a descriptor whose file has not been looked up. At once when the lookup fails.
void CloseWhenUnlocked(int descriptor) noexcept;
// The descriptor, moved behind the standard streams, onto which the host and the library may print; -1 when it
// can't be moved.
int MoveAboveStdio(int descriptor) noexcept;

class OsFile {
 public:
  // Opens `path` with a descriptor of at least 3, closed on exec; a low one would let the library's own
  // messages end up in the file. Does not wait for the other end of a pipe or a device. kStatusOpenFailed when it can't be opened (descriptor 0 counts as such),
  // kStatusStatFailed when it can't be inspected. May throw std::bad_alloc.
  static uint32_t Open(const std::string& path, uint16_t flags, OsFile** out);
  // The same, under shared ownership.
  static uint32_t Open(const std::string& path, uint16_t flags, std::shared_ptr<OsFile>* out);

  ~OsFile();
  OsFile(const OsFile&) = delete;
  OsFile& operator=(const OsFile&) = delete;

  // Takes the mutex and then, for Shared and Exclusive, the byte-range locks, unless the process has that
  // level on record already. Each step is tried four times, 1 ms apart. kStatusLockFailed when a step fails:
  // the mutex is held nevertheless and Unlock must follow, and a gate byte that was locked stays locked until
  // a later lock at that level succeeds. Callers rely on both.
  [[nodiscard]] uint32_t Lock(LockLevel level);
  // Undoes one Lock of the same level, also one that failed. Whatever the nesting, the byte-range locks and
  // the level on record are dropped at once. Level Shared while Exclusive is on record leaves the gate byte
  // write-locked. kStatusLockFailed when a lock can't be released; the level stays on record.
  [[nodiscard]] uint32_t Unlock(LockLevel level);

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

  // A shared mapping of `length` bytes at `offset`, or null. It belongs to the caller until it is adopted.
  void* Map(uint32_t length, uint32_t offset, uint32_t mapFlags);
  // Enters a mapping into the handle's list: Unmap knows it, and it goes when the handle goes.
  void TrackMapping(void* address, uint32_t length);
  // The result of munmap for an adopted mapping; 0xFFFFFFFF for an address that was not adopted.
  uint32_t Unmap(void* address);
  // 0; 0xFFFFFFFF when nothing is adopted.
  uint32_t UnmapAll();
  // Unmaps, closes and removes the file, whatever comes of it. Returns 0.
  uint32_t CloseAndRemove();

  const std::string& Path() const { return path_; }
  InodeInfo* Inode() const { return inode_; }
  const InodeId& Id() const { return id_; }

 private:
  OsFile(int descriptor, std::string path, uint16_t flags, const struct stat& info, InodeInfo* inode);

  uint32_t LockBytes(LockLevel level);
  uint32_t UnlockBytes(LockLevel level);
  bool SetByteLock(short type, int64_t start, int64_t length);
  void UnmapAndClose();

  int descriptor_;  // 0 once closed
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

}  // namespace Kestrun
