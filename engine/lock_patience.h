// engine/lock_patience.h: how long a face waits for a lock, and what it counts.
#pragma once

#include <atomic>
#include <cstdint>

namespace Kestrun {

struct LockPatience {
  // The tries of OsFile::Lock, after which what was locked stays locked: what the older face does.
  bool isOlderFace = true;
  // Otherwise: milliseconds that a lock is tried for, at least as often as
  // OsFile::Lock does; nothing stays locked.
  unsigned int milliseconds = 0;
  std::atomic<uint64_t>* retries = nullptr;   // counts the times that a lock was not had at once
  std::atomic<uint64_t>* failures = nullptr;  // counts the times that it was given up
};

}  // namespace Kestrun
