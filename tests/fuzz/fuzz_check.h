// What fuzz targets share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// One input. Returns 0.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace Kestrun::Testing {

// Ends the program when what must hold does not: the fuzzer then keeps the input.
inline void FuzzCheck(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

}  // namespace Kestrun::Testing
