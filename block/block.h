// block/block.h: one immutable, sorted block file: its keys and entries in memory, or where they
// lie; its values on disk.
//
// Ownership: held through std::shared_ptr; the file stays open until the last reference goes, also after it
//            was removed from the directory. No mapping of it exists: a file that is cut short under an open
//            store gives a status.
// Threads:   a block never changes; any number of threads may use it at once.
// Failure:   statuses. Loading, writing and scanning may throw std::bad_alloc.
// Bytes:     format/block_format.h.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/diagnostics.h"
#include "block/block_index.h"
#include "block/block_table.h"
#include "kestrun/data_entry.h"
#include "kestrun/key.h"
#include "storage/os_file.h"

namespace Kestrun {

class Block;
class Wal;

// What a merge reads: a block that is loaded, from its own index, if it has one, and its open file; or else
// the file at a path.
struct BlockSource {
  std::string path;              // not looked at when there is a block
  std::shared_ptr<Block> block;  // may be null
};

// How Merge differs from WriteFromBlocks.
struct MergeOptions {
  // Tombstones and expired entries stay: they hide what older blocks hold that are not merged.
  bool keepsHidden = false;
  // If set, the merge ends with kStatusBlockWriteFailed soon after it becomes true.
  const std::atomic<bool>* stop = nullptr;
  // Where the sources have more entries, the merge takes little memory, whatever their number, and gives a
  // block with a learned table.
  uint32_t maxIndexed = UINT32_MAX;
};

// In the place of a page size: that with which the file was written is found out.
inline constexpr uint64_t kAnyPageSize = 1;

// How much of a block file is taken into memory.
struct BlockLoading {
  // A block with more entries has a table instead of an index.
  uint32_t maxIndexed = UINT32_MAX;
  // Whether such a table is learned.
  bool learns = false;
};

// A block has an index or a table. Unless something else is said, its functions are those of
// a block with an index.
class Block {
 public:
  // Loads a block file that was written with `pageSize`, 0 being this machine's. On success `*out` is a Block
  // that the caller owns.
  //
  // kStatusOpenFailed, kStatusStatFailed  the file can't be opened or inspected
  // kStatusBlockShortRead  the system could not read
  // kStatusBlockCorrupt    a header or an entry is cut off, a checksum fails, or a key lies outside the key
  //                        table. An entry that begins within its table counts, wherever the table ends, and
  //                        only the padding at its end may be missing
  // kStatusMapFailed       the size of a table is 0
  static uint32_t Load(const std::string& path, Block** out, uint64_t pageSize = 0);
  // The same, with a table where `loading` says so. A learned table that is out of order is loaded as an
  // index. `*filter`, when asked for, is filled with the keys; null for a table that was not learned.
  static uint32_t Load(const std::string& path, const BlockLoading& loading, Block** out,
                       uint64_t pageSize = 0, std::shared_ptr<const BlockFilter>* filter = nullptr);
  // Checks a block file as Load does, without building anything.
  static uint32_t Verify(const std::string& path);

  // Writes the log's entries in [MinKey, MaxKey), tombstones and expired entries included, to the new block
  // file `path`, and syncs the file and its name. The caller holds the log's lock. An existing file is
  // overwritten from its start and not cut. After a failure what was written stays.
  //
  // kStatusOpenFailed, kStatusStatFailed  the file can't be opened or inspected
  // kStatusCreateFailed      the file header could not be written
  // kStatusBlockWriteFailed  a section could not be written, a value lies outside the log, or the block
  //                          would reach 4 GiB (no file is made in the last two cases)
  // kStatusSyncFailed        the file could not be synced
  static uint32_t WriteFromWal(const std::string& path, Wal& wal, Block** out);

