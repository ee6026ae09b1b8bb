#include "tests/support/byte_locks.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

namespace Kestrun::Testing {
namespace {

struct flock LockOf(short type, int64_t start, int64_t length) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = start;
  lock.l_len = length;
  return lock;
}

// The lock with the lowest bytes from `start` on. The system tells of any one of several.
bool FindFirstLock(int descriptor, int64_t start, struct flock* first) {
  bool found = false;
  for (int64_t length = 0;;) {  // at first up to the end of what can be locked
    struct flock lock = LockOf(F_WRLCK, start, length);
    const bool looked = fcntl(descriptor, F_GETLK, &lock) == 0;
    EXPECT_TRUE(looked);
    if (!looked || lock.l_type == F_UNLCK) return found;
    *first = lock;
    found = true;
    length = lock.l_start - start;
    if (length <= 0) return true;
  }
}

}  // namespace

std::string LocksOfOthers(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (descriptor < 0) return "can't open the file";
  std::string text;
  struct flock lock = {};
  for (int64_t start = 0; FindFirstLock(descriptor, start, &lock); start = lock.l_start + lock.l_len) {
    char one[64];
    std::snprintf(one, sizeof(one), "%s%s %llx+%llx", text.empty() ? "" : ", ",
                  lock.l_type == F_RDLCK ? "read" : "write", static_cast<unsigned long long>(lock.l_start),
                  static_cast<unsigned long long>(lock.l_len));
    text += one;
  }
  close(descriptor);
  return text;
}

std::string LocksOnFile(const std::string& path) {
  ChildProcess child([&](ChildLink& parent) { return parent.Send(LocksOfOthers(path)) ? 0 : 1; });
  std::string text;
  EXPECT_TRUE(child.Receive(&text));
  EXPECT_EQ(child.Wait(), 0);
  return text;
}

ForeignLock::ForeignLock(const std::string& path, short type, int64_t start, int64_t length)
    : holder_(std::make_unique<ChildProcess>([=](ChildLink& parent) {
        const int descriptor = open(path.c_str(), O_RDWR | O_CLOEXEC);
        const struct flock lock = LockOf(type, start, length);
        if (descriptor < 0 || fcntl(descriptor, F_SETLK, &lock) != 0) return 1;
        parent.Signal();
        parent.Await();
        return 0;
      })) {
  EXPECT_TRUE(holder_->Await()) << "the lock could not be had";
}

void ForeignLock::Release() {
  holder_->Signal();
  EXPECT_EQ(holder_->Wait(), 0);
}

}  // namespace Kestrun::Testing
