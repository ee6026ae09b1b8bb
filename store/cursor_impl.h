// store/cursor_impl.h: how a cursor walks the log and the blocks of a snapshot at once.
//
// Each source stands on a key of its own; the cursor stands on the least of them, or on the greatest when it
// walks backwards, and among equal keys on that of the newest source. A heap of the sources tells which one
// that is. Seeking is a search in each source.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "block/block_pages.h"
#include "kestrun/cursor.h"
#include "kestrun/range.h"
#include "kestrun/status.h"
#include "store/snapshot_impl.h"

namespace Kestrun {

class Cursor::Impl {
 public:
  // May throw std::bad_alloc.
  Impl(std::shared_ptr<const Snapshot::Impl> snapshot, const Range& range);

  // As the operations of Cursor. May throw std::bad_alloc.
  void SeekToFirst();
  void SeekToLast();
  void Seek(std::string_view key);
  void SeekForPrev(std::string_view key);
  void Next();
  void Prev();
  uint32_t Value(std::string_view* bytes);

  // Ends the walk with a failure.
  void Fail(uint32_t status);

  bool Valid() const { return current_ != kNone; }
  uint32_t Status() const { return status_; }
  std::string_view Key() const { return Valid() ? key_ : std::string_view(); }
  const DataEntry& Entry() const { return entry_; }

 private:
  static constexpr size_t kNone = SIZE_MAX;
  enum class Direction { Forward, Backward };

  // A stretch of a block's values that was read at once.
  struct Stretch {
    std::vector<char> bytes;
    uint64_t start = 0;  // in the file
    size_t size = 0;
    size_t readAhead = 0;
  };
  // One block: the part of it that lies in the range, and the entry that it stands on.
  struct BlockPlace {
    const Block* block;
    BlockPages pages;
    uint32_t begin;
    uint32_t end;
    uint32_t position;  // end: past the last one; walking backwards also past the first one
    Stretch values;
  };
  // A source that stands on a key.
  struct Head {
    std::string_view key;  // belongs to the source
    size_t source;
  };

  uint32_t AddBlock(const Block& block);
  void Reset();
  bool TakeBlock(BlockPlace& place, std::string_view* key);
  bool TakeLog(std::string_view* key);
  void AddHead(size_t source);
  void SeekFrom(std::string_view key);
  void SeekSources(std::string_view key, bool inclusive, Direction direction);
  bool SeekBlock(BlockPlace& place, std::string_view key, bool inclusive);
  bool ComesBefore(const Head& left, const Head& right) const;
  void SiftDown(size_t head);
  void OrderHeads();
  void Step(size_t head);
  void Settle();
  bool TakeCurrent();
  uint32_t ReadAhead(BlockPlace& place, std::string_view* bytes);

  const std::shared_ptr<const Snapshot::Impl> snapshot_;
  const Range range_;
  uint32_t damage_ = kStatusOk;  // what keeps every walk from being right

  // Sources are numbered by age: the blocks from the oldest on, the log last.
  std::vector<BlockPlace> blocks_;
  LogIndex::Iterator log_;
  size_t logSource_;
  std::vector<Head> heads_;  // a heap, the one whose turn it is first
  Direction direction_ = Direction::Forward;

  size_t current_ = kNone;
  std::string_view key_;  // belongs to the source
  DataEntry entry_ = {};
  uint32_t status_;
};

}  // namespace Kestrun
