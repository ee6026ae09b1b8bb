#include "store/block_set.h"

#include "format/crc32c.h"
#include "format/key_filter.h"
#include "kestrun/status.h"
#include "store/key_rules.h"

namespace Kestrun {
uint32_t ReadBlockValue(const Block& block, uint32_t i, std::string_view key, std::string* value) {
  const DataEntry entry = block.EntryAt(i);
  if (!block.MayHoldValue(entry)) return kStatusBlockCorrupt;
  value->resize(entry.valueSize);
  const ssize_t read = block.File()->PReadFully(value->data(), value->size(), entry.valueOffset);
  if (read < 0) return kStatusBlockShortRead;
  if (static_cast<size_t>(read) != value->size()) return kStatusBlockCorrupt;
  uint32_t crc = 0;
  if (block.ChecksumAt(i, &crc) &&
      Crc32c(value->data(), value->size(), Crc32c(key.data(), key.size())) != crc) {
    return kStatusBlockCorrupt;
  }
  return kStatusOk;
}

uint32_t FindInBlocks(const BlockSet& blocks, std::string_view key, const Block** block, uint32_t* index) {
  *block = nullptr;
  if (blocks.empty()) return kStatusOk;
  const uint32_t hash = KeyHash(key);
  for (auto open = blocks.rbegin(); open != blocks.rend(); ++open) {
    if (!KeyFilterMayContain(hash, open->entry->filter)) continue;
    if (open->block == nullptr) return kStatusBlockCorrupt;
    const uint32_t found = open->block->Find(key);
    if (found == open->block->Count()) continue;
    *block = open->block.get();
    *index = found;
    return kStatusOk;
  }
  return kStatusOk;
}

}  // namespace Kestrun
