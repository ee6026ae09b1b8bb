#include "kestrun/version.h"

#define KESTRUN_QUOTE(text) #text
#define KESTRUN_JOIN(major, minor, patch) \
  KESTRUN_QUOTE(major) "." KESTRUN_QUOTE(minor) "." KESTRUN_QUOTE(patch)

namespace Kestrun {

const char* Version() {
  return KESTRUN_JOIN(KESTRUN_VERSION_MAJOR, KESTRUN_VERSION_MINOR, KESTRUN_VERSION_PATCH);
}

}  // namespace Kestrun
