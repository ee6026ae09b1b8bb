#include "storage/file_lock.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

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

// Nobody who waits gives up sooner than those who only try.
constexpr unsigned int kMinPatienceMillis = (kLockAttempts - 1) * kLockRetryMicros / 1000;

// Both together, which is one range.
constexpr int64_t kBothStart = kGateByte;
constexpr int64_t kBothLength = kGateLength + kLockRangeLength;

bool TrySetLock(int descriptor, short type, int64_t start, int64_t length) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = start;
  lock.l_len = length;
  return fcntl(descriptor, F_SETLK, &lock) >= 0;
}

// The gate byte and the lock range are locked by one call if nobody is in the way. A call that fails changes
// nothing, and then the steps follow one after the other, with their tries and with what they leave locked.
// The gate byte comes first there: a writer that holds it keeps new readers out while it waits for the range.
// A reader lets go of the gate byte once it has the range.
bool LockByteRanges(int descriptor, LockLevel level) {
  if (level == LockLevel::Shared) {
    const bool locked = TrySetLock(descriptor, F_RDLCK, kBothStart, kBothLength) ||
                        (SetByteLock(descriptor, F_RDLCK, kGateByte, kGateLength) &&
                         SetByteLock(descriptor, F_RDLCK, kLockRangeStart, kLockRangeLength));
    return locked && SetByteLock(descriptor, F_UNLCK, kGateByte, kGateLength);
  }
  if (level == LockLevel::Exclusive) {
    return TrySetLock(descriptor, F_WRLCK, kBothStart, kBothLength) ||
           (SetByteLock(descriptor, F_WRLCK, kGateByte, kGateLength) &&
            SetByteLock(descriptor, F_WRLCK, kLockRangeStart, kLockRangeLength));
  }
  return true;
}

// Level Shared leaves the gate byte alone: Compat: unlock-shared-keeps-gate.
bool UnlockByteRanges(int descriptor, LockLevel level) {
  if (level == LockLevel::Shared) {
    return SetByteLock(descriptor, F_UNLCK, kLockRangeStart, kLockRangeLength);
  }
  return TrySetLock(descriptor, F_UNLCK, kBothStart, kBothLength) ||
         (SetByteLock(descriptor, F_UNLCK, kLockRangeStart, kLockRangeLength) &&
          SetByteLock(descriptor, F_UNLCK, kGateByte, kGateLength));
}

}  // namespace

bool SetByteLock(int descriptor, short type, int64_t start, int64_t length) {
  for (int attempt = 1;; ++attempt) {
    if (TrySetLock(descriptor, type, start, length)) return true;
    if (attempt == kLockAttempts) return false;
    usleep(kLockRetryMicros);
  }
}

uint32_t InodeInfo::RaiseTo(LockLevel target, int descriptor) {
  if (level >= target) return kStatusOk;
  if (!LockByteRanges(descriptor, target)) return kStatusLockFailed;
  level = target;
  return kStatusOk;
}

namespace {

// The lock that a waiting caller asks for, without waiting for it.
bool TryLockByteRanges(int descriptor, LockLevel level) {
  if (level == LockLevel::Exclusive) return TrySetLock(descriptor, F_WRLCK, kBothStart, kBothLength);
  return TrySetLock(descriptor, F_RDLCK, kBothStart, kBothLength) &&
         SetByteLock(descriptor, F_UNLCK, kGateByte, kGateLength);
}

// Most locks are held for microseconds: the processor is handed over first, and only then slept.
void PauseBeforeTry(int tries) {
  constexpr int kYields = 64;
  constexpr int kMinSleepMicros = 20;
  constexpr int kMaxDoublings = 5;
  if (tries < kYields) {
    sched_yield();
  } else {
    usleep(static_cast<useconds_t>(kMinSleepMicros << std::min((tries - kYields) / 8, kMaxDoublings)));
  }
}

}  // namespace

uint32_t InodeInfo::RaiseWithin(LockLevel target, int descriptor, unsigned int milliseconds,
                                std::atomic<uint64_t>* retries, std::atomic<uint64_t>* failures) {
  if (TryEnter()) {
    if (level >= target || TryLockByteRanges(descriptor, target)) {
      level = std::max(level, target);
      return kStatusOk;
    }
    Leave();
  }
  return WaitFor(target, descriptor, std::max(milliseconds, kMinPatienceMillis), retries, failures);
}

