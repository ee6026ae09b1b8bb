// How the log's entries become a block.
#include <cstdio>

#include "base/catch_bad_alloc.h"
#include "block/block_cache.h"
#include "engine/block_filter.h"
#include "engine/listed_block.h"
#include "engine/pending_block_file.h"
#include "kestrun/lsdb.h"
#include "storage/manifest.h"
#include "storage/wal.h"

namespace Kestrun {

uint32_t LSDBImpl::ResetWal() {
  if (!IsOpen()) return kStatusWalOpenFailed;
  return CatchBadAlloc([&] { return Flush(nullptr); });
}

// Writes the block, records it in the manifest, publishes it in the cache, empties the log and then does
// `afterReset`, all under the log's lock. The log is emptied last, so that at every moment each entry can be
// reached through the log or through a recorded block; an earlier failure leaves the log whole. Its emptiness
// is forced to the disk before anything is appended: the records of a log that was flushed twice since must
// not come back over newer blocks.
uint32_t LSDBImpl::Flush(const std::function<uint32_t()>& afterReset) {
  const FileLockGuard walLock(wal_->File(), LockLevel::Exclusive);
  if (walLock.Status() != kStatusOk) {
    std::printf("Failed lock wal");
    return walLock.Status();
  }
  OnManifestChanges();
  wal_->CatchUp();

  PendingBlockFile file;
  Block* written = nullptr;
  uint32_t status = file.Create(path_, manifest_->ExternalChanges() != 0);
  if (status == kStatusOk) status = Block::WriteFromWal(file.Path(), *wal_, &written);
  if (status != kStatusOk) {
    std::printf("Failed to dump wal file");
    return status;
  }
  const std::shared_ptr<Block> block(written);
  file.Commit();
  status = RecordFlushedBlock(file.Name(), block);
  if (status != kStatusOk) return status;

  IgnoreStatus(wal_->Reset());  // always succeeds
  wal_->SyncFirstPage();
  return afterReset ? afterReset() : kStatusOk;
}

// A block that is recorded but could not be forced to the disk is used like any other; the log keeps its
// entries then.
uint32_t LSDBImpl::RecordFlushedBlock(const std::string& name, const std::shared_ptr<Block>& block) {
  const std::vector<uint8_t> filter = BuildBlockFilter(*block);
  const FileLockGuard manifestLock(manifest_->File(), LockLevel::Exclusive);
  if (manifestLock.Status() != kStatusOk) {
    std::printf("Failed lock manifest");
    return manifestLock.Status();
  }
  const uint32_t status = manifest_->Append(name, filter);
  if (status != kStatusOk) std::printf("Failed to update manifest");
  if (status == kStatusOk || status == kStatusSyncFailed) {
    cache_->Put(name, block, FindListedBlock(*manifest_, name));
  }
  return status;
}

}  // namespace Kestrun
