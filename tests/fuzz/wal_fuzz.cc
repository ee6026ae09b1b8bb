// A log of any content. Input: a byte of flags, the log as a chunk, operations.
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_operations.h"
#include "tests/fuzz/fuzz_store_files.h"

using namespace Kestrun::Fuzzing;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static StoreFiles& files = *new StoreFiles;
  Input input(data, size);
  const uint8_t flags = input.Byte();
  std::string log = input.Chunk();
  if ((flags & 1) != 0) log.resize(kFuzzWalSize);
  if ((flags & 2) == 0) log = SealedLog(log);

  files.StartOver();
  files.PutLog(log);
  RunOperations(files.Path(), input);
  return 0;
}