// A writer takes the gate byte while it waits for the range, so that readers who come one after the other
// can't keep it out for ever.
uint32_t InodeInfo::WaitFor(LockLevel target, int descriptor, unsigned int milliseconds,
                            std::atomic<uint64_t>* retries, std::atomic<uint64_t>* failures) {
  constexpr int kTriesBeforeGate = 8;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  ++*retries;
  bool hasGate = false;
  for (int tries = 0;; ++tries) {
    // A process that the system did not run for that long has tried once only.
    const bool isLast = tries + 2 >= kLockAttempts && std::chrono::steady_clock::now() >= deadline;
    // The gate byte is given back in any case, and only by a thread that is inside.
    const bool isInside = isLast && hasGate ? (Enter(), true) : TryEnter();
    if (isInside) {
      if (level >= target || TryLockByteRanges(descriptor, target)) {
        level = std::max(level, target);
        return kStatusOk;
      }
      if (isLast && hasGate && level < LockLevel::Shared) {
        static_cast<void>(SetByteLock(descriptor, F_UNLCK, kGateByte, kGateLength));
      } else if (target == LockLevel::Exclusive && tries >= kTriesBeforeGate && level < LockLevel::Shared) {
        hasGate = TrySetLock(descriptor, F_WRLCK, kGateByte, kGateLength) || hasGate;
      }
      Leave();
    }
    if (isLast) {
      ++*failures;
      return kStatusLockFailed;
    }
    PauseBeforeTry(tries);
  }
}

uint32_t InodeInfo::DropFrom(LockLevel held, int descriptor) {
  if (level < held || held < LockLevel::Shared) return kStatusOk;
  ++dropCount_;
  if (!UnlockByteRanges(descriptor, held)) return kStatusLockFailed;
  level = LockLevel::None;
  return kStatusOk;
}

void InodeInfo::DropAll(int descriptor) {
  ++dropCount_;
  level = LockLevel::None;
  static_cast<void>(SetByteLock(descriptor, F_UNLCK, kBothStart, kBothLength));
}

void InodeInfo::Enter() {
  mutex.lock();
  if (depth_++ == 0) owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
}

bool InodeInfo::TryEnter() {
  if (!mutex.try_lock()) return false;
  if (depth_++ == 0) owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  return true;
}

// What is deferred between CloseDeferred and the unlocking is found by the look afterwards: see HasDeferred.
void InodeInfo::Leave() {
  do {
    const bool last = --depth_ == 0;
    if (last) {
      CloseDeferred();
      owner_.store(std::thread::id(), std::memory_order_relaxed);
    }
    mutex.unlock();
    if (!last) return;
  } while (HasDeferred() && TryEnter());
}

void InodeInfo::CloseWhenUnlocked(int descriptor, std::unique_ptr<DeferredClose> room) noexcept {
  if (TryEnter()) {
    ++dropCount_;
    close(descriptor);
    Leave();
    return;
  }
  DeferredClose* const added = room.release();
  added->descriptor = descriptor;
  added->next = deferred_.load(std::memory_order_relaxed);
  while (!deferred_.compare_exchange_weak(added->next, added, std::memory_order_acq_rel,
                                          std::memory_order_relaxed)) {
  }
  // The other thread may have left in between.
  if (TryEnter()) Leave();
}

// A descriptor is never forgotten. Both sides modify `deferred_`, so that one modification comes first: if it
// is the closer's, the thread that leaves sees the descriptor; if it is the leaver's, the closer's TryEnter
// comes after the mutex was unlocked.
bool InodeInfo::HasDeferred() {
  DeferredClose* none = nullptr;
  return !deferred_.compare_exchange_strong(none, nullptr, std::memory_order_acq_rel,
                                            std::memory_order_acquire);
}

void InodeInfo::CloseDeferred() noexcept {
  if (deferred_.load(std::memory_order_relaxed) == nullptr) return;
  DeferredClose* next = deferred_.exchange(nullptr, std::memory_order_acq_rel);
  while (next != nullptr) {
    const std::unique_ptr<DeferredClose> room(next);
    next = room->next;
    close(room->descriptor);
  }
}

// Unlocking is refused, because the thread has another number in the child, but ThreadSanitizer counts it. A
// new mutex is free; trying is what ThreadSanitizer takes for harmless while the registries are locked.
void InodeInfo::AfterFork() {
  level = LockLevel::None;
  if (owner_.load(std::memory_order_relaxed) == std::this_thread::get_id()) {
    for (uint32_t i = 0; i < depth_; ++i) mutex.unlock();
    ReinitAfterFork(mutex);
    for (uint32_t i = 0; i < depth_; ++i) static_cast<void>(mutex.try_lock());
  } else {
    ReinitAfterFork(mutex);
    owner_.store(std::thread::id(), std::memory_order_relaxed);
    depth_ = 0;
  }
  CloseDeferred();  // the child has no locks that this could drop
}

}  // namespace Kestrun
