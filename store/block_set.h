// store/block_set.h: the blocks of a store at one moment, open.
//
// Ownership: shared; the files stay open as long as a snapshot holds the set.
// Threads:   a set never changes.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "block/block.h"
#include "kestrun/data_entry.h"
#include "storage/manifest.h"

namespace Kestrun {

struct OpenBlock {
  std::shared_ptr<const BlockEntry> entry;
  std::shared_ptr<const Block> block;  // null: the file is damaged or gone, and reads that need it say so
};

// Oldest first.
using BlockSet = std::vector<OpenBlock>;

// An entry of a block: what it says, and the CRC-32C of key and value if it carries one.
struct FoundEntry {
  DataEntry entry;
  std::optional<uint32_t> checksum;

  explicit FoundEntry(const BlockIndex::Record& record);
};

// Reads the value of an entry of `block`, which stands under `key`, to `*value`, and compares it with the
// checksum that the entry may carry.
//
// kStatusBlockShortRead  the system could not read
// kStatusBlockCorrupt    the file ends before the value does, or the checksum differs
uint32_t ReadBlockValue(const Block& block, const FoundEntry& found, std::string_view key,
                        std::string* value);

// The entry of `key` in one block, if it has one. kStatusBlockCorrupt when damage keeps it from being known;
// kStatusBlockShortRead.
uint32_t FindInBlock(const Block& block, std::string_view key, std::optional<FoundEntry>* found);

// The same in the newest block of the set that has the key: `*block` null when none has.
uint32_t FindInBlocks(const BlockSet& blocks, std::string_view key, const Block** block,
                      std::optional<FoundEntry>* found);

}  // namespace Kestrun
