// block/block_table.h: the keys and entries of one block, read where they lie in its file.
//
// For a block whose index would take much memory, or is not worth building for a few keys. What is read is
// checked as BlockIndex checks it; what is not read is not.
//
// A table that was learned has walked the whole file once: every entry is sound, the keys are in order, and
// the first key of each group of entries is known by a prefix of 8 bytes, so that a search reads one group.
//
// Ownership: shares the file.
// Threads:   a table never changes; any number of threads may use it at once.
// Failure:   statuses; all may throw std::bad_alloc.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "block/block_filter.h"
#include "block/block_index.h"
#include "storage/os_file.h"

namespace Kestrun {

class BlockTable {
 public:
  // Reads the headers of a file that was written with `pageSize`. Statuses as ReadBlockSections.
  static uint32_t Open(std::shared_ptr<OsFile> file, uint64_t pageSize,
                       std::shared_ptr<const BlockTable>* out);
  // The same, and learns the table; `*filter`, when asked for, is filled with its keys. Statuses as
  // BlockIndex::Read, and kStatusInvalid when the keys are not in order.
  static uint32_t Learn(std::shared_ptr<OsFile> file, uint64_t pageSize,
                        std::shared_ptr<const BlockTable>* out,
                        std::shared_ptr<const BlockFilter>* filter = nullptr);

  uint32_t Count() const { return static_cast<uint32_t>(sections_.entryCount); }
  bool IsLearned() const { return isLearned_; }
  // Fills `page` with the entries [first, first + count), all of which must exist. kStatusBlockCorrupt also
  // when their keys are not in order.
  uint32_t ReadPage(uint32_t first, uint32_t count, BlockIndex* page) const;
  // The first entry whose key is not less than `key`; Count() when there is none. Statuses as ReadPage.
  uint32_t LowerBound(std::string_view key, uint32_t* position) const;
  // The entry with this key, if there is one; its keyOffset means nothing. Statuses as ReadPage.
  uint32_t Find(std::string_view key, std::optional<BlockIndex::Record>* record) const;
  // Bytes of memory, about.
  size_t MemoryUsed() const { return sizeof(*this) + groups_.Size() * sizeof(uint64_t) + common_.size(); }

 private:
  // Entries whose keys are read at once when a search has come so close.
  static constexpr uint32_t kGroup = 32;

  BlockTable(std::shared_ptr<OsFile> file, const BlockSections& sections);
  uint32_t WalkAll(uint64_t pageSize, BlockFilter* filter);
  // Reads the entries among which `key` has its place; `*first` is the number of the first one of them.
  uint32_t ReadAround(std::string_view key, BlockIndex* page, uint32_t* first) const;
  void NarrowByGroups(std::string_view key, uint32_t* first, uint32_t* end) const;

  std::shared_ptr<OsFile> file_;
  BlockSections sections_;
  bool isLearned_ = false;
  std::string common_;          // what all keys begin with
  HeapArray<uint64_t> groups_;  // of the first key of each group, after what all have in common
};

}  // namespace Kestrun
