#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kestrun/status.h"
#include "storage/os_file.h"
#include "tests/support/byte_locks.h"
#include "tests/support/child_process.h"
#include "tests/support/process_maps.h"
#include "tests/support/scratch_directory.h"

namespace Kestrun {
namespace {

using Testing::ChildLink;
using Testing::ChildProcess;
using Testing::DescriptorsOf;
using Testing::ForeignLock;
using Testing::LocksOfOthers;
using Testing::LocksOnFile;
using Testing::ScratchDirectory;

constexpr int64_t kGate = 1073741824;
constexpr int64_t kRange = 1073741825;
constexpr int64_t kRangeLength = 511;

// As another process sees them; locks of one kind on neighbouring bytes appear as one.
constexpr char kReader[] = "read 40000001+1ff";
constexpr char kWriter[] = "write 40000000+200";
constexpr char kReadLockedGate[] = "read 40000000+1";
constexpr char kWriteLockedGate[] = "write 40000000+1";
constexpr char kNothing[] = "";

std::shared_ptr<OsFile> OpenFile(const std::string& path, uint16_t flags = kOpenReadWrite) {
  std::shared_ptr<OsFile> file;
  EXPECT_EQ(OsFile::Open(path, flags, &file), kStatusOk) << path;
  return file;
}

// Whether another thread could enter a section of the file at the moment.
bool IsMutexFree(OsFile& file) {
  bool free = false;
  std::thread other([&] {
    free = file.Inode()->mutex.try_lock();
    if (free) file.Inode()->mutex.unlock();
  });
  other.join();
  return free;
}

class OsFileLockTest : public testing::Test {
 protected:
  OsFileLockTest() : path_(directory_.PathOf("file")), file_(OpenFile(path_)) {}

  std::string Locks() const { return LocksOnFile(path_); }
  LockLevel Level() const { return file_->Inode()->level; }

  // What another process gets that locks and unlocks at this level.
  uint32_t StatusElsewhere(LockLevel level) const {
    ChildProcess child([&](ChildLink& parent) {
      auto file = OpenFile(path_);
      const uint32_t status = file->Lock(level);
      const uint32_t unlocked = file->Unlock(level);
      return parent.Send(std::to_string(status)) && unlocked == kStatusOk ? 0 : 1;
    });
    std::string status;
    EXPECT_TRUE(child.Receive(&status));
    EXPECT_EQ(child.Wait(), 0);
    return static_cast<uint32_t>(std::stoul(status));
  }

