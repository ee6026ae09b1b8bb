// The locks of OsFile beside those of the sequence that the protocol lays down, for every mix of foreign
// locks and of what this process has locked before.
#include "storage/file_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kestrun/status.h"
#include "storage/os_file.h"
#include "tests/support/byte_locks.h"
#include "tests/support/child_process.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun::Testing {
namespace {

constexpr int64_t kGate = 0x40000000;
constexpr int64_t kRange = 0x40000001;
constexpr int64_t kRangeLength = 511;

bool SetLock(int descriptor, short type, int64_t start, int64_t length) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = start;
  lock.l_len = length;
  return fcntl(descriptor, F_SETLK, &lock) == 0;
}

// The sequence of the protocol, step by step. It does not wait, because nothing changes meanwhile here.
class StepwiseLock {
 public:
  explicit StepwiseLock(const std::string& path) : descriptor_(open(path.c_str(), O_RDWR | O_CREAT, 0600)) {}
  ~StepwiseLock() { close(descriptor_); }
  StepwiseLock(const StepwiseLock&) = delete;
  StepwiseLock& operator=(const StepwiseLock&) = delete;

  uint32_t Lock(LockLevel level) {
    if (level_ >= level) return kStatusOk;
    const short type = level == LockLevel::Shared ? F_RDLCK : F_WRLCK;
    if (!Set(type, kGate, 1)) return kStatusLockFailed;
    if (!Set(type, kRange, kRangeLength)) return kStatusLockFailed;
    if (level == LockLevel::Shared && !Set(F_UNLCK, kGate, 1)) return kStatusLockFailed;
    level_ = level;
    return kStatusOk;
  }
  uint32_t Unlock(LockLevel level) {
    if (level_ < level) return kStatusOk;
    if (!Set(F_UNLCK, kRange, kRangeLength)) return kStatusLockFailed;
    if (level == LockLevel::Exclusive && !Set(F_UNLCK, kGate, 1)) return kStatusLockFailed;
    level_ = LockLevel::None;
    return kStatusOk;
  }

 private:
  bool Set(short type, int64_t start, int64_t length) { return SetLock(descriptor_, type, start, length); }

  int descriptor_;
  LockLevel level_ = LockLevel::None;
};

// Another process that locks the gate byte, the first byte and the last byte of the lock range of some files,
// as a text of three letters says: 'r', 'w' or '-' for each.
class ForeignProcess {
 public:
  explicit ForeignProcess(const std::vector<std::string>& paths)
      : process_([paths](ChildLink& parent) {
          std::vector<int> descriptors;
          for (const std::string& path : paths) descriptors.push_back(open(path.c_str(), O_RDWR | O_CLOEXEC));
          for (std::string letters; parent.Receive(&letters) && !letters.empty();) {
            bool locked = true;
            for (const int descriptor : descriptors) locked = SetLocks(descriptor, letters) && locked;
            parent.Send(locked ? "locked" : "refused");
          }
          return 0;
        }) {}
  ~ForeignProcess() {
    process_.Send("");
    EXPECT_EQ(process_.Wait(), 0);
  }
  // False when the locks of this process are in the way.
  bool Hold(const std::string& letters) {
    std::string reply;
    EXPECT_TRUE(process_.Send(letters) && process_.Receive(&reply));
    return reply == "locked";
  }

 private:
  static bool SetLocks(int descriptor, const std::string& letters) {
    const int64_t bytes[] = {kGate, kRange, kRange + kRangeLength - 1};
    bool locked = SetLock(descriptor, F_UNLCK, 0, 0);
    for (size_t i = 0; i < letters.size(); ++i) {
      if (letters[i] == '-') continue;
      locked = SetLock(descriptor, letters[i] == 'r' ? F_RDLCK : F_WRLCK, bytes[i], 1) && locked;
    }
    return locked;
  }

  ChildProcess process_;
};

// A third process, which sees the locks of the others.
class Observer {
 public:
  Observer()
      : process_([](ChildLink& parent) {
          for (std::string path; parent.Receive(&path) && !path.empty();) parent.Send(LocksOfOthers(path));
          return 0;
        }) {}
  ~Observer() {
    process_.Send("");
    EXPECT_EQ(process_.Wait(), 0);
  }
  std::string Look(const std::string& path) {
    std::string locks = "nobody has looked";
    EXPECT_TRUE(process_.Send(path) && process_.Receive(&locks));
    return locks;
  }

 private:
  ChildProcess process_;
};

constexpr LockLevel kShared = LockLevel::Shared;
constexpr LockLevel kExclusive = LockLevel::Exclusive;

// What this process has done to a file before: the same with OsFile and with the sequence of steps.
struct History {
  const char* name;
  std::function<void(ForeignProcess&, const std::function<uint32_t(LockLevel)>& lock,
                     const std::function<uint32_t(LockLevel)>& unlock)>
      act;
  LockLevel held = LockLevel::None;  // to be unlocked at the end
};

