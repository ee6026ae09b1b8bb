// kestrun/stats.h: what Store::GetStats tells.
#pragma once

#include <cstdint>

namespace Kestrun {

// Figures of one open store. Those of the first two groups describe the directory as this process knows it;
// the others count since the store was opened, what other processes do not included.
struct StoreStats {
  uint64_t logCapacity = 0;  // bytes of the log file
  uint64_t logUsed = 0;      // bytes of it in use, its header of 128 bytes included
  uint64_t logEntries = 0;   // keys in the log, tombstones included

  uint64_t blocks = 0;      // recorded in the manifest
  uint64_t blockBytes = 0;  // of their files

  uint64_t flushes = 0;
  uint64_t compactions = 0;     // merges of the store's own thread included
  uint64_t bytesFlushed = 0;    // of the block files that flushes wrote
  uint64_t bytesCompacted = 0;  // of the block files that merges wrote

  uint64_t blockHits = 0;   // searches of a block that was in memory
  uint64_t blockLoads = 0;  // blocks read into memory

  uint64_t lockRetries = 0;   // times that a lock was not had at once
  uint64_t lockFailures = 0;  // times that it was given up
};

}  // namespace Kestrun
