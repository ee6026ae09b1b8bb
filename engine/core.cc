#include "engine/core.h"

#include "base/key_bytes.h"
#include "engine/load_block.h"
#include "engine/manifest_filter.h"
#include "engine/pending_block_file.h"
#include "format/block_format.h"
#include "kestrun/status.h"

namespace Kestrun {

std::string Core::BlockPath(const std::string& name) const {
  return path + "/" + name + kBlockFileSuffix;
}

uint32_t Core::FlushLocked(uint64_t* blockBytes) const {
  NoticeManifestChanges();
  wal.CatchUp();
  wal.PrepareReset();

  PendingBlockFile file;
  Block* written = nullptr;
  uint32_t status = file.Create(path, manifest.ExternalChanges() != 0);
  if (status == kStatusOk) status = Block::WriteFromWal(file.Path(), wal, &written);
  if (status != kStatusOk) {
    diagnostics.Print("Failed to dump wal file");
    return status;
  }
  const std::shared_ptr<Block> block(written);
  file.Commit();
  status = RecordFlushedBlock(file.Name(), block);
  if (status != kStatusOk) return status;
  if (blockBytes != nullptr) IgnoreStatus(block->File()->Size(blockBytes));  // 0 says as much

  IgnoreStatus(wal.Reset());  // always succeeds
  wal.SyncFirstPage();
  return kStatusOk;
}

// A block that is recorded but could not be synced is used like any other; the log keeps its entries then.
uint32_t Core::RecordFlushedBlock(const std::string& name, const std::shared_ptr<Block>& block) const {
  std::vector<uint8_t> filter;
  if (const uint32_t status = BuildManifestFilter(*block, &filter); status != kStatusOk) return status;
  const ManifestSection section(*this, LockLevel::Exclusive);
  if (section.Status() != kStatusOk) return section.Status();
  const uint32_t status = manifest.Append(name, filter);
  if (status != kStatusOk) diagnostics.Print("Failed to update manifest");
  if (status == kStatusOk || status == kStatusSyncFailed) {
    cache.Put(name, block, manifest.FindEntry(name));
  }
  return status;
}

bool Core::MayContain(const std::shared_ptr<BlockEntry>& entry, const BlockFilter::Probe& probe) const {
  if (const std::optional<bool> known = cache.AskFilter(entry->name, probe, entry); known.has_value())
    return *known;
  return cache.MayContain(entry->name, BlockPath(entry->name), probe, entry);
}

uint32_t Core::FindBlock(const Key& key, std::shared_ptr<Block>* found) const {
  const BlockEntries candidates = manifest.FindCandidates(key);
  const BlockFilter::Probe probe(BytesOf(key));
  for (auto entry = candidates.rbegin(); entry != candidates.rend(); ++entry) {
    if (!MayContain(*entry, probe)) continue;
    const std::string blockPath = BlockPath((*entry)->name);
    uint32_t failure = kStatusOk;
    std::shared_ptr<Block> block = LoadBlock(cache, (*entry)->name, blockPath, *entry, &failure);
    if (failure != kStatusOk) return failure;
    if (block != nullptr && block->Contains(key)) {
      *found = std::move(block);
      return kStatusOk;
    }
  }
  return kStatusOk;
}

namespace {

// Whoever calls the store from inside another section of the file, as from the body of a transaction
// on another handle, has one lock for both. The older face gives up its part of it and leaves the
// gate byte locked (Compat: unlock-shared-keeps-gate), which would keep other processes out for as
// long as this one does nothing.
void UnlockWholly(OsFile& file, LockLevel level, const LockPatience& patience) {
  InodeInfo& inode = *file.Inode();
  if (!patience.isOlderFace && inode.level != level) inode.DropAll(file.Descriptor());
  IgnoreStatus(file.Unlock(level));  // nobody is left to tell
}

}  // namespace

LogSection::LogSection(const Core& core, LockLevel level)
    : file_(core.wal.File()),
      level_(level),
      patience_(core.patience),
      status_(LockPatiently(*file_, level, core.patience, &isEntered_)) {
  if (status_ == kStatusOk) {
    core.NoticeManifestChanges();
  } else {
    core.diagnostics.Print("Failed lock wal");
  }
}

LogSection::~LogSection() {
  if (isEntered_) UnlockWholly(*file_, level_, patience_);
}

ManifestSection::ManifestSection(const Core& core, LockLevel level)
    : file_(core.manifest.File()),
      level_(level),
      patience_(core.patience),
      status_(LockPatiently(*file_, level, core.patience, &isEntered_)) {
  if (status_ != kStatusOk) core.diagnostics.Print("Failed lock manifest");
}

ManifestSection::~ManifestSection() {
  if (isEntered_) UnlockWholly(*file_, level_, patience_);
}

uint32_t LockPatiently(OsFile& file, LockLevel level, const LockPatience& patience, bool* isEntered) {
  if (patience.isOlderFace) {
    *isEntered = true;
    return file.Lock(level);
  }
  const uint32_t status = file.LockWithin(level, patience.milliseconds, patience.retries, patience.failures);
  *isEntered = status == kStatusOk;
  return status;
}

}  // namespace Kestrun
