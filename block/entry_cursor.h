// block/entry_cursor.h: what a new block is written from: entries in key order, and their values.
//
// The writer walks a cursor once to learn what the block will hold, and then has the values copied; or it
// walks it a second time and has values copied on the way.
//
// Ownership: as the cursor says.
// Threads:   one thread at a time.
// Failure:   statuses; may throw std::bad_alloc.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "block/buffered_writer.h"
#include "kestrun/data_entry.h"

namespace Kestrun {

class EntryCursor {
 public:
  virtual ~EntryCursor() = default;

  // Stands before the first entry. Statuses as Next.
  virtual uint32_t Start() = 0;
  // Moves to the next entry, whose key is greater than the one before and lies in the range of scans; `*end`
  // is true when there is none. kStatusBlockWriteFailed when a source can't be read.
  virtual uint32_t Next(bool* end) = 0;

  // The current entry, until the next call of Next. Its valueOffset counts from the start of its source.
  std::string_view Key() const { return key_; }
  const DataEntry& Entry() const { return entry_; }
  // The checksum of key and value, where the entry carries one.
  std::optional<uint32_t> Checksum() const { return checksum_; }
  // The number of the source that holds the value.
  uint32_t Source() const { return source_; }

  // Whether `size` bytes at `offset` lie within their source, once the walk has met it. An entry whose value
  // does not is left out.
  virtual bool HoldsValue(uint32_t source, uint64_t offset, uint64_t size) = 0;
  // Tells that these bytes will be wanted soon.
  virtual void Prefetch(uint32_t /*source*/, uint64_t /*offset*/, uint64_t /*size*/) {}
  // Appends `size` bytes at `offset` of a source that the walk has met, the values of one entry or of
  // several that lie side by side. False when they can't be read or written. Called with offsets in
  // the order of the walk.
  virtual bool CopyValues(uint32_t source, uint64_t offset, uint64_t size, BufferedWriter& out) = 0;

 protected:
  std::string_view key_;
  DataEntry entry_ = {};
  std::optional<uint32_t> checksum_;
  uint32_t source_ = 0;
};

}  // namespace Kestrun
