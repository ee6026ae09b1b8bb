// A manifest and its side file of any content, over two sound blocks. Input: a byte of flags, the manifest
// and the side file as chunks, operations.
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_operations.h"
#include "tests/fuzz/fuzz_store_files.h"
#include "tests/support/block_image.h"

using namespace Kestrun::Fuzzing;
using Kestrun::Testing::BlockImage;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static StoreFiles& files = *new StoreFiles;
  static const std::string first = BlockImage({{"a", "one"}, {"b-1", "two"}}).Bytes();
  static const std::string second = BlockImage({{"a", "three"}, {"zz", "", true}}).Bytes();
  Input input(data, size);
  const uint8_t flags = input.Byte();
  std::string manifest = input.Chunk();
  std::string side = input.Chunk();
  if ((flags & 1) == 0) manifest = SealedManifest(manifest);
  if ((flags & 2) == 0) side = SealedSideFile(side);

  files.StartOver();
  files.PutBlock(kFirstBlock, first);
  files.PutBlock(kSecondBlock, second);
  files.PutManifest(manifest);
  files.PutSideFile(side);
  RunOperations(files.Path(), input);
  return 0;
}