  // Merges `sources`, oldest first, into the new block file `path`. The newest entry of each key stays,
  // unless it is a tombstone or has expired; keys from the byte 0xFF on are left out, and so is an entry
  // whose value is cut off by the end of its file. A source whose keys are out of order is sorted; of equal
  // keys in it the last one counts. An entry that expires during the merge is left out with "TTL
  // verification failed". Statuses as WriteFromWal, except that an unwritten file header gives
  // kStatusBlockWriteFailed, and so does a source that can't be read; an unopened file gives the message
  // "Failed to open destination file: PATH".
  static uint32_t WriteFromBlocks(const std::string& path, const std::vector<BlockSource>& sources,
                                  Block** out, const Diagnostics& diagnostics = Diagnostics::Printing());
  // The same from files.
  static uint32_t WriteFromBlocks(const std::string& path, const std::vector<std::string>& sources,
                                  Block** out, const Diagnostics& diagnostics = Diagnostics::Printing());

  // Merges `sources`, oldest first, as WriteFromBlocks does, except that nothing is left out for any other
  // reason than its being deleted or expired when the merge begins: a value that its file does not hold gives
  // kStatusBlockCorrupt. Without messages. `*filter`, when asked for, is filled with the keys of a block with
  // a table; null for one with an index.
  static uint32_t Merge(const std::string& path, const std::vector<BlockSource>& sources,
                        const MergeOptions& options, Block** out,
                        std::shared_ptr<const BlockFilter>* filter = nullptr);

  // A block over a file that was just written, or whose index was read before.
  Block(std::shared_ptr<OsFile> file, std::shared_ptr<const BlockIndex> index);
  Block(std::shared_ptr<OsFile> file, std::shared_ptr<const BlockTable> table);

  // Entries are numbered in the order of the file, which is that of their keys. Also with a table.
  uint32_t Count() const { return index_ != nullptr ? index_->Count() : table_->Count(); }
  // Both until the block goes.
  std::string_view KeyAt(uint32_t index) const { return index_->KeyAt(index); }
  DataEntry EntryAt(uint32_t index) const { return index_->EntryAt(index); }
  // The first entry whose key is not before `key`; Count() when there is none.
  uint32_t LowerBound(std::string_view key) const { return index_->LowerBound(key); }
  // The entry with this key; Count() when there is none.
  uint32_t Find(std::string_view key) const { return index_->Find(key); }

  // One of the two is null.
  const std::shared_ptr<const BlockIndex>& Index() const { return index_; }
  const std::shared_ptr<const BlockTable>& Table() const { return table_; }
  // Whether nothing but the headers has been read.
  bool IsCold() const { return table_ != nullptr && !table_->IsLearned(); }
  // These do with a table as well.
  const std::shared_ptr<OsFile>& File() const { return file_; }
  // Tells the block's file apart from every other one, as long as the block lives.
  const InodeId& FileId() const { return file_->Id(); }

  // Whether there is an entry for exactly this key; tombstones and expired entries count.
  bool Contains(const Key& key) const;
  // kStatusOk with the key's entry, kStatusInvalid without one.
  uint32_t Lookup(const Key& key, DataEntry* entry) const;
  // False when a long value of this block surely is cut off: a damaged entry may claim 4 GiB, and no
  // memory is taken for that.
  bool MayHoldValue(const DataEntry& entry) const;
  // Reads the value of an entry from Lookup to a malloc buffer that the caller frees; null for a tombstone or
  // an empty value.
  //
  // kStatusInvalid         the entry has expired; "TTL verification failed"
  // kStatusBlockShortRead  the file ends before the value does, or the system could not read
  // kStatusNoMemory        the buffer could not be allocated
  uint32_t ReadValue(const DataEntry& entry, void** value,
                     const Diagnostics& diagnostics = Diagnostics::Printing()) const;
  // Calls `visit` for the keys in [from, to) in ascending order until it returns true. An empty `visit` with
  // a key in the range aborts the process.
  void ForEachInRange(const Key& from, const Key& to, const std::function<bool(const Key&)>& visit) const;

 private:
  std::shared_ptr<OsFile> file_;
  std::shared_ptr<const BlockIndex> index_;
  std::shared_ptr<const BlockTable> table_;
};

}  // namespace Kestrun
