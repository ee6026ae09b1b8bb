// store/auto_compact.h: compaction that takes care of itself: a thread that merges runs of neighbouring
// blocks. Between merges it orders the log's index while that grows.
//
// Blocks are sorted into tiers by their size, each four times as large as the one before. Four neighbours of
// one tier become one block of the next: so N flushes leave O(log N) blocks, and each byte is written
// O(log N) times. Where newer blocks hide much of what older ones hold, all of them become one.
//
// Threads:  one thread of its own for each store that has it on. It blocks all signals, and holds no lock
//           while it merges. A forked child does not have it.
// Processes: several may have it on; one of them merges at a time.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "kestrun/store.h"

namespace Kestrun {

struct LogFilling;

// Which blocks to merge next, as places in the list; `count` 0: none.
struct MergeChoice {
  size_t first = 0;
  size_t count = 0;
};

// Chooses among blocks of these sizes in bytes, oldest first. `unit` is the size of what one flush writes.
MergeChoice ChooseMerge(const std::vector<uint64_t>& sizes, uint64_t unit);

class AutoCompact {
 public:
  // Starts the thread. `store` outlives it. Throws std::bad_alloc or std::system_error.
  explicit AutoCompact(Store::Impl& store);
  // Ends the thread, a merge in progress included.
  ~AutoCompact();
  AutoCompact(const AutoCompact&) = delete;
  AutoCompact& operator=(const AutoCompact&) = delete;

  // Has the thread look whether there is something to merge.
  void Wake();
  // Has the thread order the index of the log, of which the next flush has less to do then.
  void Order(std::shared_ptr<const LogFilling> filling);

 private:
  void Run();
  bool MergeOnce();

  Store::Impl& store_;
  const int processId_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> isOrdering_{false};  // or is about to
  struct Signal {
    std::mutex mutex;
    std::condition_variable wake;
    // Guarded by mutex.
    bool isAwake = true;  // there may have been flushes before
    std::shared_ptr<const LogFilling> toOrder;
  };
  std::unique_ptr<Signal> signal_;
  std::thread thread_;
};

}  // namespace Kestrun
