// The POSIX byte-range locks that lie on a file, as another process sees them.
#pragma once

#include <memory>
#include <string>

#include "tests/support/child_process.h"

namespace Kestrun::Testing {

// The locks of all other processes in the order of their bytes, such as "read 40000001+1ff", several of them
// separated by ", ". Looking opens and closes the file, which drops the locks that this process has on it.
std::string LocksOfOthers(const std::string& path);
// The locks of this process, looked at by a forked one, and those of others.
std::string LocksOnFile(const std::string& path);

// Another process that holds one lock, F_RDLCK or F_WRLCK, on a file until it is released. The test fails
// when it can't be had.
class ForeignLock {
 public:
  ForeignLock(const std::string& path, short type, int64_t start, int64_t length);
  // Ends the other process.
  void Release();

 private:
  std::unique_ptr<ChildProcess> holder_;
};

}  // namespace Kestrun::Testing
