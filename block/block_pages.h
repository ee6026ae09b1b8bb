// block/block_pages.h: the entries of one block by number, whether it has an index or a table.
//
// Of a table one page is in memory at a time; a walk reads larger and larger ones.
//
// Ownership: borrows the block.
// Threads:   one at a time.
// Failure:   Load returns a status; may throw std::bad_alloc.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "block/block.h"
#include "kestrun/status.h"

namespace Kestrun {

class BlockPages {
 public:
  static constexpr uint32_t kLargestPage = 2048;

  // Pages have at most `largestPage` entries, which is at least 1.
  explicit BlockPages(const Block& block, uint32_t largestPage = kLargestPage);

  // Makes an entry of the block readable, and with it those after it, or those before it when the walk goes
  // backwards. What was readable before need not be any longer. Statuses as BlockTable::ReadPage.
  uint32_t Load(uint32_t position, bool forward = true) {
    return position - first_ < count_ ? kStatusOk : LoadPage(position, forward);
  }
  // Gives up what was read; the next Load reads it again.
  void Release();
  // Of an entry that is readable.
  std::string_view KeyAt(uint32_t position) const { return page_->KeyAt(position - first_); }
  const BlockIndex::Record& RecordAt(uint32_t position) const { return page_->RecordAt(position - first_); }
  DataEntry EntryAt(uint32_t position) const { return page_->EntryAt(position - first_); }

  // The first entry whose key is not less than `key`; Count() of the block when there
  // is none. Statuses as Load.
  uint32_t LowerBound(std::string_view key, uint32_t* position) const;

 private:
  uint32_t LoadPage(uint32_t position, bool forward);

  const Block* block_;
  const BlockIndex* page_;
  uint32_t first_ = 0;  // the number of the page's first entry
  uint32_t count_ = 0;
  uint32_t size_ = 0;  // of the page that was read last, in entries
  uint32_t largestPage_;
  std::unique_ptr<BlockIndex> own_;
};

}  // namespace Kestrun
