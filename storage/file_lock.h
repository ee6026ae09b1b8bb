// storage/file_lock.h: the lock record of a file, one for each file in a process, and what hangs on it.
//
// A lock combines the record's mutex with POSIX byte-range locks far beyond the end of the file. POSIX locks
// belong to a process and not to a handle, so every handle that a process has on a file shares one InodeInfo.
//
//   gate byte   1 byte at 0x40000000       read-locked while a reader enters, write-locked by a writer
//   lock range  511 bytes at 0x40000001    read-locked by readers, write-locked by a writer
//
// POSIX also drops all locks of the process on a file when any descriptor of the file is closed. So a
// descriptor is closed only while no other thread is inside a section of the file; until then it waits in the
// record. Closing never blocks: the thread that is inside closes the descriptor when it leaves.
//
// Threads: Enter, TryEnter and CloseWhenUnlocked from any thread; the rest by the thread that is inside.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include "storage/inode_registry.h"

namespace Kestrun {

enum class LockLevel : uint8_t {
  None = 0,
  ThreadOnly = 1,  // the mutex alone; keeps out the threads of this process
  Shared = 2,      // the mutex, and a read lock that keeps out writers of other processes
  Exclusive = 3,   // the mutex, and write locks that keep out every other process
};

// Room for a descriptor that can't be closed yet. It is allocated before the descriptor is opened, because
// closing must not fail.
struct DeferredClose {
  int descriptor = -1;
  DeferredClose* next = nullptr;
};

// The lock record of one file in one process. Never freed.
struct InodeInfo {
  std::recursive_mutex mutex;         // held by the thread that is inside
  LockLevel level = LockLevel::None;  // what this process holds; guarded by mutex
  uint32_t openCount = 0;             // calls of OsFile::Open that found this record; never counted down

  // Enters a section, which may be nested, when no other thread is inside.
  void Enter();
  // The same; false, at once, when another thread is inside.
  bool TryEnter();
  // Leaves one section. The last one closes the descriptors that were deferred.
  void Leave();

  // Takes the byte-range locks of `target` unless that level is on record, and puts it on record. Each step
  // is tried four times, 1 ms apart. After kStatusLockFailed the record is as it was, and a gate byte that
  // was locked stays locked.
  [[nodiscard]] uint32_t RaiseTo(LockLevel target, int descriptor);
  // Enters a section and takes the byte-range locks of `target`, Shared or Exclusive, trying both for
  // `milliseconds`, and for about 3 in any case. After kStatusLockFailed nothing is entered and nothing stays
  // locked. The counters count the times that the lock was not had at once and the times that it was given
  // up.
  [[nodiscard]] uint32_t RaiseWithin(LockLevel target, int descriptor, unsigned int milliseconds,
                                     std::atomic<uint64_t>* retries, std::atomic<uint64_t>* failures);
  // Drops the locks and the level on record, if that is at least `held`. kStatusLockFailed when a lock can't
  // be released; the level stays on record.
  [[nodiscard]] uint32_t DropFrom(LockLevel held, int descriptor);

  // Drops every lock of this process on the two ranges, whatever is on record, and what others in this
  // process have left locked. For the thread that is inside.
  void DropAll(int descriptor);

  // How often byte-range locks were dropped, for the thread that is inside: a lock was held throughout if
  // this has not changed.
  uint64_t DropCount() const { return dropCount_; }

  // Closes a descriptor of this file: at once when no other thread is inside, else when that thread leaves.
  void CloseWhenUnlocked(int descriptor, std::unique_ptr<DeferredClose> room) noexcept;

  // The child of a fork holds no byte-range lock. Its thread stays inside if it was; others do not exist.
  void AfterFork();

 private:
  uint32_t WaitFor(LockLevel target, int descriptor, unsigned int milliseconds,
                   std::atomic<uint64_t>* retries, std::atomic<uint64_t>* failures);
  bool HasDeferred();
  void CloseDeferred() noexcept;

  std::atomic<std::thread::id> owner_{};  // of the thread that is inside
  uint32_t depth_ = 0;                    // sections that it has entered; guarded by mutex
  uint64_t dropCount_ = 0;                // guarded by mutex
  std::atomic<DeferredClose*> deferred_{nullptr};
};

// Sets or releases one byte-range lock, without waiting for other processes: tried four times, 1 ms apart.
[[nodiscard]] bool SetByteLock(int descriptor, short type, int64_t start, int64_t length);

}  // namespace Kestrun
