// engine/lock_patience.h: how long a face waits for a lock, and what it counts.
#pragma once

#include <atomic>
#include <cstdint>

namespace Kestrun {

struct LockPatience {
  // Milliseconds that a lock is tried for. 0: the tries of OsFile::Lock, after which what was locked stays locked.
  unsigned int milliseconds = 0;
  std::atomic<uint64_t>* retries =
      nullptr;  // counts the times that a lock was not had at once, when asked for
  std::atomic<uint64_t>* failures = nullptr;  // counts the times that it was given up
};

}  // namespace Kestrun
