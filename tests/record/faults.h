// Failures of the system and of the allocator, at the moment that a test chooses. The calls are those of
// tests/support/interposed_calls.h.
#pragma once

#include <fcntl.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace Kestrun::Testing {

struct Faults {
  // Each counts calls: 1 fails the next one, 0 none.
  int failRead = 0;
  int failSeek = 0;
  int failSync = 0;
  int failCalloc = 0;
  int failNew = 0;
  int error = 0;            // what errno becomes
  size_t bytesPerRead = 0;  // so many bytes are read at once; 0 for no limit

  int callocs = 0;                 // calls so far
  std::vector<std::string> locks;  // "write 40000200+1" for each F_SETLK, failed ones included
  std::vector<std::string> syncs;  // the last part of the path of each fsync

  // Called before a lock is set; false makes it fail.
  std::function<bool(const struct flock&)> onLock;
};

// The faults that are in force; a new set of them is made for every test.
Faults& CurrentFaults();

// No faults, and nothing recorded. From the first time on,
// the faults are the observer of the program's calls.
void ResetFaults();

}  // namespace Kestrun::Testing
