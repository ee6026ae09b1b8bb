// store/store_impl.h: what a store consists of.
//
// Everything that changes while the store is open stands in the parts below it, guarded by the log's lock,
// except what is said here.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "engine/core.h"
#include "kestrun/store.h"
#include "store/auto_compact.h"
#include "store/block_set.h"
#include "store/snapshot_impl.h"

namespace Kestrun {

// A list that another process keeps changing is read again so often.
inline constexpr int kMaxListReads = 20;

// Blocks that a store keeps loaded and open: as many as compaction that takes care
// of itself leaves, and more.
inline constexpr size_t kMaxOpenBlocks = 64;

// Blocks with more entries have a table in memory instead of an index, which would take about
// 60 bytes for each key.
inline constexpr uint32_t kMaxIndexedEntries = 1 << 20;

// So many searches of a store may look into the files of large blocks that have not been loaded.
inline constexpr uint32_t kMaxColdSearches = 8;

// What GetStats counts.
struct StoreCounters {
  std::atomic<uint64_t> flushes{0};
  std::atomic<uint64_t> compactions{0};
  std::atomic<uint64_t> bytesFlushed{0};
  std::atomic<uint64_t> bytesCompacted{0};
  std::atomic<uint64_t> blockHits{0};
  std::atomic<uint64_t> blockLoads{0};
  std::atomic<uint64_t> lockRetries{0};
  std::atomic<uint64_t> lockFailures{0};
};

class Store::Impl {
 public:
  Impl(std::string path, const StoreOptions& options, std::unique_ptr<Wal> wal,
       std::unique_ptr<Manifest> manifest);
  ~Impl();

  // The operations of Store, with arguments that are valid. They may throw std::bad_alloc.
  uint32_t Append(std::string_view key, std::string_view value, unsigned int ttl, bool deleted);
  uint32_t AppendBatch(std::string_view records, size_t count);
  uint32_t Get(std::string_view key, std::optional<std::string>* value);
  uint32_t DeleteRange(const Range& range);
  uint32_t Transact(const std::function<uint32_t(Transaction&)>& body);
  uint32_t TakeSnapshot(std::shared_ptr<const Snapshot::Impl>* out);
  uint32_t Flush();
  uint32_t Compact();
  uint32_t Clear();
  uint32_t Sync();
  uint32_t Checkpoint(const std::string& directory);
  uint32_t GetStats(StoreStats* out);

  // Whether the calling thread is inside the body of a transaction of this store.
  bool IsInBody() const { return bodyThread_.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

  // Below, the log's lock is held: at Exclusive for those that write.

  // Makes the log ready for an append: what its replay can't reach is put aside, so that nothing is appended
  // after it. kStatusWalChecksum when the header is damaged.
  uint32_t PrepareLog();
  // Appends with `append`, which returns a status; a full log is flushed once. kStatusWalFull at once for a
  // `size` that can never fit.
  template <typename AppendOnce>
  uint32_t AppendOrFlush(uint64_t size, AppendOnce append);
  uint32_t FlushLocked();
  // The value of a key as it is now, in the log or in a block.
  uint32_t GetLocked(std::string_view key, std::optional<std::string>* value);
  uint32_t TakeSnapshotLocked(std::shared_ptr<const Snapshot::Impl>* out);

  // The blocks of the list as it is now. kStatusBlockCorrupt is no failure here: see OpenBlock.
  uint32_t OpenBlocks(std::shared_ptr<const BlockSet>* blocks);
  // The block of one entry of the list, from the cache or loaded. `firstUse`: it may be cold.
  // kStatusBlockCorrupt when it is damaged or gone.
  uint32_t LoadBlock(const std::shared_ptr<BlockEntry>& entry, std::shared_ptr<Block>* block,
                     bool firstUse = false);

  // Merges `run`, which stand side by side in the list, into one block in their place. `toOldest`: no older
  // block remains, so that what is deleted or expired is dropped. `*done` false: the list has changed, and
  // nothing was done. Ends with kStatusLockFailed when `stop` becomes true.
  uint32_t MergeRun(const BlockEntries& run, bool toOldest, const std::atomic<bool>* stop, bool* done);

  // Writes a checkpoint into the empty directory `partial` and renames it to `target`.
  uint32_t FillCheckpoint(const Snapshot::Impl& snapshot, const std::string& partial,
                          const std::string& target);

  uint32_t ExplainFailedMerge(const BlockEntries& run, const std::atomic<bool>* stop);

  // Whether a merge would drop something of a block that has no older one.
  uint32_t HasHidden(const std::shared_ptr<BlockEntry>& entry, bool* hasHidden);
  // Merges what AutoCompact would have merged next; `*done` false when there is nothing to do, or
  // another process is at it.
  uint32_t MergeNext(const std::atomic<bool>* stop, bool* done);
  // The part of the entries of block `newer` that hides entries of the blocks before it in the list, from 0
  // to 1, as far as is known without loading anything.
  double EstimateHidden(const BlockEntries& entries, size_t newer);
  // Lets the thread order the log's index when much of it waits. The log is locked Exclusive.
  void OrderAhead();
  // Lets the thread look for something to merge, and starts it first. The log is locked Exclusive.
  void WakeAutoCompact();

  const std::string path_;
  const StoreOptions options_;
  const int processId_;  // of the process that opened the store; a forked child gets no thread
  const std::unique_ptr<Wal> wal_;
  const std::unique_ptr<Manifest> manifest_;
  BlockCache cache_{kMaxOpenBlocks, kMaxIndexedEntries};
  StoreCounters counters_;
  const Core core_;

 private:
  // The turn of this process to merge, for a scope.
  class MergeTurn {
   public:
    explicit MergeTurn(Impl& store);
    ~MergeTurn();
    MergeTurn(const MergeTurn&) = delete;
    MergeTurn& operator=(const MergeTurn&) = delete;
    bool IsOurs() const { return isOurs_; }

   private:
    Impl& store_;
    bool isOurs_;
  };

  uint32_t ListAgain(ManifestListPointer* list);
  uint32_t SearchBlock(const std::shared_ptr<BlockEntry>& entry, std::string_view key,
                       std::shared_ptr<Block>* block, std::optional<FoundEntry>* found);
  uint32_t SearchBlocks(std::string_view key, std::shared_ptr<Block>* block,
                        std::optional<FoundEntry>* found);

  std::atomic<uint32_t> coldSearches_{0};
  std::atomic<std::thread::id> bodyThread_{std::thread::id()};
  std::weak_ptr<const BlockSet> lastSet_;                // guarded by the log's lock
  std::unordered_map<std::string, double> hiddenParts_;  // of blocks by name; for the thread of autoCompact_
  std::unique_ptr<AutoCompact> autoCompact_;             // null before the first flush; goes first
};

// Sees to it that a full disk, missing permission or another failure of the system has its reason told.
void TellReason(const Diagnostics& diagnostics, const char* what, const std::string& path, int error);

template <typename AppendOnce>
uint32_t Store::Impl::AppendOrFlush(uint64_t size, AppendOnce append) {
  OrderAhead();
  uint32_t status = append();
  if (status == kStatusInvalid) {
    if (status = PrepareLog(); status != kStatusOk) return status;
    status = append();
  }
  if (status != kStatusWalFull || size > wal_->MaxBatchSize()) return status;
  status = FlushLocked();
  return status == kStatusOk ? append() : status;
}

}  // namespace Kestrun
