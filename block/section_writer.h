// block/section_writer.h: what writes the three sections of a new block file.
//
// A section writer knows the size of its section before it writes anything, writes the section's header and
// then its content. The data writer of a block fills the list of entries from which the key table and the
// entry table are made; it does so in key order, which is the order of all three sections.
//
// Ownership: writers borrow the log, the sources and the list, and live for one block.
// Threads:   one thread at a time.
// Failure:   WriteTo returns false; what was written stays. May throw std::bad_alloc.
// Units:     sizes are bytes and count the section's header.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "block/block.h"
#include "block/block_merge.h"
#include "block/buffered_writer.h"
#include "format/block_format.h"
#include "storage/wal.h"

namespace Kestrun {

// What a block will hold, at most: entries that expire while it is written are left out.
struct BlockTotals {
  uint64_t entries = 0;
  uint64_t keyBytes = 0;
  uint64_t valueBytes = 0;
};

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

// A data section: adds to what every section has what must be known before the file is made.
class DataSectionWriter : public SyntheticSectionWriter {
 public:
  // Looks through the sources. kStatusBlockWriteFailed when one can't be read.
  virtual uint32_t Measure() = 0;

  const BlockTotals& Totals() const { return totals_; }
  uint64_t Size() override { return sizeof(SectionHeader) + totals_.valueBytes; }
  std::vector<Block::IndexedEntry>& Entries() { return entries_; }

 protected:
  DataSectionWriter() : SyntheticSectionWriter(SectionType::Data, kDataSectionName) {}
  ~DataSectionWriter() = default;

  void Count(uint16_t keySize, uint32_t valueSize);

  BlockTotals totals_;
  std::vector<Block::IndexedEntry> entries_;
};

// The values of the log's entries, deletion markers and expired ones included.
class DataSectionWriterWithWal final : public DataSectionWriter {
 public:
  explicit DataSectionWriterWithWal(Wal& wal) : wal_(wal) {}
  uint32_t Measure() override;
  bool WriteTo(BufferedWriter& file) override;

 private:
  Wal& wal_;
};

// The values of the newest entries of several blocks that are alive when it is constructed.
class DataSectionWriterWithBlocks final : public DataSectionWriter {
 public:
  explicit DataSectionWriterWithBlocks(const std::vector<BlockSource>& sources);
  uint32_t Measure() override;
  bool WriteTo(BufferedWriter& file) override;

 private:
  bool IsKept(const DataEntry& entry) const;

  BlockMerge merge_;
  uint64_t now_;
};

// The keys of the entries. Begins at the page boundary behind the declared end of the data section.
class KeyTabSectionWriter final : public SyntheticSectionWriter {
 public:
  KeyTabSectionWriter(const std::vector<Block::IndexedEntry>& entries, uint64_t offset)
      : SyntheticSectionWriter(SectionType::KeyTable, kKeyTableName), entries_(entries), offset_(offset) {}
  uint64_t Size() override;
  bool WriteTo(BufferedWriter& file) override;

 private:
  const std::vector<Block::IndexedEntry>& entries_;
  uint64_t offset_;
};

// One BlockDataEntry for each entry. Begins at the page boundary behind the key table.
class EntrySectionWriter final : public SyntheticSectionWriter {
 public:
  EntrySectionWriter(const std::vector<Block::IndexedEntry>& entries, uint64_t offset)
      : SyntheticSectionWriter(SectionType::EntryTable, kEntryTableName),
        entries_(entries),
        offset_(offset) {}
  uint64_t Size() override;
  bool WriteTo(BufferedWriter& file) override;

 private:
  const std::vector<Block::IndexedEntry>& entries_;
  uint64_t offset_;
};

}  // namespace Kestrun
