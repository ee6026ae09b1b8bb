#include "store/block_set.h"

#include "format/crc32c.h"
#include "format/key_filter.h"
#include "kestrun/status.h"
#include "store/key_rules.h"

namespace Kestrun {

FoundEntry::FoundEntry(const BlockIndex::Record& record) : entry(ToDataEntry(record)) {
  if (record.hasChecksum) checksum = record.checksum;
}

uint32_t ReadBlockValue(const Block& block, const FoundEntry& found, std::string_view key,
                        std::string* value) {
  if (!block.MayHoldValue(found.entry)) return kStatusBlockCorrupt;
  value->resize(found.entry.valueSize);
  const ssize_t read = block.File()->PReadFully(value->data(), value->size(), found.entry.valueOffset);
  if (read < 0) return kStatusBlockShortRead;
  if (static_cast<size_t>(read) != value->size()) return kStatusBlockCorrupt;
  if (found.checksum.has_value() &&
      Crc32c(value->data(), value->size(), Crc32c(key.data(), key.size())) != *found.checksum) {
    return kStatusBlockCorrupt;
  }
  return kStatusOk;
}

uint32_t FindInBlock(const Block& block, std::string_view key, std::optional<FoundEntry>* found) {
  found->reset();
  if (block.Table() != nullptr) {
    std::optional<BlockIndex::Record> record;
    const uint32_t status = block.Table()->Find(key, &record);
    if (record.has_value()) found->emplace(*record);
    return status;
  }
  const uint32_t position = block.Find(key);
  if (position != block.Count()) {
    found->emplace(block.Index()->RecordAt(position));
    return kStatusOk;
  }
  // A search among keys that are out of order may pass over one.
  return block.Index()->IsOrdered() ? kStatusOk : kStatusBlockCorrupt;
}

uint32_t FindInBlocks(const BlockSet& blocks, std::string_view key, const Block** block,
                      std::optional<FoundEntry>* found) {
  *block = nullptr;
  found->reset();
  if (blocks.empty()) return kStatusOk;
  const uint32_t hash = KeyHash(key);
  for (auto open = blocks.rbegin(); open != blocks.rend(); ++open) {
    if (!KeyFilterMayContain(hash, open->entry->filter)) continue;
    if (open->block == nullptr) return kStatusBlockCorrupt;
    if (const uint32_t status = FindInBlock(*open->block, key, found); status != kStatusOk) return status;
    if (!found->has_value()) continue;
    *block = open->block.get();
    return kStatusOk;
  }
  return kStatusOk;
}

}  // namespace Kestrun
