// The operations on a single key.
//
// Locks: the log first, the manifest inside it, released in reverse. Writers hold the log at Exclusive,
// readers hold it at Shared and the manifest at Shared only when the log does not hold the key.
#include <functional>

#include "base/catch_bad_alloc.h"
#include "base/clock.h"
#include "engine/core.h"
#include "kestrun/lsdb.h"

namespace Kestrun {

uint32_t LSDBImpl::Insert(const Key& key, unsigned int ttl, const void* value, unsigned int size) {
  if (value == nullptr && size != 0) return kStatusInvalid;
  const auto append = [&] { return wal_->Insert(key, ttl, value, size); };
  return WriteEntry(std::cref(append));
}

uint32_t LSDBImpl::Delete(const Key& key) {
  const auto append = [&] { return wal_->Delete(key); };
  return WriteEntry(std::cref(append));
}

// Appends; a full log is flushed once, and the append is then tried again while the log is still locked. The
// flush locks the log once more: the unlock that belongs to it drops the lock against other processes
// (Compat: nested-unlock), so the second append comes before it.
uint32_t LSDBImpl::WriteEntry(const std::function<uint32_t()>& append) {
  if (!IsOpen()) return kStatusWalOpenFailed;
  return CatchBadAlloc([&]() -> uint32_t {
    const Core core = MakeCore();
    const LogSection section(core, LockLevel::Exclusive);
    if (section.Status() != kStatusOk) return section.Status();
    if (const uint32_t status = append(); status != kStatusWalFull) return status;

    const LogSection nested(core, LockLevel::Exclusive);
    if (nested.Status() != kStatusOk) return nested.Status();
    const uint32_t status = core.FlushLocked();
    return status == kStatusOk ? append() : status;
  });
}

std::shared_ptr<Block> LSDBImpl::FindBlock(const Key& key) {
  std::shared_ptr<Block> found;
  // An unreadable block and a missing key look the same here.
  if (IsOpen()) IgnoreStatus(CatchBadAlloc([&] { return MakeCore().FindBlock(key, &found); }));
  return found;
}

namespace {

uint32_t GetFromLog(const Core& core, const DataEntry& entry, const void** value, unsigned int* size) {
  if (!entry.deleted && !IsAlive(entry.timestamp, entry.ttl, NowSeconds())) {
    core.diagnostics.Print("TTL verification failed");
    return kStatusExpired;
  }
  *value = nullptr;
  *size = 0;
  if (entry.deleted || entry.valueSize == 0) return kStatusOk;
  void* copy = nullptr;
  const uint32_t status = core.wal.ReadValue(entry, &copy);
  if (status != kStatusOk) return status;
  *value = copy;
  *size = entry.valueSize;
  return kStatusOk;
}

// The size is set before the value is read; callers see it even where reading fails.
uint32_t GetFromBlock(const Core& core, const Block& block, const Key& key, const void** value,
                      unsigned int* size) {
  DataEntry entry = {};
  if (const uint32_t status = block.Lookup(key, &entry); status != kStatusOk) {
    *value = nullptr;
    *size = 0;
    return status;
  }
  *size = entry.valueSize;
  void* copy = nullptr;
  const uint32_t status = block.ReadValue(entry, &copy, core.diagnostics);
  if (status == kStatusOk) *value = copy;
  return status;
}

}  // namespace

uint32_t LSDBImpl::Get(const Key& key, const void** value, unsigned int* size) {
  if (value == nullptr || size == nullptr) return kStatusInvalid;
  if (!IsOpen()) return kStatusWalOpenFailed;
  return CatchBadAlloc([&]() -> uint32_t {
    const Core core = MakeCore();
    const LogSection log(core, LockLevel::Shared);
    if (log.Status() != kStatusOk) return log.Status();
    DataEntry entry = {};
    if (wal_->Lookup(key, &entry)) return GetFromLog(core, entry, value, size);

    const ManifestSection manifest(core, LockLevel::Shared);
    if (manifest.Status() != kStatusOk) return manifest.Status();
    std::shared_ptr<Block> block;
    if (const uint32_t status = core.FindBlock(key, &block); status != kStatusOk) return status;
    if (block != nullptr) return GetFromBlock(core, *block, key, value, size);
    *value = nullptr;
    *size = 0;
    return kStatusOk;
  });
}

// Finds the newest entry of a key in the log or, with `*block` set, in a block.
uint32_t LSDBImpl::FindEntry(const Key& key, DataEntry* entry, std::shared_ptr<Block>* block, bool* found) {
  *found = false;
  const Core core = MakeCore();
  const LogSection log(core, LockLevel::Shared);
  if (log.Status() != kStatusOk) return log.Status();
  *found = wal_->Lookup(key, entry);
  if (*found) return kStatusOk;

  const ManifestSection manifest(core, LockLevel::Shared);
  if (manifest.Status() != kStatusOk) return manifest.Status();
  if (const uint32_t status = core.FindBlock(key, block); status != kStatusOk || *block == nullptr)
    return status;
  *found = true;
  return (*block)->Lookup(key, entry);
}

// What can't be found out counts as present. Compat: contains-unsure-is-true
bool LSDBImpl::Contains(const Key& key) {
  if (!IsOpen()) return false;
  DataEntry entry = {};
  bool found = false;
  const uint32_t status = CatchBadAlloc([&] {
    std::shared_ptr<Block> block;
    return FindEntry(key, &entry, &block, &found);
  });
  return status != kStatusOk || (found && !entry.deleted);
}

// A tombstone in the log is not copied, one in a block is. Compat: entry-left-alone
uint32_t LSDBImpl::GetDataEntry(const Key& key, DataEntry& entry) {
  if (!IsOpen()) return kStatusWalOpenFailed;
  return CatchBadAlloc([&] {
    DataEntry newest = {};
    std::shared_ptr<Block> block;
    bool found = false;
    const uint32_t status = FindEntry(key, &newest, &block, &found);
    if (status == kStatusOk && found && (block != nullptr || !newest.deleted)) entry = newest;
    return status;
  });
}

}  // namespace Kestrun
