// base/page_size.h: the page size of the machine that runs the code, never of the one that built it.
#pragma once

#include <cstdint>

namespace Kestrun {

// Bytes; 4096 where the system does not tell.
uint64_t PageSize();

}  // namespace Kestrun
