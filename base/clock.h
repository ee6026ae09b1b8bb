// base/clock.h: the wall clock by which entries live and expire. Safe from any thread.
#pragma once

#include <cstdint>

namespace Kestrun {

// Seconds since the Unix epoch.
uint64_t NowSeconds();
// Whole seconds times 1000: the part below a second is dropped.
uint64_t NowMilliseconds();
uint64_t NowMicroseconds();

// Whether an entry written at `timestamp` for `ttl` seconds is alive at `now` (all in seconds).
inline bool IsAlive(uint64_t timestamp, uint32_t ttl, uint64_t now) {
  return timestamp + ttl >= now;
}

}  // namespace Kestrun
