// block/block_reader.h: reads the tables of a block file forward, checking every header and entry.
//
// Ownership: keeps the file open as long as it lives, unless it reads through a OpenFileCache.
// Threads:   one thread at a time.
// Failure:   statuses; nothing is printed. May throw std::bad_alloc.
// Bytes:     block/block_format.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "format/block_format.h"
#include "kestrun/data_entry.h"
#include "storage/file_window.h"

namespace Kestrun {

class BlockReader {
 public:
  // Reads from a file that is given whenever it is needed, through windows of `windowSize` bytes.
  BlockReader(FileWindow::Source source, size_t windowSize);

  // Checks the file's and the sections' headers; what follows stands before the first entry.
  //
  // kStatusBlockCorrupt    a header is cut off or fails its checksum, or an entry reaches beyond the file
  // kStatusMapFailed       the size of a table is 0
  // kStatusBlockShortRead  the system could not read
  // kStatusStatFailed      the file could not be inspected
  uint32_t Start();

  // Moves to the next entry; `*end` is true when there is none. kStatusBlockCorrupt when the entry fails its
  // checksum or its key lies outside the key table, kStatusBlockShortRead.
  uint32_t Next(bool* end);

  // The current entry, until the next call of Next. The value's place is not checked.
  const DataEntry& Entry() const { return entry_; }
  const uint8_t* KeyBytes() const { return key_; }
  uint16_t KeySize() const { return keySize_; }

  uint64_t EntryCount() const { return entryCount_; }
  uint64_t FileSize() const { return fileSize_; }

 private:
  FileWindow::Source source_;
  FileWindow entries_;
  FileWindow keys_;
  uint64_t fileSize_ = 0;
  uint64_t keyTableOffset_ = 0;
  uint64_t keyTableSize_ = 0;
  uint64_t entryTableOffset_ = 0;
  uint64_t entryCount_ = 0;
  uint64_t position_ = 0;  // entries read
  DataEntry entry_ = {};
  const uint8_t* key_ = nullptr;
  uint16_t keySize_ = 0;
};

}  // namespace Kestrun
