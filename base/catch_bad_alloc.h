// base/catch_bad_alloc.h: keeps the store's own allocation failures from crossing the public API.
#pragma once

#include <cstdint>
#include <new>

#include "kestrun/status.h"

namespace Kestrun {

// Runs `body` and returns its status; kStatusNoMemory when memory runs out. What a caller's own callback
// throws besides passes through.
template <typename Body>
uint32_t CatchBadAlloc(Body body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return kStatusNoMemory;
  }
}

}  // namespace Kestrun
