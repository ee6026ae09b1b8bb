// A whole block file, put together by the tests themselves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "tests/support/file_image.h"

namespace Kestrun::Testing {

struct BlockImageEntry {
  std::string key;
  std::string value;
  bool deleted = false;
  uint64_t timestamp = 1700000000;  // seconds
  uint32_t ttl = 0xFFFFFFFF;        // seconds
};

struct BlockImage {
  // The entries must be in ascending order of their keys. A page size of 0 is the machine's.
  explicit BlockImage(const std::vector<BlockImageEntry>& entries, uint64_t pageSize = 0);
  explicit BlockImage(std::initializer_list<BlockImageEntry> entries, uint64_t pageSize = 0)
      : BlockImage(std::vector<BlockImageEntry>(entries), pageSize) {}

  // Where the record of entry `index` begins.
  size_t EntryOffset(size_t index) const { return entryTable + 28 + 48 * index; }
  // Makes the checksum of an entry, or of the header of the section at `offset`, fit its bytes again.
  void SealEntry(size_t index);
  void SealSection(size_t offset);

  const std::string& Bytes() const { return file.Bytes(); }

  FileImage file;
  size_t keyTable;  // the file offsets of the two tables
  size_t entryTable;
};

}  // namespace Kestrun::Testing
