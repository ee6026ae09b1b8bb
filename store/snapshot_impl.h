// store/snapshot_impl.h: what a snapshot holds.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kestrun/snapshot.h"
#include "storage/wal.h"
#include "store/block_set.h"

namespace Kestrun {

class Snapshot::Impl {
 public:
  Impl(LogView logView, std::shared_ptr<const BlockSet> blockSet, uint64_t now)
      : log(std::move(logView)), blocks(std::move(blockSet)), seconds(now) {}

  // As Snapshot::Get, for a valid key. May throw std::bad_alloc.
  uint32_t Get(std::string_view key, std::optional<std::string>* value) const;
  // The value of a version of the log, whose key is `key`. kStatusBlockCorrupt when it lies outside the
  // copy or fails its checksum.
  uint32_t ViewLogValue(std::string_view key, const LogIndex::Version& version,
                        std::string_view* value) const;

  const LogView log;
  const std::shared_ptr<const BlockSet> blocks;
  const uint64_t seconds;  // what is alive is judged by this second
};

// Compares the checksum that a marked record of a log carries with its key and value. `record` points to its
// 40 bytes. True also for a record without the mark.
bool IsRecordContentSound(const uint8_t* record, std::string_view key, std::string_view value);

}  // namespace Kestrun
