#include "base/page_size.h"

#include <unistd.h>

namespace Kestrun {

uint64_t PageSize() {
  const long size = sysconf(_SC_PAGESIZE);
  return size > 0 ? static_cast<uint64_t>(size) : 4096;
}

}  // namespace Kestrun
