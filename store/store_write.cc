// Writing: single entries, batches, ranges, and what makes room for them.
#include "base/clock.h"
#include "kestrun/status.h"
#include "storage/directory.h"
#include "store/cursor_impl.h"
#include "store/damaged_log.h"
#include "store/store_impl.h"
#include "store/write_batch_access.h"

namespace Kestrun {

// Appending after a record that is not sound would make an entry that no other process ever sees. What the
// replay can't reach is put aside, the rest becomes a block, and the log is reset.
uint32_t Store::Impl::PrepareLog() {
  if (!wal_->CatchUp()) {
    core_.diagnostics.Print("Invalid wal checksum");
    return kStatusWalChecksum;
  }
  const uint32_t used = wal_->Used();
  if (wal_->ReplayedEnd() >= used) return kStatusOk;
  if (const uint32_t status = SaveUnreachable(core_, wal_->ReplayedEnd(), used); status != kStatusOk)
    return status;
  if (wal_->Index().KeyCount() != 0) return FlushLocked();
  wal_->PrepareReset();
  IgnoreStatus(wal_->Reset());  // always succeeds
  wal_->SyncFirstPage();
  return kStatusOk;
}

uint32_t Store::Impl::FlushLocked() {
  uint64_t blockBytes = 0;
  if (const uint32_t status = core_.FlushLocked(&blockBytes); status != kStatusOk) return status;
  ++counters_.flushes;
  counters_.bytesFlushed += blockBytes;
  WakeAutoCompact();
  return kStatusOk;
}

uint32_t Store::Impl::Append(std::string_view key, std::string_view value, unsigned int ttl, bool deleted) {
  const LogSection section(core_, LockLevel::Exclusive);
  if (section.Status() != kStatusOk) return section.Status();
  const uint64_t size = sizeof(WalRecord) + key.size() + uint64_t{value.size()};
  return AppendOrFlush(size, [&] { return wal_->AppendMarked(key, ttl, value, deleted); });
}

uint32_t Store::Impl::AppendBatch(std::string_view records, size_t count) {
  const LogSection section(core_, LockLevel::Exclusive);
  if (section.Status() != kStatusOk) return section.Status();
  return AppendOrFlush(records.size(), [&] { return wal_->AppendBatch(records, count); });
}

uint32_t Store::Impl::Flush() {
  const LogSection section(core_, LockLevel::Exclusive);
  if (section.Status() != kStatusOk) return section.Status();
  if (const uint32_t status = PrepareLog(); status != kStatusOk) return status;
  return wal_->Index().KeyCount() == 0 ? kStatusOk : FlushLocked();
}

// All of it under one lock: one batch if it fits, else as many as it takes.
uint32_t Store::Impl::DeleteRange(const Range& range) {
  const LogSection section(core_, LockLevel::Exclusive);
  if (section.Status() != kStatusOk) return section.Status();
  if (const uint32_t status = PrepareLog(); status != kStatusOk) return status;
  std::shared_ptr<const Snapshot::Impl> snapshot;
  if (const uint32_t status = TakeSnapshotLocked(&snapshot); status != kStatusOk) return status;

  WriteBatch batch;
  const auto write = [&]() -> uint32_t {
    if (batch.Count() == 0) return kStatusOk;
    const std::string_view records = WriteBatchAccess::Records(batch);
    const uint32_t status =
        AppendOrFlush(records.size(), [&] { return wal_->AppendBatch(records, batch.Count()); });
    batch.Clear();
    return status;
  };
  Cursor::Impl cursor(snapshot, range);
  for (cursor.SeekToFirst(); cursor.Valid(); cursor.Next()) {
    const std::string_view key = cursor.Key();
    if (batch.ByteSize() + sizeof(WalRecord) + key.size() > wal_->MaxBatchSize()) {
      if (const uint32_t status = write(); status != kStatusOk) return status;
    }
    if (const uint32_t status = batch.Delete(key); status != kStatusOk) return status;
  }
  if (cursor.Status() != kStatusOk) return cursor.Status();
  return write();
}

// The blocks go before the log: if this ends in the middle, what is left is newer than what is gone.
uint32_t Store::Impl::Clear() {
  const LogSection section(core_, LockLevel::Exclusive);
  if (section.Status() != kStatusOk) return section.Status();
  if (!wal_->CatchUp()) return kStatusWalChecksum;
  wal_->PrepareReset();
  BlockEntries entries;
  {
    const ManifestSection manifest(core_, LockLevel::Exclusive);
    if (manifest.Status() != kStatusOk) return manifest.Status();
    if (const uint32_t status = manifest_->Load(); status != kStatusOk) return status;
    entries = manifest_->Entries();
    if (const uint32_t status = manifest_->Clear(); status != kStatusOk) return status;
  }
  for (const std::shared_ptr<BlockEntry>& entry : entries) cache_.Erase(entry->name);
  lastSet_.reset();
  IgnoreStatus(wal_->Reset());  // always succeeds
  wal_->SyncFirstPage();
  // Files that no list names any more: readers that have them open go on reading them.
  for (const std::shared_ptr<BlockEntry>& entry : entries) {
    IgnoreStatus(std::remove(core_.BlockPath(entry->name).c_str()));  // an orphan only takes up space
  }
  return kStatusOk;
}

uint32_t Store::Impl::Sync() {
  if (wal_->SyncUsed() && manifest_->File()->Sync() == 0 && SyncDirectory(path_)) return kStatusOk;
  TellReason(core_.diagnostics, "Failed to sync", path_, errno);
  return kStatusSyncFailed;
}

}  // namespace Kestrun
