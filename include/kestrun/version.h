// kestrun/version.h: the version of these headers, and of the library that is loaded.
#pragma once

#include "kestrun/export.h"

#define KESTRUN_VERSION_MAJOR 2
#define KESTRUN_VERSION_MINOR 0
#define KESTRUN_VERSION_PATCH 0

namespace Kestrun {

// The version of the loaded library, as "MAJOR.MINOR.PATCH". The text lives until the process ends.
KESTRUN_EXPORT const char* Version();

}  // namespace Kestrun
