#include "tests/fault/fault_injection.h"

#include <unistd.h>

#include <cerrno>

#include "tests/support/interposed_calls.h"

namespace Kestrun::Testing {
namespace {

FaultPlan plan;
long calls[kFaults] = {};
long hits = 0;

enum class Verdict { Pass, Half, Fail };

Verdict Judge(Fault fault) {
  const long number = ++calls[static_cast<size_t>(fault)];
  if (fault != plan.fault || number < plan.first || number > plan.last) return Verdict::Pass;
  ++hits;
  if (plan.ends) _exit(kEndedByPlan);
  if (plan.halves && (number == plan.first || !plan.failsAfter)) return Verdict::Half;
  errno = plan.error;
  return Verdict::Fail;
}

bool Passes(Fault fault) {
  return Judge(fault) != Verdict::Fail;
}

bool PassesTransfer(Fault fault, size_t* count) {
  const Verdict verdict = Judge(fault);
  if (verdict == Verdict::Half && *count >= 2) *count /= 2;
  return verdict != Verdict::Fail;
}

class FaultObserver : public CallObserver {
 public:
  bool Before(Call& call) override {
    switch (call.function) {
      case Function::Open:
        return Passes(Fault::Open);
      case Function::Read:
        return PassesTransfer(Fault::Read, &call.count);
      case Function::PRead:
        return PassesTransfer(Fault::PRead, &call.count);
      case Function::Write:
      case Function::PWrite:
        return PassesTransfer(Fault::PWrite, &call.count);
      case Function::FSync:
        return Passes(Fault::Sync);
      case Function::MMap:
        return Passes(Fault::Map);
      case Function::FTruncate:
        return Passes(Fault::Truncate);
      case Function::FAllocate:
      case Function::PosixFAllocate:
        return Passes(Fault::Reserve);
      case Function::FCntl:
        return Passes(Fault::Lock);
      case Function::MkDir:
        return Passes(Fault::MakeDir);
      case Function::OpenDir:
        if (!Passes(Fault::OpenDir)) return false;
        // For a directory that is there, the C library allocates by itself.
        return access(call.path, F_OK) != 0 || Passes(Fault::Allocate);
      case Function::LinkAt:
        if (plan.noLinks) errno = EXDEV;
        return !plan.noLinks && Passes(Fault::Link);
      case Function::Unlink:
      case Function::Remove:
      case Function::RmDir:
        return Passes(Fault::Unlink);
      case Function::Rename:
      case Function::RenameAt2:
        return Passes(Fault::Rename);
      case Function::Access:
        return Passes(Fault::Access);
      case Function::FStat:
      case Function::Stat:
      case Function::LStat:
        return Passes(Fault::Stat);
      case Function::LSeek:
        return Passes(Fault::Seek);
      case Function::MSync:
        return Passes(Fault::SyncMap);
      case Function::FLock:
        return Passes(Fault::LockWhole);
      case Function::CopyFileRange:
        return PassesTransfer(Fault::CopyRange, &call.count);
      case Function::ChMod:
      case Function::FChMod:
        return Passes(Fault::Mode);
      case Function::New:
      case Function::Malloc:
      case Function::Calloc:
      case Function::Realloc:
      case Function::AlignedAlloc:
      case Function::PosixMemAlign:
        return Passes(Fault::Allocate);
      case Function::USleep:
        // What fails for good is tried several times; nobody has to wait for it. Shorter pauses are those of
        // a wait that ends by the clock.
        if (call.count >= 1000) call.count = 0;
        return true;
      case Function::Close:
      case Function::FDataSync:
      case Function::MUnmap:
        return true;
    }
    return true;
  }
};

FaultObserver observer;

}  // namespace

const char* FaultName(Fault fault) {
  static const char* const names[] = {
      "open",  "read",  "pread",   "write",           "fsync",  "mmap",   "ftruncate", "fallocate",
      "fcntl", "mkdir", "opendir", "linkat",          "unlink", "access", "fstat",     "lseek",
      "msync", "flock", "rename",  "copy_file_range", "chmod",  "malloc"};
  static_assert(sizeof(names) / sizeof(names[0]) == kFaults);
  return names[static_cast<size_t>(fault)];
}

void SetFaultPlan(const FaultPlan& newPlan) {
  plan = newPlan;
  hits = 0;
  for (long& count : calls) count = 0;
}

void ArmFaults(bool armed) {
  SetCallObserver(armed ? &observer : nullptr);
}

long FaultCalls(Fault fault) {
  return calls[static_cast<size_t>(fault)];
}

long FaultHits() {
  return hits;
}

}  // namespace Kestrun::Testing
