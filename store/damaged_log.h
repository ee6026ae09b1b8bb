// store/damaged_log.h: keeps what a log holds after a record that is not sound.
#pragma once

#include <cstdint>

#include "engine/core.h"

namespace Kestrun {

// Copies the bytes of the log from `begin` up to `end`, which its replay can't reach, to a new
// file of the store's directory, "wal_v5.damaged-" and a number, and syncs it; says where. Bytes
// that are all zero, as a loss of power leaves them, hold nothing and are not copied. The log's
// lock is held. kStatusCreateFailed, kStatusSyncFailed.
uint32_t SaveUnreachable(const Core& core, uint32_t begin, uint32_t end);

}  // namespace Kestrun
