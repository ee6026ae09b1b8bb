// Merging blocks, for Compact and for the store's thread.
#include <algorithm>

#include "base/clock.h"
#include "block/block_pages.h"
#include "engine/manifest_filter.h"
#include "engine/pending_block_file.h"
#include "kestrun/status.h"
#include "store/auto_compact.h"
#include "store/store_impl.h"

namespace Kestrun {
namespace {

// A byte of the manifest file, after those of its lock and of the schema's: locked
// by the process that merges.
constexpr int64_t kMergeByte = 0x40000201;

// Compact is tried again when others have changed the list meanwhile.
constexpr int kMaxCompactions = 10;

}  // namespace

// The byte is only a matter of not doing work twice: a merge is recorded if its blocks are still listed.
Store::Impl::MergeTurn::MergeTurn(Impl& store) : store_(store) {
  const FileLockGuard threadLock(store_.manifest_->File(), LockLevel::ThreadOnly);
  isOurs_ = store_.manifest_->File()->LockByte(kMergeByte);
}

Store::Impl::MergeTurn::~MergeTurn() {
  if (isOurs_) store_.manifest_->File()->UnlockByte(kMergeByte);
}

uint32_t Store::Impl::MergeRun(const BlockEntries& run, bool toOldest, const std::atomic<bool>* stop,
                               bool* done) {
  *done = false;
  // A block that is in memory is merged from there and from its open file; others are read forward.
  std::vector<BlockSource> sources;
  for (const std::shared_ptr<BlockEntry>& entry : run) {
    const std::string path = core_.BlockPath(entry->name);
    sources.push_back({path, cache_.Find(entry->name, path, entry)});
  }

  PendingBlockFile file;
  if (const uint32_t status = file.Create(path_, true); status != kStatusOk) return status;
  Block* written = nullptr;
  MergeOptions options;
  options.keepsHidden = !toOldest;
  options.stop = stop;
  options.maxIndexed = kMaxIndexedEntries;
  std::shared_ptr<const BlockFilter> keys;
  if (const uint32_t status = Block::Merge(file.Path(), sources, options, &written, &keys);
      status != kStatusOk) {
    return status == kStatusBlockWriteFailed ? ExplainFailedMerge(run, stop) : status;
  }
  const std::shared_ptr<Block> block(written);
  std::vector<uint8_t> filter;
  if (const uint32_t status = BuildManifestFilter(*block, &filter); status != kStatusOk) return status;
  {
    const ManifestSection section(core_, LockLevel::Exclusive);
    if (section.Status() != kStatusOk) return section.Status();
    // Whatever fails from here on, memory that runs out included: the list names the file then, or the
    // journal may still bring it into the list.
    file.Commit();
    const uint32_t status = manifest_->Replace(run, file.Name(), filter, done);
    if (*done) {
      for (const std::shared_ptr<BlockEntry>& entry : run) cache_.Erase(entry->name);
      cache_.Put(file.Name(), block, manifest_->FindEntry(file.Name()), keys);
    }
    if (status != kStatusOk) {
      core_.diagnostics.Print("Failed to update manifest");
      return status;
    }
  }
  if (!*done) {
    file.Abandon();
    return kStatusOk;
  }
  ++counters_.compactions;
  uint64_t bytes = 0;
  if (block->File()->Size(&bytes) == 0) counters_.bytesCompacted += bytes;
  for (const std::shared_ptr<BlockEntry>& entry : run) {
    IgnoreStatus(std::remove(core_.BlockPath(entry->name).c_str()));  // an orphan only takes up space
  }
  return kStatusOk;
}

// A source that can't be read has a status of its own.
uint32_t Store::Impl::ExplainFailedMerge(const BlockEntries& run, const std::atomic<bool>* stop) {
  if (stop != nullptr && stop->load(std::memory_order_relaxed)) return kStatusLockFailed;
  for (const std::shared_ptr<BlockEntry>& entry : run) {
    std::shared_ptr<Block> block;
    if (const uint32_t status = LoadBlock(entry, &block); status != kStatusOk) return status;
  }
  return kStatusBlockWriteFailed;
}

uint32_t Store::Impl::Compact() {
  if (const uint32_t status = Flush(); status != kStatusOk) return status;
  for (int attempt = 0; attempt < kMaxCompactions; ++attempt) {
    ManifestListPointer list;
    if (const uint32_t status = manifest_->LoadUnlocked(&list); status != kStatusOk) return status;
    if (list->entries.empty()) return kStatusOk;
    uint32_t status = kStatusOk;
    if (list->entries.size() == 1) {
      bool hasHidden = false;
      status = HasHidden(list->entries[0], &hasHidden);
      if (status == kStatusOk && !hasHidden) return kStatusOk;
    }
    bool done = false;
    if (status == kStatusOk) status = MergeRun(list->entries, true, nullptr, &done);
    if (status == kStatusOk && done) return kStatusOk;
    // The sources of a merge are gone when another process was quicker. Some of them may be in memory all the
    // same, so that nothing but the list tells.
    const bool mayBeGone = status == kStatusBlockCorrupt || status == kStatusBlockWriteFailed;
    if (status != kStatusOk && !mayBeGone) return status;
    ManifestListPointer again;
    if (const uint32_t listed = manifest_->LoadUnlocked(&again); listed != kStatusOk) return listed;
    if (status != kStatusOk && again->entries == list->entries) return status;
  }
  return kStatusLockFailed;
}

// Whether a block holds something that a merge would drop.
uint32_t Store::Impl::HasHidden(const std::shared_ptr<BlockEntry>& entry, bool* hasHidden) {
  std::shared_ptr<Block> block;
  if (const uint32_t status = LoadBlock(entry, &block); status != kStatusOk) return status;
  const uint64_t now = NowSeconds();
  BlockPages pages(*block);
  for (uint32_t i = 0; i < block->Count() && !*hasHidden; ++i) {
    if (const uint32_t status = pages.Load(i); status != kStatusOk) return status;
    const DataEntry found = pages.EntryAt(i);
    *hasHidden = found.deleted || !IsAlive(found.timestamp, found.ttl, now);
  }
  return kStatusOk;
}

}  // namespace Kestrun
