// A block file of any content: loaded, searched, read and merged. Input: a byte of flags and the block's four
// chunks.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <vector>

#include "block/block.h"
#include "kestrun/status.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/support/block_image.h"
#include "tests/support/file_bytes.h"

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

// Entries that are read where they lie: what a search says of a sound file is what its index says.
void ReadTables(const std::string& path, const Block* indexed) {
  for (const bool learns : {false, true}) {
    BlockLoading loading;
    loading.maxIndexed = 0;
    loading.learns = learns;
    Block* loaded = nullptr;
    if (Block::Load(path, loading, &loaded) != kStatusOk) {
      Testing::FuzzCheck(indexed == nullptr, "a block that can be indexed can be opened");
      continue;
    }
    const std::unique_ptr<Block> block(loaded);
    const BlockTable* table = block->Table().get();
    if (table == nullptr) continue;  // out of order, or empty
    for (const char* key : {"", "a", "b-1", "m", "\xFF"}) {
      std::optional<BlockIndex::Record> record;
      uint32_t position = 0;
      static_cast<void>(table->Find(key, &record));
      static_cast<void>(table->LowerBound(key, &position));
    }
    if (indexed == nullptr) continue;
    for (uint32_t i = 0; indexed->Index()->IsOrdered() && i < indexed->Count(); ++i) {
      uint32_t position = 0;
      Testing::FuzzCheck(table->LowerBound(indexed->KeyAt(i), &position) == kStatusOk && position == i,
                         "the place of a key");
    }
  }
}

// A merge gives the same file whether it takes much memory or little.
void MergeBothWays(const std::vector<std::string>& paths, const Directory& directory) {
  std::vector<BlockSource> sources;
  for (const std::string& path : paths) sources.push_back({path, nullptr});
  uint32_t statuses[2];
  std::string bytes[2];
  for (const int streamed : {0, 1}) {
    const std::string path = directory.PathOf(streamed == 1 ? "streamed" : "at-once");
    std::remove(path.c_str());
    MergeOptions options;
    if (streamed == 1) options.maxIndexed = 0;
    Block* merged = nullptr;
    statuses[streamed] = Block::Merge(path, sources, options, &merged);
    const std::unique_ptr<Block> block(merged);
    if (statuses[streamed] == kStatusOk) bytes[streamed] = Testing::ReadFile(path);
  }
  Testing::FuzzCheck(statuses[0] == statuses[1], "the statuses of both merges");
  Testing::FuzzCheck(bytes[0] == bytes[1], "the bytes of both merges");
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
  const std::unique_ptr<Block> block(status == kStatusOk ? loaded : nullptr);
  if (block != nullptr) ReadAll(*block);
  ReadTables(forged, block.get());
  const std::string other = directory.PathOf("sound");
  const std::vector<std::string> sources =
      (flags & 2) == 0 ? std::vector<std::string>{other, forged} : std::vector<std::string>{forged, other};
  Merge(sources, directory.PathOf("merged"));
  MergeBothWays(sources, directory);
  return 0;
}
