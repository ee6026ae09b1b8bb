// A block file of any content: loaded, searched, read and merged. Input: a byte of flags and the block's four
// chunks.
#include <cstdlib>
#include <memory>
#include <vector>

#include "block/block.h"
#include "kestrun/status.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/support/block_image.h"

using namespace Kestrun;
using namespace Kestrun::Fuzzing;
using Testing::BlockImage;

namespace {

std::vector<Key> ReadAll(const Block& block) {
  std::vector<Key> keys;
  block.ForEachInRange(Key(""), Key("\xFF\xFF\xFF"), [&keys](const Key& key) {
    keys.push_back(key);
    return false;
  });
  for (const Key& key : keys) {
    DataEntry entry = {};
    if (block.Lookup(key, &entry) != kStatusOk) continue;  // the keys need not be in order
    void* value = nullptr;
    block.ReadValue(entry, &value);
    std::free(value);
  }
  return keys;
}

void Merge(const std::vector<std::string>& sources, const std::string& path) {
  Block* merged = nullptr;
  if (Block::WriteFromBlocks(path, sources, &merged) != kStatusOk) return;
  const std::unique_ptr<Block> written(merged);
  Block* loaded = nullptr;
  Testing::FuzzCheck(Block::Load(path, &loaded) == kStatusOk, "loading a merged block");
  const std::unique_ptr<Block> read(loaded);
  const std::vector<Key> keys = ReadAll(*read);
  Testing::FuzzCheck(keys.size() == written->Count() && keys.size() == read->Count(),
                     "all keys of a merged block");
  for (size_t i = 1; i < keys.size(); ++i)
    Testing::FuzzCheck(keys[i - 1] < keys[i], "the order of a merged block");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Directory& directory = *new Directory;
  static const std::string sound = BlockImage({{"a", "one"}, {"b-1", "two"}, {"zz", "", true}}).Bytes();
  Input input(data, size);
  const uint8_t flags = input.Byte();
  directory.Put("forged", BlockFromChunks(input, (flags & 1) == 0));
  directory.Put("sound", sound);
  directory.Put("merged", std::string());

  const std::string forged = directory.PathOf("forged");
  Block* loaded = nullptr;
  const uint32_t status = Block::Load(forged, &loaded);
  Testing::FuzzCheck(Block::Verify(forged) == status, "verifying and loading agree");
  if (status == kStatusOk) {
    const std::unique_ptr<Block> block(loaded);
    ReadAll(*block);
  }
  const std::string other = directory.PathOf("sound");
  const std::vector<std::string> sources =
      (flags & 2) == 0 ? std::vector<std::string>{other, forged} : std::vector<std::string>{forged, other};
  Merge(sources, directory.PathOf("merged"));
  return 0;
}
