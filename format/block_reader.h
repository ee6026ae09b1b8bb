// format/block_reader.h: reads the tables of a block file, checking every header and entry.
//
// The source may hold anything: nothing is read outside it, and memory stays bounded. What is loaded of a
// file: an entry that begins within the entry table counts, wherever the table ends, and only the padding at
// its end may be missing from the file.
//
// Ownership: borrows the source.
// Threads:   one thread at a time.
// Failure:   statuses; nothing is printed. Start and Next may throw std::bad_alloc.
// Bytes:     format/block_format.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "format/block_format.h"
#include "format/byte_source.h"
#include "format/byte_window.h"
#include "format/to_data_entry.h"

namespace Kestrun {

// Where the sections of a block file lie, by their headers.
struct BlockSections {
  uint64_t fileSize = 0;
  uint64_t dataSize = 0;
  uint64_t keyTableOffset = 0;
  uint64_t keyTableSize = 0;
  uint64_t entryTableOffset = 0;
  uint64_t entryTableSize = 0;
  uint64_t entryCount = 0;

  // Of the first entry in the file.
  uint64_t FirstEntry() const { return entryTableOffset + sizeof(SectionHeader); }
};

// Finds the sections of a block that was written with `pageSize`, and checks the headers' checksums; magic,
// version, types and names are not looked at.
//
// kStatusBlockCorrupt    a header is cut off or fails its checksum, or an entry reaches beyond the file
// kStatusMapFailed       the size of a table is 0: the system maps no section of 0 bytes
// kStatusBlockShortRead  the source can't be read
// kStatusStatFailed      its size can't be told
uint32_t ReadBlockSections(ByteSource& source, uint64_t pageSize, BlockSections* sections);

// Finds out with which page size a block was written: 4, 16 or 64 KiB, tried in this order until the sections
// lie where their headers are. Statuses as ReadBlockSections.
uint32_t DetectBlockPageSize(ByteSource& source, uint64_t* pageSize);

// Takes the entry of `held` bytes, 48 or, at the end of the file, up to 4 fewer; what is missing reads as
// zeros. False when it fails its checksum or its key lies outside the key table.
bool DecodeBlockEntry(const uint8_t* bytes, size_t held, uint64_t keyTableSize, BlockDataEntry* entry);

// Walks the entries of a block file forward, through windows.
class BlockReader {
 public:
  BlockReader(ByteSource& source, uint64_t pageSize, size_t windowSize);

  // Reads the headers, as ReadBlockSections, and stands before the first entry.
  uint32_t Start();
  // Moves to the next entry; `*end` is true when there is none. kStatusBlockCorrupt when the entry fails its
  // checksum or its key lies outside the key table, kStatusBlockShortRead.
  uint32_t Next(bool* end);

  // The current entry, until the next call of Next. The value's place is not checked.
  const BlockDataEntry& Entry() const { return entry_; }
  std::string_view Key() const { return key_; }

  const BlockSections& Sections() const { return sections_; }
  // Gives up the windows' memory until the next Start.
  void Release();

 private:
  ByteSource& source_;
  uint64_t pageSize_;
  ByteWindow entries_;
  ByteWindow keys_;
  BlockSections sections_;
  uint64_t position_ = 0;  // entries read
  BlockDataEntry entry_ = {};
  std::string_view key_;
};

}  // namespace Kestrun
