// All files of a store at once. Input: a byte of flags; the log, the manifest and the side file as chunks;
// two blocks of four chunks each; operations.
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_operations.h"
#include "tests/fuzz/fuzz_store_files.h"

using namespace Kestrun::Fuzzing;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static StoreFiles& files = *new StoreFiles;
  Input input(data, size);
  const uint8_t flags = input.Byte();
  std::string log = input.Chunk();
  std::string manifest = input.Chunk();
  std::string side = input.Chunk();
  if ((flags & 1) == 0) log.resize(kFuzzWalSize);
  if ((flags & 2) == 0) log = SealedLog(log);
  if ((flags & 4) == 0) manifest = SealedManifest(manifest);
  if ((flags & 8) == 0) side = SealedSideFile(side);

  files.StartOver();
  files.PutBlock(kFirstBlock, BlockFromChunks(input, (flags & 16) == 0));
  files.PutBlock(kSecondBlock, BlockFromChunks(input, (flags & 32) == 0));
  files.PutLog(log);
  files.PutManifest(manifest);
  files.PutSideFile(side);
  RunOperations(files.Path(), input);
  return 0;
}