TEST(FileLockTest, LocksAndStatusesAreThoseOfTheStepsForEveryMixOfHolders) {
  const History histories[] = {
      {"nothing", [](auto&, auto&, auto&) {}},
      {"held for reading", [](auto&, auto& lock, auto&) { EXPECT_EQ(lock(kShared), kStatusOk); }, kShared},
      {"held for writing", [](auto&, auto& lock, auto&) { EXPECT_EQ(lock(kExclusive), kStatusOk); },
       kExclusive},
      {"a writer that gave up",
       [](auto& foreign, auto& lock, auto& unlock) {
         EXPECT_TRUE(foreign.Hold("--r"));
         EXPECT_EQ(lock(kExclusive), kStatusLockFailed);
         EXPECT_EQ(unlock(kExclusive), kStatusOk);
         EXPECT_TRUE(foreign.Hold("---"));
       }},
      {"a reader that gave up",
       [](auto& foreign, auto& lock, auto& unlock) {
         EXPECT_TRUE(foreign.Hold("-w-"));
         EXPECT_EQ(lock(kShared), kStatusLockFailed);
         EXPECT_EQ(unlock(kShared), kStatusOk);
         EXPECT_TRUE(foreign.Hold("---"));
       }},
      {"a writer unlocked as a reader",
       [](auto&, auto& lock, auto& unlock) {
         EXPECT_EQ(lock(kExclusive), kStatusOk);
         EXPECT_EQ(unlock(kShared), kStatusOk);
       }},
      {"a writer below a reader",
       [](auto&, auto& lock, auto& unlock) {
         EXPECT_EQ(lock(kExclusive), kStatusOk);
         EXPECT_EQ(lock(kShared), kStatusOk);
         EXPECT_EQ(unlock(kShared), kStatusOk);
         EXPECT_EQ(unlock(kExclusive), kStatusOk);
       }},
  };
  const ScratchDirectory directory(ScratchDirectory::Place::Memory);
  const std::string path = directory.PathOf("file");
  const std::string stepwisePath = directory.PathOf("stepwise");
  std::shared_ptr<OsFile> file;
  ASSERT_EQ(OsFile::Open(path, kOpenReadWrite, &file), kStatusOk);
  close(open(stepwisePath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ForeignProcess foreign({path, stepwisePath});
  Observer observer;
  int rows = 0;
  int failures = 0;
  for (const History& history : histories) {
    for (int mix = 0; mix < 27; ++mix) {
      const std::string letters = {"-rw"[mix / 9], "-rw"[mix / 3 % 3], "-rw"[mix % 3]};
      for (const LockLevel level : {kShared, kExclusive}) {
        SCOPED_TRACE(std::string(history.name) + ", beside " + letters + ", level " +
                     (level == kShared ? "shared" : "exclusive"));
        StepwiseLock stepwise(stepwisePath);
        history.act(
            foreign, [&](LockLevel wanted) { return stepwise.Lock(wanted); },
            [&](LockLevel held) { return stepwise.Unlock(held); });
        history.act(
            foreign, [&](LockLevel wanted) { return file->Lock(wanted); },
            [&](LockLevel held) { return file->Unlock(held); });
        ASSERT_EQ(observer.Look(path), observer.Look(stepwisePath));

        if (foreign.Hold(letters)) {
          ++rows;
          const uint32_t status = file->Lock(level);
          EXPECT_EQ(status, stepwise.Lock(level));
          if (status != kStatusOk) ++failures;
          EXPECT_EQ(observer.Look(path), observer.Look(stepwisePath)) << "beside the foreign locks";
          EXPECT_TRUE(foreign.Hold("---"));
          EXPECT_EQ(observer.Look(path), observer.Look(stepwisePath));
          EXPECT_EQ(file->Unlock(level), stepwise.Unlock(level));
          EXPECT_EQ(observer.Look(path), observer.Look(stepwisePath)) << "after the unlocking";
        }
        EXPECT_TRUE(foreign.Hold("---"));
        if (history.held != LockLevel::None) {
          EXPECT_EQ(file->Unlock(history.held), stepwise.Unlock(history.held));
        }
        EXPECT_EQ(observer.Look(path), observer.Look(stepwisePath)) << "at the end";
        EXPECT_EQ(file->Inode()->level, LockLevel::None);
        // Closing any descriptor drops what is left.
        std::shared_ptr<OsFile> other;
        EXPECT_EQ(OsFile::Open(path, kOpenReadWrite, &other), kStatusOk);
      }
    }
  }
  EXPECT_GE(rows, 150);
  EXPECT_GE(failures, 80);
}

}  // namespace
}  // namespace Kestrun::Testing
