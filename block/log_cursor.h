// block/log_cursor.h: the entries of a log, for a flush.
#pragma once

#include <cstdint>

#include "block/entry_cursor.h"
#include "storage/log_index.h"
#include "storage/wal.h"

namespace Kestrun {

// The newest entry of each key in the range of scans, tombstones and expired ones included. The values are
// copied straight from the log's mapping.
//
// Ownership: borrows the log, which must not change meanwhile: the caller holds its lock.
class LogCursor final : public EntryCursor {
 public:
  explicit LogCursor(Wal& wal) : wal_(wal), position_(wal.Index()) {}

  uint32_t Start() override;
  // kStatusBlockWriteFailed, and "wal boundary verification failed", when a value lies outside the log.
  uint32_t Next(bool* end) override;
  bool HoldsValue(uint32_t source, uint64_t offset, uint64_t size) override;
  void Prefetch(uint32_t source, uint64_t offset, uint64_t size) override;
  bool CopyValues(uint32_t source, uint64_t offset, uint64_t size, BufferedWriter& out) override;

 private:
  const uint8_t* View(uint64_t offset, uint64_t size);

  Wal& wal_;
  LogIndex::Iterator position_;
  bool started_ = false;
};

}  // namespace Kestrun
