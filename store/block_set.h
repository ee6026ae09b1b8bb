// store/block_set.h: the blocks of a store at one moment, open.
//
// Ownership: shared; the files stay open as long as a snapshot holds the set.
// Threads:   a set never changes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
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

// Reads the value of an entry of `block`, which stands under `key`, to `*value`, and compares it with the checksum that the
// entry may carry.
//
// kStatusBlockShortRead  the system could not read
// kStatusBlockCorrupt    the file ends before the value does, or the checksum differs
uint32_t ReadBlockValue(const Block& block, uint32_t i, std::string_view key, std::string* value);

// The entry of `key` in one block of the set, newest first: `*block` null when no block has it. kStatusBlockCorrupt
// when a damaged block may hold it.
uint32_t FindInBlocks(const BlockSet& blocks, std::string_view key, const Block** block, uint32_t* index);

}  // namespace Kestrun
