// block/block_merge.h: walks several block files at once, in key order, the newest entry of each key.
//
// Files are read forward through windows; memory and open files stay bounded whatever their number and the
// size of their values.
//
// Ownership: nothing is kept beyond the walk.
// Threads:   one thread at a time.
// Failure:   statuses; may throw std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "block/block.h"
#include "block/open_file_cache.h"
#include "kestrun/data_entry.h"
#include "kestrun/key.h"

namespace Kestrun {

class BlockMerge {
 public:
  // `sources` are oldest first. One whose keys are out of order is loaded and sorted.
  explicit BlockMerge(const std::vector<BlockSource>& sources);
  ~BlockMerge();
  BlockMerge(const BlockMerge&) = delete;
  BlockMerge& operator=(const BlockMerge&) = delete;

  // Stands before the first key. kStatusBlockWriteFailed, as Next.
  uint32_t Start();
  // Moves to the next key in [MinKey, MaxKey); `*end` is true when there is none. kStatusBlockWriteFailed
  // when a source can't be read.
  uint32_t Next(bool* end);

  // The newest entry of the current key, until the next call of Next.
  const uint8_t* KeyBytes() const;
  uint16_t KeySize() const;
  const DataEntry& Entry() const;

  // Whether the current value lies within its file.
  bool HasWholeValue() const;
  // Calls `take(bytes, size)` with the current value, piece by piece, as long as it returns true. False when
  // the value can't be read or `take` returned false.
  template <typename Take>
  bool ReadValue(Take take) {
    uint64_t done = 0;
    while (done < Entry().valueSize) {
      const uint8_t* bytes = nullptr;
      size_t size = 0;
      if (!ViewValue(done, &bytes, &size) || !take(bytes, size)) return false;
      done += size;
    }
    return true;
  }

 private:
  struct Cursor;

  bool ViewValue(uint64_t done, const uint8_t** bytes, size_t* size);
  uint32_t SortUnorderedSources();
  uint32_t Advance(size_t cursor);
  bool ComesLater(size_t left, size_t right) const;

  OpenFileCache pool_;
  size_t windowSize_;
  bool sorted_ = false;                           // whether SortUnorderedSources has been done
  std::vector<std::unique_ptr<Cursor>> cursors_;  // by age, oldest first
  std::vector<size_t> heap_;                      // cursors that have an entry, except the current one
  size_t current_;                                // none before the first Next and at the end
};

}  // namespace Kestrun
