// block/merge_cursor.h: walks several blocks at once, in key order, the newest entry of each key.
//
// Files are read forward through windows; memory and open files stay bounded whatever their number and the
// size of their values. A source whose keys are out of order, which takes damage, is loaded and sorted; of
// equal keys in it the last one counts.
//
// Ownership: shares the blocks; nothing is kept beyond the walk.
// Threads:   one thread at a time.
// Failure:   as EntryCursor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "block/block.h"
#include "block/entry_cursor.h"
#include "block/open_file_cache.h"

namespace Kestrun {

// What becomes of an entry that is a tombstone, or has expired, and is the newest of its key.
enum class DeadEntries {
  Drop,  // the sources reach back to the oldest block: nothing is left that it could hide
  Keep,  // it hides entries of older blocks that are not merged
};

class MergeCursor final : public EntryCursor {
 public:
  // `sources` are oldest first. What has expired is decided by the second of the construction.
  explicit MergeCursor(const std::vector<BlockSource>& sources, DeadEntries dead = DeadEntries::Drop);
  ~MergeCursor() override;
  MergeCursor(const MergeCursor&) = delete;
  MergeCursor& operator=(const MergeCursor&) = delete;

  // Of all sources; a walk gives no more. Statuses as Start.
  uint32_t CountEntries(uint64_t* count);

  uint32_t Start() override;
  uint32_t Next(bool* end) override;
  bool HoldsValue(uint32_t source, uint64_t offset, uint64_t size) override;
  bool CopyValues(uint32_t source, uint64_t offset, uint64_t size, BufferedWriter& out) override;

 private:
  class Source;

  uint32_t PrepareSources();
  uint32_t NextNewest(bool* end);
  uint32_t Advance(size_t position);
  void SiftDown(size_t position);
  bool ComesFirst(uint32_t left, uint32_t right) const;

  OpenFileCache files_;
  std::vector<std::unique_ptr<Source>> sources_;  // oldest first
  std::vector<uint32_t> heap_;                    // sources that have an entry; the next one is on top
  DeadEntries dead_;
  uint64_t now_;
  bool prepared_ = false;  // whether it is known which sources are walked in memory
  bool started_ = false;   // whether the top of the heap is the current entry
  bool walked_ = false;    // whether the tables' windows have been given up
};

}  // namespace Kestrun
