// The calls that this program makes of the C library, brought before an observer.
//
// A program that links kestrun_interposed_calls has its calls of every Function arrive here first: those of
// the tests, of the library's code in it and of whatever else is linked statically. Calls inside a shared C
// library do not come by, and of those of a shared C++ library `new` alone.
//
// Threads: calls may come from any thread, and reach the observer on the thread that makes them. The observer
//          is set while no other thread makes calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Kestrun::Testing {

enum class Function {
  Open,
  Close,
  Read,
  PRead,
  Write,
  PWrite,
  FSync,
  FDataSync,
  MMap,
  MUnmap,
  MSync,
  FTruncate,
  FAllocate,
  PosixFAllocate,
  FCntl,
  MkDir,
  OpenDir,
  LinkAt,
  Unlink,
  Remove,
  RmDir,
  Rename,
  RenameAt2,  // through syscall: not every C library has a function for it
  Access,
  FStat,
  Stat,
  LStat,
  LSeek,
  FLock,
  CopyFileRange,
  ChMod,
  FChMod,
  USleep,
  New,  // without an alignment; with one it is AlignedAlloc, where the C++ library is linked statically
  Malloc,
  Calloc,
  Realloc,
  AlignedAlloc,
  PosixMemAlign,
};

// The arguments of a call, as far as anybody asks for them. What a function does not have is as it is here.
struct Call {
  Function function;
  int descriptor = -1;  // of copy_file_range the one that is read
  const char* path = nullptr;
  const char* newPath = nullptr;
  const void* bytes = nullptr;  // what write and pwrite write
  size_t count = 0;             // bytes to transfer, map, sync, reserve or allocate; microseconds of usleep
  int64_t offset = 0;           // also the length of ftruncate
  int flags = 0;                // also the command of fcntl, the protection and flags of mmap joined by |
  void* argument = nullptr;     // of fcntl; the address of mmap, munmap and msync
};

// The calls that an observer makes itself do not reach it.
class CallObserver {
 public:
  virtual ~CallObserver() = default;

  // Before the call is made. False: it is not made and fails, with the errno that the observer has set.
  // Transfers and pauses may be made smaller through `count`; changes of other members are without effect.
  virtual bool Before(Call& call) {
    (void)call;
    return true;
  }

  // After a call that was made, with what it returned: an address as a number. The errno that the call has
  // set stays, whatever happens here.
  virtual void After(const Call& call, int64_t result) {
    (void)call;
    (void)result;
  }
};

// One at a time; null: calls pass through. The observer stays the caller's.
void SetCallObserver(CallObserver* observer);

// The last part of the path of an open file or directory.
std::string FileNameOf(int descriptor);

}  // namespace Kestrun::Testing