  const ScratchDirectory directory_;
  const std::string path_;
  std::shared_ptr<OsFile> file_;
};

TEST_F(OsFileLockTest, SharedReadLocksTheRangeAndLetsTheGateByteGo) {
  ASSERT_EQ(file_->Lock(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(Locks(), kReader);
  EXPECT_EQ(Level(), LockLevel::Shared);
  EXPECT_FALSE(IsMutexFree(*file_));
  ASSERT_EQ(file_->Unlock(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(Locks(), kNothing);
  EXPECT_EQ(Level(), LockLevel::None);
  EXPECT_TRUE(IsMutexFree(*file_));
}

TEST_F(OsFileLockTest, ExclusiveWriteLocksTheGateByteAndTheRange) {
  ASSERT_EQ(file_->Lock(LockLevel::Exclusive), kStatusOk);
  EXPECT_EQ(Locks(), kWriter);
  EXPECT_EQ(Level(), LockLevel::Exclusive);
  EXPECT_FALSE(IsMutexFree(*file_));
  ASSERT_EQ(file_->Unlock(LockLevel::Exclusive), kStatusOk);
  EXPECT_EQ(Locks(), kNothing);
  EXPECT_EQ(Level(), LockLevel::None);
  EXPECT_TRUE(IsMutexFree(*file_));
}

TEST_F(OsFileLockTest, TheGateByteAndTheRangeAreLockedOneAfterTheOther) {
  // A reader of the range's last byte stops the second step only, one of the byte behind it stops nothing.
  ForeignLock behind(path_, F_RDLCK, kRange + kRangeLength, 1);
  ForeignLock before(path_, F_RDLCK, kGate - 1, 1);
  ASSERT_EQ(file_->Lock(LockLevel::Exclusive), kStatusOk);
  ASSERT_EQ(file_->Unlock(LockLevel::Exclusive), kStatusOk);
  ForeignLock last(path_, F_RDLCK, kRange + kRangeLength - 1, 1);
  EXPECT_EQ(file_->Lock(LockLevel::Exclusive), kStatusLockFailed);
  EXPECT_EQ(file_->Unlock(LockLevel::Exclusive), kStatusOk);
  for (ForeignLock* lock : {&behind, &before, &last}) lock->Release();
  EXPECT_EQ(Locks(), kWriteLockedGate);
}

TEST_F(OsFileLockTest, SharedRaisesToExclusiveByTheSameSteps) {
  ASSERT_EQ(file_->Lock(LockLevel::Shared), kStatusOk);
  ASSERT_EQ(file_->Lock(LockLevel::Exclusive), kStatusOk);
  EXPECT_EQ(Locks(), kWriter);
  EXPECT_EQ(Level(), LockLevel::Exclusive);
  ASSERT_EQ(file_->Unlock(LockLevel::Exclusive), kStatusOk);
  EXPECT_EQ(Locks(), kNothing) << "nothing is left of the level below";
  EXPECT_FALSE(IsMutexFree(*file_)) << "each lock wants its unlock";
  ASSERT_EQ(file_->Unlock(LockLevel::Shared), kStatusOk);
  EXPECT_TRUE(IsMutexFree(*file_));
}

TEST_F(OsFileLockTest, ThreadOnlyIsRecordedWithoutAnyByteLockAndRaisesToShared) {
  ASSERT_EQ(file_->Lock(LockLevel::ThreadOnly), kStatusOk);
  EXPECT_EQ(Level(), LockLevel::ThreadOnly);
  EXPECT_EQ(Locks(), kNothing);
  EXPECT_FALSE(IsMutexFree(*file_));
  ASSERT_EQ(file_->Lock(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(Locks(), kReader);
  EXPECT_EQ(Level(), LockLevel::Shared);
  EXPECT_EQ(file_->Unlock(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(file_->Unlock(LockLevel::ThreadOnly), kStatusOk);
  EXPECT_TRUE(IsMutexFree(*file_));
  EXPECT_EQ(Level(), LockLevel::None);
}

TEST_F(OsFileLockTest, UnlockingThreadOnlyLeavesTheLevelOnRecord) {
  ASSERT_EQ(file_->Lock(LockLevel::ThreadOnly), kStatusOk);
  EXPECT_EQ(file_->Unlock(LockLevel::ThreadOnly), kStatusOk);
  EXPECT_EQ(Level(), LockLevel::ThreadOnly);
  EXPECT_TRUE(IsMutexFree(*file_));
  EXPECT_EQ(StatusElsewhere(LockLevel::Exclusive), kStatusOk);
}

TEST_F(OsFileLockTest, LevelNoneDoesNothing) {
  EXPECT_EQ(file_->Lock(LockLevel::None), kStatusOk);
  EXPECT_TRUE(IsMutexFree(*file_));
  EXPECT_EQ(file_->Unlock(LockLevel::None), kStatusOk);
  EXPECT_EQ(Locks(), kNothing);
}

TEST_F(OsFileLockTest, ALevelOnRecordIsNotTakenAgainButTheMutexIs) {
  ASSERT_EQ(file_->Lock(LockLevel::Shared), kStatusOk);
  // Drops the locks of the process, so that taking them again would show.
  OpenFile(path_);
  ASSERT_EQ(Locks(), kNothing);
  EXPECT_EQ(Level(), LockLevel::Shared);

  EXPECT_EQ(file_->Lock(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(file_->Lock(LockLevel::ThreadOnly), kStatusOk);
  EXPECT_EQ(Locks(), kNothing);
  EXPECT_EQ(file_->Unlock(LockLevel::ThreadOnly), kStatusOk);
  EXPECT_EQ(file_->Unlock(LockLevel::Shared), kStatusOk);
  EXPECT_FALSE(IsMutexFree(*file_));
  EXPECT_EQ(file_->Unlock(LockLevel::Shared), kStatusOk);
  EXPECT_TRUE(IsMutexFree(*file_));
}

TEST_F(OsFileLockTest, ANestedUnlockDropsTheByteLocksAtOnce) {
  ASSERT_EQ(file_->Lock(LockLevel::Exclusive), kStatusOk);
  ASSERT_EQ(file_->Lock(LockLevel::Exclusive), kStatusOk);
  ASSERT_EQ(file_->Unlock(LockLevel::Exclusive), kStatusOk);
  EXPECT_EQ(Locks(), kNothing);
  EXPECT_EQ(Level(), LockLevel::None);
  EXPECT_FALSE(IsMutexFree(*file_));
  ASSERT_EQ(file_->Unlock(LockLevel::Exclusive), kStatusOk);
  EXPECT_TRUE(IsMutexFree(*file_));
}

TEST_F(OsFileLockTest, UnlockingExclusiveWhileSharedIsOnRecordReleasesTheMutexOnly) {
  ASSERT_EQ(file_->Lock(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(file_->Unlock(LockLevel::Exclusive), kStatusOk);
  EXPECT_EQ(Locks(), kReader);
  EXPECT_EQ(Level(), LockLevel::Shared);
  EXPECT_TRUE(IsMutexFree(*file_));
}

TEST_F(OsFileLockTest, UnlockingSharedWhileExclusiveIsOnRecordLeavesTheGateByteLocked) {
  ASSERT_EQ(file_->Lock(LockLevel::Exclusive), kStatusOk);
  EXPECT_EQ(file_->Unlock(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(Locks(), kWriteLockedGate);
  EXPECT_EQ(Level(), LockLevel::None);
  EXPECT_EQ(StatusElsewhere(LockLevel::Shared), kStatusLockFailed);
  ASSERT_EQ(file_->Lock(LockLevel::Exclusive), kStatusOk);
  ASSERT_EQ(file_->Unlock(LockLevel::Exclusive), kStatusOk);
  EXPECT_EQ(StatusElsewhere(LockLevel::Shared), kStatusOk);
}

// Each step is tried four times, a thousandth of a second apart.
TEST_F(OsFileLockTest, AForeignLockOnTheGateByteOrTheRangeMakesALockFailAfterAboutThreeMilliseconds) {
  const struct {
    const char* name;
    short type;
    int64_t start;
    int64_t length;
    LockLevel level;
    const char* left;  // what stays locked by this process, until it succeeds
  } rows[] = {
      {"writer at the gate, reader comes", F_WRLCK, kGate, 1, LockLevel::Shared, kNothing},
      {"writer at the gate, writer comes", F_WRLCK, kGate, 1, LockLevel::Exclusive, kNothing},
      {"reader at the gate, writer comes", F_RDLCK, kGate, 1, LockLevel::Exclusive, kNothing},
      {"writer in the range, reader comes", F_WRLCK, kRange, kRangeLength, LockLevel::Shared,
       kReadLockedGate},
      {"writer in the range, writer comes", F_WRLCK, kRange, kRangeLength, LockLevel::Exclusive,
       kWriteLockedGate},
      {"reader in the range, writer comes", F_RDLCK, kRange, kRangeLength, LockLevel::Exclusive,
       kWriteLockedGate},
  };
  int number = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string path = directory_.PathOf("row" + std::to_string(++number));
    auto file = OpenFile(path);
    ForeignLock foreign(path, row.type, row.start, row.length);

    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(file->Lock(row.level), kStatusLockFailed);
    const auto taken = std::chrono::steady_clock::now() - begun;
    EXPECT_GE(taken, std::chrono::milliseconds(3));
    EXPECT_LT(taken, std::chrono::seconds(1));
    EXPECT_EQ(file->Inode()->level, LockLevel::None);
    EXPECT_FALSE(IsMutexFree(*file)) << "held although the lock failed";

    EXPECT_EQ(file->Unlock(row.level), kStatusOk);
    EXPECT_TRUE(IsMutexFree(*file));
    foreign.Release();
    EXPECT_EQ(LocksOnFile(path), row.left);
  }
}

TEST_F(OsFileLockTest, AReaderPassesAReaderAtTheGateAndInTheRange) {
  ForeignLock foreign(path_, F_RDLCK, kGate, 1 + kRangeLength);
  EXPECT_EQ(file_->Lock(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(file_->Unlock(LockLevel::Shared), kStatusOk);
}

TEST_F(OsFileLockTest, AFailedExclusiveLockKeepsReadersOutUntilOneSucceeds) {
  {
    ForeignLock reader(path_, F_RDLCK, kRange, kRangeLength);
    EXPECT_EQ(file_->Lock(LockLevel::Exclusive), kStatusLockFailed);
    EXPECT_EQ(file_->Unlock(LockLevel::Exclusive), kStatusOk);
    reader.Release();
  }
  EXPECT_EQ(StatusElsewhere(LockLevel::Shared), kStatusLockFailed);
  ASSERT_EQ(file_->Lock(LockLevel::Exclusive), kStatusOk);
  ASSERT_EQ(file_->Unlock(LockLevel::Exclusive), kStatusOk);
  EXPECT_EQ(StatusElsewhere(LockLevel::Shared), kStatusOk);
}

TEST_F(OsFileLockTest, AFailedExclusiveLockKeepsReadersOutUntilTheFileIsClosed) {
  ForeignLock reader(path_, F_RDLCK, kRange, kRangeLength);
  EXPECT_EQ(file_->Lock(LockLevel::Exclusive), kStatusLockFailed);
  EXPECT_EQ(file_->Unlock(LockLevel::Exclusive), kStatusOk);
  reader.Release();
  EXPECT_EQ(StatusElsewhere(LockLevel::Shared), kStatusLockFailed);
  file_.reset();
  EXPECT_EQ(StatusElsewhere(LockLevel::Shared), kStatusOk);
}

TEST_F(OsFileLockTest, AFailedSharedLockKeepsWritersOutUntilOneSucceeds) {
  ForeignLock writer(path_, F_WRLCK, kRange, kRangeLength);
  EXPECT_EQ(file_->Lock(LockLevel::Shared), kStatusLockFailed);
  EXPECT_EQ(file_->Unlock(LockLevel::Shared), kStatusOk);
  writer.Release();
  EXPECT_EQ(StatusElsewhere(LockLevel::Exclusive), kStatusLockFailed);
  EXPECT_EQ(StatusElsewhere(LockLevel::Shared), kStatusOk);
  ASSERT_EQ(file_->Lock(LockLevel::Shared), kStatusOk);
  ASSERT_EQ(file_->Unlock(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(StatusElsewhere(LockLevel::Exclusive), kStatusOk);
}

TEST_F(OsFileLockTest, ReadersOfSeveralProcessesShareAndAWriterIsAlone) {
  ASSERT_EQ(file_->Lock(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(StatusElsewhere(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(StatusElsewhere(LockLevel::Exclusive), kStatusLockFailed);
  ASSERT_EQ(file_->Unlock(LockLevel::Shared), kStatusOk);
  ASSERT_EQ(file_->Lock(LockLevel::Exclusive), kStatusOk);
  EXPECT_EQ(StatusElsewhere(LockLevel::Shared), kStatusLockFailed);
  EXPECT_EQ(StatusElsewhere(LockLevel::Exclusive), kStatusLockFailed);
  ASSERT_EQ(file_->Unlock(LockLevel::Exclusive), kStatusOk);
  EXPECT_EQ(StatusElsewhere(LockLevel::Exclusive), kStatusOk);
}

TEST_F(OsFileLockTest, ClosingAnyDescriptorOfTheFileDropsTheByteLocksAndKeepsTheLevel) {
  ASSERT_EQ(file_->Lock(LockLevel::Exclusive), kStatusOk);
  EXPECT_EQ(Locks(), kWriter);
  OpenFile(path_, kOpenReadOnly).reset();
  EXPECT_EQ(Locks(), kNothing);
  EXPECT_EQ(Level(), LockLevel::Exclusive);
  EXPECT_EQ(StatusElsewhere(LockLevel::Exclusive), kStatusOk);
  EXPECT_EQ(file_->Unlock(LockLevel::Exclusive), kStatusOk);
}

TEST_F(OsFileLockTest, FlagsOfExactlyEightNeverLock) {
  auto silent = OpenFile(path_, kOpenNoLock);
  EXPECT_EQ(silent->Lock(LockLevel::Exclusive), kStatusOk);
  EXPECT_TRUE(IsMutexFree(*silent));
  EXPECT_EQ(Locks(), kNothing);
  EXPECT_EQ(Level(), LockLevel::None);
  EXPECT_EQ(silent->Unlock(LockLevel::Exclusive), kStatusOk);

  auto withMore = OpenFile(path_, kOpenNoLock | kOpenReadWrite);
  EXPECT_EQ(withMore->Lock(LockLevel::Exclusive), kStatusOk);
  EXPECT_EQ(Locks(), kWriter);
  EXPECT_EQ(withMore->Unlock(LockLevel::Exclusive), kStatusOk);
}

TEST_F(OsFileLockTest, LocalLocksTakeTheMutexAndNothingElse) {
  auto local = OpenFile(path_, kOpenReadWrite | kOpenLocalLockOnly);
  for (const LockLevel level : {LockLevel::ThreadOnly, LockLevel::Shared, LockLevel::Exclusive}) {
    EXPECT_EQ(local->Lock(level), kStatusOk);
    EXPECT_FALSE(IsMutexFree(*local));
    EXPECT_EQ(Locks(), kNothing);
    EXPECT_EQ(Level(), LockLevel::None);
    EXPECT_EQ(local->Unlock(level), kStatusOk);
    EXPECT_TRUE(IsMutexFree(*local));
  }
  ASSERT_EQ(file_->Lock(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(local->Lock(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(local->Unlock(LockLevel::Shared), kStatusOk);
  EXPECT_EQ(Level(), LockLevel::Shared) << "a local handle leaves the level of the others alone";
  EXPECT_EQ(Locks(), kReader);
  EXPECT_EQ(file_->Unlock(LockLevel::Shared), kStatusOk);
}

TEST_F(OsFileLockTest, ALockThatCantBeReleasedKeepsItsLevelButNotTheMutex) {
  ASSERT_EQ(file_->Lock(LockLevel::Shared), kStatusOk);
  for (const int descriptor : DescriptorsOf(path_)) close(descriptor);
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(file_->Unlock(LockLevel::Shared), kStatusLockFailed);
  EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(3));
  EXPECT_EQ(Level(), LockLevel::Shared);
  EXPECT_TRUE(IsMutexFree(*file_));
}

TEST_F(OsFileLockTest, ASingleByteIsLockedForWritingBesideTheLevels) {
  constexpr int64_t kByte = 0x40000200;
  ASSERT_TRUE(file_->LockByte(kByte));
  EXPECT_EQ(Locks(), "write 40000200+1");
  EXPECT_TRUE(IsMutexFree(*file_));
  ChildProcess child([&](ChildLink&) { return OpenFile(path_)->LockByte(kByte) ? 1 : 0; });
  EXPECT_EQ(child.Wait(), 0);
  file_->UnlockByte(kByte);
  EXPECT_EQ(Locks(), kNothing);
}

TEST_F(OsFileLockTest, AGuardUnlocksAlsoWhatItFailedToLock) {
  ForeignLock foreign(path_, F_WRLCK, kRange, kRangeLength);
  {
    const FileLockGuard guard(file_, LockLevel::Shared);
    EXPECT_EQ(guard.Status(), kStatusLockFailed);
    EXPECT_FALSE(IsMutexFree(*file_));
  }
  EXPECT_TRUE(IsMutexFree(*file_));
  foreign.Release();
  {
    const FileLockGuard guard(file_, LockLevel::Exclusive);
    EXPECT_EQ(guard.Status(), kStatusOk);
    EXPECT_EQ(Locks(), kWriter);
  }
  EXPECT_EQ(Locks(), kNothing);
}

// POSIX gives the child of a fork none of its parent's locks, so it must not believe that it holds one.
TEST_F(OsFileLockTest, AForkedChildStartsWithoutALevel) {
  ASSERT_EQ(file_->Lock(LockLevel::Exclusive), kStatusOk);
  ChildProcess child([&](ChildLink& parent) {
    if (file_->Inode()->level != LockLevel::None) return 1;
    if (file_->Lock(LockLevel::Shared) != kStatusLockFailed) return 2;
    if (file_->Unlock(LockLevel::Shared) != kStatusOk) return 3;
    parent.Signal();
    parent.Await();
    if (file_->Lock(LockLevel::Exclusive) != kStatusOk) return 4;
    parent.Signal();
    parent.Await();
    return file_->Unlock(LockLevel::Exclusive) == kStatusOk ? 0 : 5;
  });
  ASSERT_TRUE(child.Await());
  EXPECT_EQ(Level(), LockLevel::Exclusive) << "the parent keeps what it has";
  EXPECT_EQ(file_->Unlock(LockLevel::Exclusive), kStatusOk);
  child.Signal();
  ASSERT_TRUE(child.Await());
  EXPECT_EQ(LocksOfOthers(path_), kWriter);
  child.Signal();
  EXPECT_EQ(child.Wait(), 0);
}

// The thread that holds the mutex does not exist in the child.
TEST_F(OsFileLockTest, AForkedChildCanLockWhatAnotherThreadOfItsParentHeld) {
  std::mutex mutex;
  std::condition_variable changed;
  bool held = false;
  bool done = false;
  std::thread holder([&] {
    const FileLockGuard guard(file_, LockLevel::ThreadOnly);
    std::unique_lock<std::mutex> lock(mutex);
    held = true;
    changed.notify_all();
    changed.wait(lock, [&] { return done; });
  });
  {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return held; });
  }
  ChildProcess child([&](ChildLink&) {
    if (file_->Lock(LockLevel::Exclusive) != kStatusOk) return 1;
    return file_->Unlock(LockLevel::Exclusive) == kStatusOk ? 0 : 2;
  });
  EXPECT_EQ(child.Wait(), 0);
  {
    const std::lock_guard<std::mutex> lock(mutex);
    done = true;
    changed.notify_all();
  }
  holder.join();
}

// Any close drops the locks of the whole process, so a descriptor waits for the thread that holds them.
TEST_F(OsFileLockTest, WhatAnotherThreadClosesIsClosedWhenTheLastLevelIsGivenUp) {
  const size_t before = DescriptorsOf(path_).size();
  auto other = OpenFile(path_);
  ASSERT_EQ(file_->Lock(LockLevel::ThreadOnly), kStatusOk);
  ASSERT_EQ(file_->Lock(LockLevel::Exclusive), kStatusOk);
  std::thread([&] {
    other.reset();
    OpenFile(path_, kOpenReadOnly);
  }).join();
  EXPECT_EQ(DescriptorsOf(path_).size(), before + 2);
  EXPECT_EQ(Locks(), kWriter);
  ASSERT_EQ(file_->Unlock(LockLevel::Exclusive), kStatusOk);
  EXPECT_EQ(DescriptorsOf(path_).size(), before + 2);
  ASSERT_EQ(file_->Unlock(LockLevel::ThreadOnly), kStatusOk);
  EXPECT_EQ(DescriptorsOf(path_).size(), before);
}

TEST_F(OsFileLockTest, TryingToLockDoesNotWaitForAnotherThread) {
  uint32_t status = kStatusOk;
  {
    const FileLockGuard guard(file_, LockLevel::ThreadOnly);
    std::thread([&] {
      EXPECT_FALSE(file_->TryLock(LockLevel::Shared, &status));
      EXPECT_EQ(status, kStatusLockFailed);
    }).join();
    EXPECT_TRUE(file_->TryLock(LockLevel::Shared, &status)) << "the thread that is inside may nest";
    EXPECT_EQ(status, kStatusOk);
    EXPECT_EQ(Locks(), kReader);
    EXPECT_EQ(file_->Unlock(LockLevel::Shared), kStatusOk);
  }
  ForeignLock foreign(path_, F_WRLCK, kRange, kRangeLength);
  EXPECT_TRUE(file_->TryLock(LockLevel::Shared, &status)) << "the mutex was free";
  EXPECT_EQ(status, kStatusLockFailed);
  EXPECT_FALSE(IsMutexFree(*file_));
  EXPECT_EQ(file_->Unlock(LockLevel::Shared), kStatusOk);
}

// Threads that open and close the file all the time never take a lock from the one that holds it, and leave
// no descriptor behind, however closing and unlocking meet.
TEST_F(OsFileLockTest, NoCloseDropsTheLocksOfAnotherThreadAndNoDescriptorIsForgotten) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 300;
  // Locks of open file descriptions conflict with those of the process that has them open.
  const int probe = open(path_.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(probe, 0);
  const size_t before = DescriptorsOf(path_).size();
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        OpenFile(path_).reset();
        const FileLockGuard guard(file_, LockLevel::Exclusive);
        EXPECT_EQ(guard.Status(), kStatusOk);
        for (int look = 0; look < 3; ++look) {
          struct flock lock = {};
          lock.l_type = F_RDLCK;
          lock.l_whence = SEEK_SET;
          lock.l_start = kGate;
          lock.l_len = 1 + kRangeLength;
          ASSERT_EQ(fcntl(probe, F_OFD_GETLK, &lock), 0);
          ASSERT_EQ(lock.l_type, F_WRLCK) << "round " << round;
          std::this_thread::yield();
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(DescriptorsOf(path_).size(), before);
  close(probe);
}

// The thread that forks stays inside. What was to be closed is closed: the child has no locks to lose.
TEST_F(OsFileLockTest, AForkInsideASectionKeepsTheThreadInsideAndClosesWhatWasDeferred) {
  const size_t before = DescriptorsOf(path_).size();
  const FileLockGuard outer(file_, LockLevel::ThreadOnly);
  const FileLockGuard guard(file_, LockLevel::Exclusive);
  std::thread([&] { OpenFile(path_); }).join();
  ASSERT_EQ(DescriptorsOf(path_).size(), before + 1);
  ChildProcess child([&](ChildLink&) {
    if (DescriptorsOf(path_).size() != before) return 1;
    if (IsMutexFree(*file_)) return 2;
    if (file_->Unlock(LockLevel::Exclusive) != kStatusOk || IsMutexFree(*file_)) return 3;
    if (file_->Unlock(LockLevel::ThreadOnly) != kStatusOk || !IsMutexFree(*file_)) return 4;
    std::thread([&] { OpenFile(path_); }).join();
    return DescriptorsOf(path_).size() == before ? 0 : 5;
  });
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(DescriptorsOf(path_).size(), before + 1);
}

TEST_F(OsFileLockTest, ThreadsOfOneProcessRunOneAfterTheOtherAtEveryLevel) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 200;
  auto other = OpenFile(path_);
  int counter = 0;  // guarded by nothing but the file
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      const LockLevel levels[] = {LockLevel::ThreadOnly, LockLevel::Shared, LockLevel::Exclusive};
      for (int round = 0; round < kRounds; ++round) {
        const FileLockGuard guard(number % 2 == 0 ? file_ : other, levels[(number + round) % 3]);
        EXPECT_EQ(guard.Status(), kStatusOk);
        ++counter;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(counter, kThreads * kRounds);
}

TEST_F(OsFileLockTest, WritersOfSeveralProcessesRunOneAfterTheOther) {
  constexpr int kProcesses = 3;
  constexpr int kRounds = 100;
  ASSERT_EQ(file_->Truncate(4), 0);
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int number = 0; number < kProcesses; ++number) {
    children.push_back(std::make_unique<ChildProcess>([&](ChildLink& parent) {
      auto file = OpenFile(path_);
      parent.Await();
      for (int round = 0; round < kRounds;) {
        const FileLockGuard guard(file, LockLevel::Exclusive);
        if (guard.Status() != kStatusOk) continue;
        int counter = 0;
        if (file->PRead(&counter, sizeof(counter), 0) != sizeof(counter)) return 1;
        ++counter;
        if (file->PWrite(&counter, sizeof(counter), 0) != sizeof(counter)) return 2;
        ++round;
      }
      return 0;
    }));
  }
  for (auto& child : children) child->Signal();
  for (auto& child : children) EXPECT_EQ(child->Wait(), 0);
  int counter = 0;
  ASSERT_EQ(file_->PRead(&counter, sizeof(counter), 0), static_cast<ssize_t>(sizeof(counter)));
  EXPECT_EQ(counter, kProcesses * kRounds);
}

}  // namespace
}  // namespace Kestrun
