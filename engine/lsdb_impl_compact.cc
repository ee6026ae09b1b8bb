// Merging the blocks, and emptying the store.
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "base/catch_bad_alloc.h"
#include "engine/core.h"
#include "engine/load_block.h"
#include "engine/manifest_filter.h"
#include "engine/pending_block_file.h"
#include "format/block_format.h"
#include "format/file_names.h"
#include "kestrun/lsdb.h"
#include "storage/directory.h"

namespace Kestrun {

uint32_t LSDBImpl::ForceCompact() {
  if (!IsOpen()) return kStatusWalOpenFailed;
  return CatchBadAlloc([&] { return Compact(); });
}

// Takes the list of blocks without a lock, merges them, and puts the merged block in their place under the
// manifest's lock if all of them are still listed. The old files go last, when the new list is on the disk.
uint32_t LSDBImpl::Compact() {
  const Core core = MakeCore();
  BlockEntries old;
  if (const uint32_t status = manifest_->LoadUnlocked(&old); status != kStatusOk) return status;
  if (old.size() < kMinBlocksToCompact) return kStatusOk;

  // A cached block is merged from memory and its open file, whatever has become of its path. Of the others,
  // one whose file is gone is left out; one that merely can't be read at the moment ends the compaction,
  // because its file would be deleted with the others.
  std::vector<BlockSource> sources;
  for (const std::shared_ptr<BlockEntry>& entry : old) {
    const std::string path = core.BlockPath(entry->name);
    if (std::shared_ptr<Block> cached = cache_->Find(entry->name, path, entry); cached != nullptr) {
      sources.push_back({path, std::move(cached)});
    } else if (uint32_t status = Block::Verify(path); status == kStatusOk) {
      sources.push_back({path, nullptr});
    } else if (status = ClassifyLoadFailure(status, path); status != kStatusOk) {
      return status;
    }
  }

  PendingBlockFile file;
  if (const uint32_t status = file.Create(path_, manifest_->ExternalChanges() != 0); status != kStatusOk)
    return status;
  Block* merged = nullptr;
  if (const uint32_t status = Block::WriteFromBlocks(file.Path(), sources, &merged, core.diagnostics);
      status != kStatusOk) {
    // Where others have compacted or cleared the store meanwhile, its files are gone for a good reason.
    const ManifestSection manifest(core, LockLevel::Shared);
    if (manifest.Status() != kStatusOk) return manifest.Status();
    return manifest_->StillLists(old) ? status : kStatusOk;
  }
  const std::shared_ptr<Block> block(merged);
  file.Commit();
  std::vector<uint8_t> filter;
  if (const uint32_t status = BuildManifestFilter(*block, &filter); status != kStatusOk) return status;
  {
    const ManifestSection manifest(core, LockLevel::Exclusive);
    if (manifest.Status() != kStatusOk) return manifest.Status();
    bool replaced = false;
    const uint32_t status = manifest_->Replace(old, file.Name(), filter, &replaced);
    if (replaced) {
      for (const std::shared_ptr<BlockEntry>& entry : old) cache_->Erase(entry->name);
      cache_->Put(file.Name(), block, manifest_->FindEntry(file.Name()));
    }
    if (status != kStatusOk) {
      core.diagnostics.Print("Failed to update manifest");
      return status;
    }
    if (!replaced) {
      file.Abandon();
      return kStatusOk;
    }
  }
  for (const std::shared_ptr<BlockEntry>& entry : old) {
    IgnoreStatus(std::remove(core.BlockPath(entry->name).c_str()));  // Clear removes what stays
  }
  return RemoveLegacyFiles();
}

// Only where a log of the earlier format tells that there may be such files.
uint32_t LSDBImpl::RemoveLegacyFiles() {
  const std::string legacyWal = path_ + "/" + kLegacyWalFileName;
  if (access(legacyWal.c_str(), F_OK) != 0) return kStatusOk;
  IgnoreStatus(std::remove(legacyWal.c_str()));  // looked for again by the next compaction
  return RemoveFilesContaining(path_, kLegacyBlockFileMark);
}

// The cache is left alone: no search reaches the blocks in it without the manifest.
uint32_t LSDBImpl::Clear() {
  if (!IsOpen()) return kStatusWalOpenFailed;
  return CatchBadAlloc([&]() -> uint32_t {
    const Core core = MakeCore();
    const LogSection log(core, LockLevel::Exclusive);
    if (log.Status() != kStatusOk) return log.Status();
    wal_->PrepareReset();
    IgnoreStatus(wal_->Reset());  // always succeeds
    wal_->SyncFirstPage();
    const ManifestSection manifest(core, LockLevel::Exclusive);
    if (manifest.Status() != kStatusOk) return manifest.Status();
    IgnoreStatus(manifest_->Truncate());  // what can't be cut is cut by the next flush
    return RemoveFilesContaining(path_, kBlockFileSuffix);
  });
}

}  // namespace Kestrun
