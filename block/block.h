// block/block.h: one immutable, sorted block file: its key index in memory, its values on the disk.
//
// Ownership: held through std::shared_ptr; the file stays open until the last reference goes, also after it
//            was removed from the directory.
// Threads:   a block never changes; any number of threads may use it at once.
// Failure:   statuses. Loading, writing and scanning may throw std::bad_alloc.
// Bytes:     block/block_format.h.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kestrun/data_entry.h"
#include "kestrun/key.h"
#include "storage/os_file.h"

namespace Kestrun {

class Block;
class Wal;

// What a merge reads: a block that is loaded, from its own index and open file, or else the file at a path.
struct BlockSource {
  std::string path;              // not looked at when there is a block
  std::shared_ptr<Block> block;  // may be null
};

struct MergeOptions {
  bool keepsHidden = false;                 // tombstones and expired entries stay
  bool isStrict = false;                    // a value that can't be read ends the merge
  const std::atomic<bool>* stop = nullptr;  // ends the merge
};

inline constexpr uint64_t kAnyPageSize = 1;

class Block {
 public:
  static uint32_t Merge(const std::string& path, const std::vector<BlockSource>& sources,
                        const MergeOptions& options, Block** out);

  struct IndexedEntry {
    Key key;
    DataEntry entry;  // valueOffset counts from the start of the block file
  };

  // Loads a block file's index. On success `*out` is a Block that the caller owns.
  //
  // kStatusOpenFailed, kStatusStatFailed  the file can't be opened or inspected
  // kStatusBlockShortRead  the system could not read
  // kStatusBlockCorrupt    a header or an entry is cut off, a checksum fails, or a key lies outside the key
  //                        table. An entry that begins within its table counts, wherever the table ends, and
  //                        only the padding at its end may be missing
  // kStatusMapFailed       the size of a table is 0
  static uint32_t Load(const std::string& path, Block** out, uint64_t pageSize = 0);
  // The same for a file that is open.
  static uint32_t LoadFrom(std::shared_ptr<OsFile> file, std::shared_ptr<Block>* out);
  // Checks a block file as Load does, without building anything.
  static uint32_t Verify(const std::string& path);

  // Writes the log's entries in [MinKey, MaxKey), deletion markers and expired entries included, to the new
  // block file `path`, and forces the file and its name to the disk. The caller holds the log's lock. An
  // existing file is overwritten from its start and not cut. After a failure what was written stays.
  //
  // kStatusOpenFailed, kStatusStatFailed  the file can't be opened or inspected
  // kStatusCreateFailed      the file header could not be written
  // kStatusBlockWriteFailed  a section could not be written, a value lies outside the log, or the block
  //                          would reach 4 GiB (no file is made then)
  // kStatusSyncFailed        the file could not be forced to the disk
  static uint32_t WriteFromWal(const std::string& path, Wal& wal, Block** out);

  // Merges `sources`, oldest first, into the new block file `path`. The newest entry of each
  // key stays, unless it is a deletion marker or has expired; keys from the byte 0xFF on are left out, and so
  // is an entry whose value is cut off by the end of its file. A source whose keys are out of order is sorted;
  // of equal keys in it the last one counts. An entry that expires during the merge is left out with "TTL
  // verification failed". Statuses as WriteFromWal, except that an unwritten file header gives
  // kStatusBlockWriteFailed, and so does a source that can't be read; an unopened file prints "Failed to open
  // destination file: PATH".
  static uint32_t WriteFromBlocks(const std::string& path, const std::vector<BlockSource>& sources,
                                  Block** out);
  // The same from files.
  static uint32_t WriteFromBlocks(const std::string& path, const std::vector<std::string>& sources,
                                  Block** out);

  // A block over a file that was just written.
  Block(std::shared_ptr<OsFile> file, std::vector<IndexedEntry> entries);

  uint32_t Count() const;
  const std::vector<IndexedEntry>& Entries() const { return entries_; }
  // The entries in key order.
  std::string_view KeyAt(uint32_t i) const;
  DataEntry EntryAt(uint32_t i) const { return entries_[i].entry; }
  // Whether the entry carries the CRC-32C of its key and value, and which.
  bool ChecksumAt(uint32_t /*i*/, uint32_t* /*crc*/) const { return false; }
  // The first entry whose key is not before `key`; Count() when there is none.
  uint32_t LowerBound(std::string_view key) const;
  // The entry of exactly this key; Count() when there is none.
  uint32_t Find(std::string_view key) const;
  const std::shared_ptr<OsFile>& File() const { return file_; }
  // Tells the block's file apart from every other one, as long as the block lives.
  const InodeId& FileId() const { return file_->Id(); }
  // Whether there is an entry for exactly this key; deletion markers and expired entries count.
  bool Contains(const Key& key) const;
  // kStatusOk with the key's entry, kStatusInvalid without one.
  uint32_t Lookup(const Key& key, DataEntry* entry) const;
  // Reads the value of an entry from Lookup to a malloc buffer that the caller frees; null for a deletion
  // marker or an empty value.
  //
  // kStatusInvalid         the entry has expired; "TTL verification failed"
  // kStatusBlockShortRead  the file ends before the value does, or the system could not read
  // kStatusNoMemory        the buffer could not be allocated
  uint32_t ReadValue(const DataEntry& entry, void** value) const;
  // Calls `visit` for the keys in [from, to) in ascending order until it returns true. An empty `visit` with
  // a key in the range aborts the process.
  void ForEachInRange(const Key& from, const Key& to, const std::function<bool(const Key&)>& visit) const;

 private:
  const IndexedEntry* Find(const Key& key) const;

  std::shared_ptr<OsFile> file_;
  std::vector<IndexedEntry> entries_;  // ascending
};

}  // namespace Kestrun
