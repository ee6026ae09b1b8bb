// Operations on a store whose files may say anything.
#pragma once

#include <string>

#include "kestrun/lsdb.h"
#include "tests/fuzz/fuzz_support.h"

namespace Kestrun::Fuzzing {

inline constexpr uint32_t kFuzzWalSize = 1024;

// Opens the store and does what the rest of the input says. Whatever the files held, a value that was
// inserted with success must be found by the next Get.
void RunOperations(const std::string& path, Input& input);

}  // namespace Kestrun::Fuzzing
