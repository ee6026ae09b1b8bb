// The owner of memory that comes from malloc.
#pragma once

#include <cstdlib>

namespace Kestrun {

struct FreeMemory {
  void operator()(void* memory) const { std::free(memory); }
};

}  // namespace Kestrun
