// inspect/block_file.h: reads a block file, <name>.blk_v5, without trusting a byte of it.
//
// Memory stays bounded whatever the file says: entries and keys are read one at a time.
//
// Ownership: a BlockFile borrows the file, which must outlive it.
// Threads:   one at a time.
// Failure:   a false result: the bytes lie outside the file or can't be read.
// Units:     offsets are bytes from the start of the file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "format/block_format.h"
#include "inspect/read_only_file.h"

namespace Kestrun::Inspect {

struct SectionView {
  SectionHeader header = {};
  uint64_t offset = 0;    // where the section should begin
  bool complete = false;  // the file holds the header; otherwise the fields below mean nothing
  bool checksumMatches = false;
  bool fits = false;  // the size is at least that of the header and the section ends within the file

  bool Usable() const { return complete && checksumMatches && fits; }
  uint64_t End() const { return offset + header.size; }
};

class BlockFile {
 public:
  // Reads the headers. `pageSize` is that of the machine that wrote the file; 0 finds it out.
  BlockFile(const ReadOnlyFile& file, uint64_t pageSize);

  const BlockFileHeader& Header() const { return header_; }
  bool HeaderComplete() const { return headerComplete_; }
  bool HeaderChecksumMatches() const { return headerChecksumMatches_; }
  bool MagicMatches() const;

  const SectionView& Data() const { return data_; }
  // Where the tables begin follows from the sections before them: unless those are usable nothing is set.
  const SectionView& KeyTable() const { return keyTable_; }
  const SectionView& EntryTable() const { return entryTable_; }

  // Header and sections are such that a store reads the entries.
  bool Usable() const;
  // Looks for the tables of a block that is not usable, at every place where they can begin, by their headers
  // or what is left of them. True when entries and keys can be read then.
  bool FindTables();

  // Whole entries in the entry table; 0 unless the table is usable.
  uint64_t EntryCount() const;
  // Entries that the header of the entry table tells and that FindTables did not find because
  // the file ends before them.
  uint64_t CutEntries() const { return cutEntries_; }
  // Whether the header of the entry table, which tells how many entries there are, is sound.
  bool CountIsKnown() const { return countIsKnown_; }
  // Whether the size of the key table is what its sound header tells.
  bool KeyTableSizeIsKnown() const { return keySizeIsKnown_; }
  uint64_t EntryOffset(uint64_t index) const;
  bool ReadEntry(uint64_t index, BlockDataEntry* entry, bool* checksumMatches);
  // Whether the entry's key lies within the key table.
  bool KeyFits(const BlockDataEntry& entry) const;
  bool ReadKey(const BlockDataEntry& entry, std::string* key);
  // Whether the entry's value lies before the key table.
  bool ValueFits(const BlockDataEntry& entry) const;
  // Reads the value, up to `most` bytes of it. Values that follow each other are read with few system calls.
  bool ReadValue(const BlockDataEntry& entry, std::string* value, uint64_t most = UINT64_MAX);

  // Searches an entry table that is in order for `key`. Empty when the key is not there, or when the search
  // meets bytes that can't be read or are wrong.
  std::optional<BlockDataEntry> Find(const std::string& key);

 private:
  void ReadSections(uint64_t pageSize);
  SectionView ReadSection(uint64_t offset) const;

  const ReadOnlyFile& file_;
  FileWindow entryWindow_;
  FileWindow keyWindow_;
  FileWindow valueWindow_;
  BlockFileHeader header_ = {};
  bool headerComplete_ = false;
  bool headerChecksumMatches_ = false;
  SectionView data_;
  SectionView keyTable_;
  SectionView entryTable_;
  uint64_t cutEntries_ = 0;
  bool countIsKnown_ = true;
  bool keySizeIsKnown_ = true;
};

// A marked entry carries the checksum of its key and value, as a record of the log does.
bool IsMarked(const BlockDataEntry& entry);
// Whether an entry that is marked promises this key and value; true for one that is not.
bool ContentMatches(const BlockDataEntry& entry, const std::string& key, const std::string& value);

// The page size for which the sections of a block lie where their headers are, when it is not `pageSize` but
// another that machines use; 0 when there is none.
uint64_t OtherPageSize(const ReadOnlyFile& file, uint64_t pageSize);

}  // namespace Kestrun::Inspect
