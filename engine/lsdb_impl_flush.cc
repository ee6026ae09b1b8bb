// How the log's entries become a block.
#include "base/catch_bad_alloc.h"
#include "engine/core.h"
#include "kestrun/lsdb.h"

namespace Kestrun {

uint32_t LSDBImpl::ResetWal() {
  if (!IsOpen()) return kStatusWalOpenFailed;
  return CatchBadAlloc([&]() -> uint32_t {
    const Core core = MakeCore();
    const LogSection section(core, LockLevel::Exclusive);
    return section.Status() != kStatusOk ? section.Status() : core.FlushLocked();
  });
}

}  // namespace Kestrun
