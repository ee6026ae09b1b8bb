// Reading: single keys, the list of blocks, snapshots, figures.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_set>

#include "base/clock.h"
#include "format/key_filter.h"
#include "kestrun/status.h"
#include "storage/published_header.h"
#include "store/key_rules.h"
#include "store/store_impl.h"

namespace Kestrun {

void TellReason(const Diagnostics& diagnostics, const char* what, const std::string& path, int error) {
  diagnostics.Printf("%s %s: %s\n", what, path.c_str(), std::strerror(error));
}

// A file that is gone although it is listed is as good as damaged; its name may have been
// taken off the list since.
uint32_t Store::Impl::LoadBlock(const std::shared_ptr<BlockEntry>& entry, std::shared_ptr<Block>* block,
                                bool firstUse) {
  *block = cache_.FindOwned(entry->name, entry);
  if (*block != nullptr && !(*block)->IsCold()) {
    ++counters_.blockHits;
    return kStatusOk;
  }
  const std::string path = core_.BlockPath(entry->name);
  *block = cache_.Find(entry->name, path, entry);
  if (*block != nullptr && (firstUse || !(*block)->IsCold())) {
    ++counters_.blockHits;
    return kStatusOk;
  }
  uint32_t status = kStatusOk;
  errno = 0;
  *block = cache_.GetOrLoad(entry->name, path, &status, entry, firstUse);
  if (*block != nullptr) {
    ++counters_.blockLoads;
    return kStatusOk;
  }
  const int error = errno;
  if (status == kStatusBlockCorrupt) {
    core_.diagnostics.Printf("Block file %s is damaged\n", path.c_str());
    return status;
  }
  if (status == kStatusOpenFailed && error == ENOENT) {
    core_.diagnostics.Printf("Block file %s is missing\n", path.c_str());
    return kStatusBlockCorrupt;
  }
  TellReason(core_.diagnostics, "Failed to read block file", path, error);
  return status == kStatusOpenFailed && (error == EACCES || error == EPERM) ? kStatusNoPermission : status;
}

// The list after a block of it was not to be had: others may have changed it, and
// even without a new generation.
uint32_t Store::Impl::ListAgain(ManifestListPointer* list) {
  {
    const ManifestSection section(core_, LockLevel::Shared);
    if (section.Status() != kStatusOk) return section.Status();
    if (const uint32_t status = manifest_->FollowTruncation(); status != kStatusOk) return status;
  }
  return manifest_->LoadUnlocked(list);
}

// Loading a large block for the first few keys would take longer than looking for them in its file. But only
// a block that was read whole can say that it lacks a key, or what is wrong with it.
uint32_t Store::Impl::SearchBlock(const std::shared_ptr<BlockEntry>& entry, std::string_view key,
                                  std::shared_ptr<Block>* block, std::optional<FoundEntry>* found) {
  const bool isFirstUse = coldSearches_.load(std::memory_order_relaxed) < kMaxColdSearches;
  if (const uint32_t status = LoadBlock(entry, block, isFirstUse); status != kStatusOk) return status;
  if ((*block)->IsCold()) {
    coldSearches_.fetch_add(1, std::memory_order_relaxed);
    if (FindInBlock(**block, key, found) == kStatusOk && found->has_value()) return kStatusOk;
    if (const uint32_t status = LoadBlock(entry, block); status != kStatusOk) return status;
  }
  return FindInBlock(**block, key, found);
}

// Newest first; the first block that has the key decides. One that is gone may have been merged meanwhile:
// the list is read again then, and only a block that is still listed is damaged.
uint32_t Store::Impl::SearchBlocks(std::string_view key, std::shared_ptr<Block>* block,
                                   std::optional<FoundEntry>* found) {
  ManifestListPointer list;
  if (const uint32_t status = manifest_->LoadUnlocked(&list); status != kStatusOk) return status;
  if (list->entries.empty()) return kStatusOk;
  const uint32_t hash = KeyHash(key);
  const BlockFilter::Probe probe(key);
  for (int reads = 1;; ++reads) {
    uint32_t status = kStatusOk;
    for (auto entry = list->entries.rbegin(); entry != list->entries.rend() && status == kStatusOk; ++entry) {
      if (!KeyFilterMayContain(hash, (*entry)->filter) || !core_.MayContain(*entry, probe)) {
        continue;
      }
      status = SearchBlock(*entry, key, block, found);
      if (status == kStatusOk && found->has_value()) return kStatusOk;
    }
    if (status != kStatusBlockCorrupt) return status;
    ManifestListPointer again;
    if (const uint32_t listed = ListAgain(&again); listed != kStatusOk) return listed;
    if (again->entries == list->entries || reads == kMaxListReads) return status;
    list = std::move(again);
  }
}

uint32_t Store::Impl::GetLocked(std::string_view key, std::optional<std::string>* value) {
  LogIndex::Version version;
  bool isSound = false;
  const bool isInLog = wal_->Lookup(key, &version, &isSound);
  if (!isSound) return kStatusWalChecksum;
  if (isInLog) {
    const DataEntry& entry = version.entry;
    if (entry.deleted || !IsAlive(entry.timestamp, entry.ttl, NowSeconds())) {
      value->reset();
      return kStatusOk;
    }
    const LogBytes log = wal_->Bytes();
    if (uint64_t{entry.valueOffset} + entry.valueSize > log.capacity) return kStatusBlockCorrupt;
    const std::string_view found(reinterpret_cast<const char*>(log.base + entry.valueOffset),
                                 entry.valueSize);
    if (!IsRecordContentSound(log.base + version.offset, key, found)) return kStatusBlockCorrupt;
    value->emplace(found);
    return kStatusOk;
  }

  std::shared_ptr<Block> block;
  std::optional<FoundEntry> found;
  if (const uint32_t status = SearchBlocks(key, &block, &found); status != kStatusOk) return status;
  if (!found.has_value() || found->entry.deleted ||
      !IsAlive(found->entry.timestamp, found->entry.ttl, NowSeconds())) {
    value->reset();
    return kStatusOk;
  }
  std::string bytes;
  const uint32_t status = ReadBlockValue(*block, *found, key, &bytes);
  if (status == kStatusOk) *value = std::move(bytes);
  return status;
}

uint32_t Store::Impl::Get(std::string_view key, std::optional<std::string>* value) {
  const LogSection section(core_, LockLevel::Shared);
  return section.Status() != kStatusOk ? section.Status() : GetLocked(key, value);
}

// Blocks of the last set are taken over, whatever has become of their files.
uint32_t Store::Impl::OpenBlocks(std::shared_ptr<const BlockSet>* blocks) {
  for (int reads = 1;; ++reads) {
    ManifestListPointer list;
    if (const uint32_t status = manifest_->LoadUnlocked(&list); status != kStatusOk) return status;
    const BlockEntries& entries = list->entries;
    const std::shared_ptr<const BlockSet> last = lastSet_.lock();
    const bool isSame =
        last != nullptr && std::equal(last->begin(), last->end(), entries.begin(), entries.end(),
                                      [](const OpenBlock& open, const auto& entry) {
                                        return open.entry == entry && open.block != nullptr;
                                      });
    if (isSame) {
      *blocks = last;
      return kStatusOk;
    }

    auto set = std::make_shared<BlockSet>();
    set->reserve(entries.size());
    bool isComplete = true;
    for (const std::shared_ptr<BlockEntry>& entry : entries) {
      OpenBlock open = {entry, nullptr};
      if (last != nullptr) {
        for (const OpenBlock& known : *last) {
          if (known.entry == entry) open.block = known.block;
        }
      }
      if (open.block == nullptr) {
        std::shared_ptr<Block> loaded;
        const uint32_t status = LoadBlock(entry, &loaded);
        if (status != kStatusOk && status != kStatusBlockCorrupt) return status;
        open.block = std::move(loaded);
      }
      isComplete = isComplete && open.block != nullptr;
      set->push_back(std::move(open));
    }
    if (!isComplete && reads < kMaxListReads) {
      ManifestListPointer again;
      if (const uint32_t status = ListAgain(&again); status != kStatusOk) return status;
      if (again->entries != entries) continue;
    }
    *blocks = set;
    lastSet_ = set;
    return kStatusOk;
  }
}

uint32_t Store::Impl::TakeSnapshotLocked(std::shared_ptr<const Snapshot::Impl>* out) {
  LogView view;
  if (const uint32_t status = wal_->TakeView(&view); status != kStatusOk) return status;
  std::shared_ptr<const BlockSet> blocks;
  if (const uint32_t status = OpenBlocks(&blocks); status != kStatusOk) return status;
  *out = std::make_shared<const Snapshot::Impl>(std::move(view), std::move(blocks), NowSeconds());
  return kStatusOk;
}

uint32_t Store::Impl::TakeSnapshot(std::shared_ptr<const Snapshot::Impl>* out) {
  const LogSection section(core_, LockLevel::Shared);
  return section.Status() != kStatusOk ? section.Status() : TakeSnapshotLocked(out);
}

namespace {

// Counts the keys of a log that another process may be changing: nothing of it is kept.
uint64_t CountKeys(const LogBytes& log, uint32_t used) {
  std::unordered_set<std::string> keys;
  uint64_t offset = kWalFirstRecord;
  WalRecord record;
  while (log.ReadRecord(offset, used, &record)) {
    keys.emplace(reinterpret_cast<const char*>(log.base + offset + sizeof(record)), record.keySize);
    offset += sizeof(record) + record.keySize + uint64_t{record.valueSize};
  }
  return keys.size();
}

}  // namespace

uint32_t Store::Impl::GetStats(StoreStats* out) {
  StoreStats stats;
  ManifestListPointer list;
  if (const uint32_t status = manifest_->LoadUnlocked(&list); status != kStatusOk) return status;
  stats.blocks = list->entries.size();
  for (const std::shared_ptr<BlockEntry>& entry : list->entries) {
    struct stat info = {};
    if (stat(core_.BlockPath(entry->name).c_str(), &info) == 0) {
      stats.blockBytes += static_cast<uint64_t>(info.st_size);
    }
  }
  {
    const FileLockGuard threadLock(wal_->File(), LockLevel::ThreadOnly);
    stats.logUsed = wal_->Used();
    stats.logCapacity = wal_->Capacity();
    uint64_t size = 0;
    if (wal_->File()->Size(&size) == 0) stats.logCapacity = size;
    stats.logEntries = CountKeys(wal_->Bytes(), static_cast<uint32_t>(stats.logUsed));
  }
  stats.flushes = counters_.flushes;
  stats.compactions = counters_.compactions;
  stats.bytesFlushed = counters_.bytesFlushed;
  stats.bytesCompacted = counters_.bytesCompacted;
  stats.blockHits = counters_.blockHits;
  stats.blockLoads = counters_.blockLoads;
  stats.lockRetries = counters_.lockRetries;
  stats.lockFailures = counters_.lockFailures;
  *out = stats;
  return kStatusOk;
}

}  // namespace Kestrun
