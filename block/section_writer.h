// block/section_writer.h: what writes the three sections of a new block file.
//
// A section writer knows the size of its section before it writes anything, writes the section's header and
// then its content. The data writer of a block fills the index from which the key table and the entry table
// are made; it does so in key order, which is the order of all three sections.
//
// Ownership: writers borrow the cursor and the index, and live for one block.
// Threads:   one thread at a time.
// Failure:   WriteTo returns false; what was written stays. May throw std::bad_alloc.
// Units:     sizes are bytes and count the section's header.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "block/block_index.h"
#include "block/buffered_writer.h"
#include "block/entry_cursor.h"
#include "format/block_format.h"

namespace Kestrun {

// Writes the header of a section of `size` bytes, these included. False when it could not be written.
bool WriteSectionHeader(BufferedWriter& file, SectionType type, const char* name, uint64_t size);

// The entry of a block file for a record whose key lies `keyOffset` bytes into the key table.
BlockDataEntry ToBlockDataEntry(const BlockIndex::Record& record, uint32_t keyOffset);

class SyntheticSectionWriter {
 public:
  // The size that the section's header declares; 0 when it can't be told.
  virtual uint64_t Size() = 0;
  // Writes the section at the file's position.
  virtual bool WriteTo(BufferedWriter& file) = 0;

 protected:
  SyntheticSectionWriter(SectionType type, const char* name) : type_(type), name_(name) {}
  ~SyntheticSectionWriter() = default;

  // False when the size is 0 or the header could not be written.
  bool WriteHeader(BufferedWriter& file);

 private:
  SectionType type_;
  const char* name_;
};

// The values of a cursor's entries: those of a log, of blocks that are merged, or of anything else.
class DataSectionWriter final : public SyntheticSectionWriter {
 public:
  // The last three are those of BlockWriteOptions.
  DataSectionWriter(EntryCursor& cursor, std::function<void()> onExpired, bool isStrict,
                    const std::atomic<bool>* stop)
      : SyntheticSectionWriter(SectionType::Data, kDataSectionName),
        cursor_(cursor),
        onExpired_(std::move(onExpired)),
        isStrict_(isStrict),
        stop_(stop) {}

  // Walks the cursor before the file is made. kStatusBlockWriteFailed when a source can't be read or the
  // block would reach 4 GiB.
  uint32_t Measure();
  uint64_t Size() override { return sizeof(SectionHeader) + valueBytes_; }
  // Fewer values may follow than Size has declared: those of entries that expire meanwhile, or whose file
  // does not hold them, are left out. The tables find their place by the declared size.
  bool WriteTo(BufferedWriter& file) override;

  // Whether WriteTo has failed because a source does not hold one of its values.
  bool FoundDamage() const { return foundDamage_; }

  // What was measured; after WriteTo what was written, with the values' places in the new file.
  const BlockIndex& Entries() const { return *entries_; }
  // The same, finished and given away.
  std::shared_ptr<const BlockIndex> TakeEntries();

 private:
  bool IsLeftOut(const BlockIndex::Record& record, uint32_t source);
  bool IsStopped() const { return stop_ != nullptr && stop_->load(std::memory_order_relaxed); }

  EntryCursor& cursor_;
  std::function<void()> onExpired_;
  bool isStrict_;
  const std::atomic<bool>* stop_;
  bool foundDamage_ = false;
  std::shared_ptr<BlockIndex> entries_ = std::make_shared<BlockIndex>();
  HeapArray<uint32_t> sources_;  // for each entry the number of the source that holds its value
  uint64_t valueBytes_ = 0;
};

// The keys of the entries. Begins at the page boundary after the declared end of the data section.
class KeyTabSectionWriter final : public SyntheticSectionWriter {
 public:
  KeyTabSectionWriter(const BlockIndex& entries, uint64_t offset)
      : SyntheticSectionWriter(SectionType::KeyTable, kKeyTableName), entries_(entries), offset_(offset) {}
  uint64_t Size() override;
  bool WriteTo(BufferedWriter& file) override;

 private:
  const BlockIndex& entries_;
  uint64_t offset_;
};

// One BlockDataEntry for each entry. Begins at the page boundary after the key table.
class EntrySectionWriter final : public SyntheticSectionWriter {
 public:
  EntrySectionWriter(const BlockIndex& entries, uint64_t offset)
      : SyntheticSectionWriter(SectionType::EntryTable, kEntryTableName),
        entries_(entries),
        offset_(offset) {}
  uint64_t Size() override;
  bool WriteTo(BufferedWriter& file) override;

 private:
  const BlockIndex& entries_;
  uint64_t offset_;
};

}  // namespace Kestrun
