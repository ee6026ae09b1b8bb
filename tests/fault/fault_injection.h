// System calls and allocations that fail when a test wants them to.
//
// The calls are those of tests/support/interposed_calls.h. They are counted and made to fail only while a
// plan is armed, as the one observer of calls; everything else passes through. stdio's own calls and those
// inside the C library do not come by.
//
// Threads: one thread while a plan is armed.
#pragma once

#include <climits>
#include <cstddef>

namespace Kestrun::Testing {

enum class Fault {
  Open,       // open
  Read,       // read
  PRead,      // pread
  PWrite,     // write and pwrite
  Sync,       // fsync
  Map,        // mmap
  Truncate,   // ftruncate
  Reserve,    // fallocate, posix_fallocate
  Lock,       // fcntl
  MakeDir,    // mkdir
  OpenDir,    // opendir
  Link,       // linkat
  Unlink,     // unlink, remove, rmdir
  Access,     // access
  Stat,       // fstat, stat, lstat
  Seek,       // lseek
  SyncMap,    // msync
  LockWhole,  // flock
  Rename,     // rename, and renameat2 through syscall
  CopyRange,  // copy_file_range
  Mode,       // chmod, fchmod
  Allocate,   // malloc and its kin, operator new, and what opendir allocates
};
inline constexpr size_t kFaults = 22;

const char* FaultName(Fault fault);

struct FaultPlan {
  Fault fault = Fault::Open;
  long first = LONG_MAX;  // the number of the first call that fails, counted from 1
  long last = LONG_MAX;
  // Reads and writes: only half of the bytes are moved, and nothing fails. Other calls pass through.
  bool halves = false;
  // Where halves is set: the calls after the first one do fail.
  bool failsAfter = false;
  // No call of linkat succeeds besides, so that files are copied. Those count neither as calls nor as hits.
  bool noLinks = false;
  // The process ends there, as if it were killed, with this exit status.
  bool ends = false;
  int error = 0;
};
inline constexpr int kEndedByPlan = 99;

// Replaces the plan and counts anew. Nothing is counted before Arm(true).
void SetFaultPlan(const FaultPlan& plan);
void ArmFaults(bool armed);
// Calls that were made while armed, and how many of them did not do all that they were to do.
long FaultCalls(Fault fault);
long FaultHits();

}  // namespace Kestrun::Testing
