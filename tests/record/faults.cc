#include "tests/record/faults.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "tests/support/interposed_calls.h"

namespace Kestrun::Testing {
namespace {

// Whether the call that is being made is the one to fail.
bool IsDue(int& countdown) {
  if (countdown == 0 || --countdown != 0) return false;
  errno = CurrentFaults().error;
  return true;
}

std::string Describe(const struct flock& lock) {
  const char* type = lock.l_type == F_RDLCK ? "read" : lock.l_type == F_WRLCK ? "write" : "unlock";
  char text[64];
  std::snprintf(text, sizeof(text), "%s %lx+%lx", type, static_cast<long>(lock.l_start),
                static_cast<long>(lock.l_len));
  return text;
}

class FaultsObserver : public CallObserver {
 public:
  bool Before(Call& call) override {
    Faults& faults = CurrentFaults();
    switch (call.function) {
      case Function::Read:
        if (faults.bytesPerRead != 0) call.count = std::min(call.count, faults.bytesPerRead);
        return !IsDue(faults.failRead);
      case Function::LSeek:
        return !IsDue(faults.failSeek);
      case Function::FSync:
        faults.syncs.push_back(FileNameOf(call.descriptor));
        return !IsDue(faults.failSync);
      case Function::FCntl:
        return call.flags != F_SETLK || MayLock(*static_cast<const struct flock*>(call.argument));
      case Function::Calloc:
        ++faults.callocs;
        return !IsDue(faults.failCalloc);
      case Function::New:
        return !IsDue(faults.failNew);
      default:
        return true;
    }
  }

 private:
  static bool MayLock(const struct flock& lock) {
    Faults& faults = CurrentFaults();
    faults.locks.push_back(Describe(lock));
    if (!faults.onLock || faults.onLock(lock)) return true;
    errno = EAGAIN;
    return false;
  }
};

FaultsObserver observer;

}  // namespace

Faults& CurrentFaults() {
  static Faults faults;
  return faults;
}

void ResetFaults() {
  CurrentFaults() = Faults();
  SetCallObserver(&observer);
}

}  // namespace Kestrun::Testing
