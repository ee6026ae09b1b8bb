// Listing and deleting the keys of a range.
#include <vector>

#include "base/catch_bad_alloc.h"
#include "engine/core.h"
#include "engine/load_block.h"
#include "kestrun/lsdb.h"

namespace Kestrun {

// An answer of true ends the scan of one source only (Compat: enumerate-reports-sources). A block that can't
// be opened is passed over in silence.
uint32_t LSDBImpl::EnumerateKeys(const Key& from, const Key& to,
                                 const std::function<bool(const Key&)>& visit) {
  if (!IsOpen()) return kStatusWalOpenFailed;
  return CatchBadAlloc([&]() -> uint32_t {
    const Key primary = from.GetPrimary();
    const bool samePrimary = primary == to.GetPrimary();
    const Core core = MakeCore();
    const LogSection log(core, LockLevel::Shared);
    if (log.Status() != kStatusOk) return log.Status();
    const ManifestSection manifest(core, LockLevel::Shared);
    if (manifest.Status() != kStatusOk) return manifest.Status();
    const BlockEntries candidates = samePrimary ? manifest_->FindCandidates(primary) : manifest_->Entries();
    for (const std::shared_ptr<BlockEntry>& entry : candidates) {
      uint32_t failure = kStatusOk;  // a block that can't be read is passed over
      const std::shared_ptr<Block> block =
          LoadBlock(*cache_, entry->name, core.BlockPath(entry->name), entry, &failure);
      if (block != nullptr) block->ForEachInRange(from, to, visit);
    }
    wal_->Enumerate(from, to, visit);
    return kStatusOk;
  });
}

// Collects first and deletes when the enumeration has released its locks. A key that several
// sources hold gets several tombstones.
uint32_t LSDBImpl::DeleteByRange(const Key& from, const Key& to) {
  // Success whatever happens, a lack of memory included. Compat: delete-range-always-ok
  IgnoreStatus(CatchBadAlloc([&] {
    std::vector<Key> keys;
    const auto collect = [&keys](const Key& key) {
      keys.push_back(key);
      return false;
    };
    IgnoreStatus(EnumerateKeys(from, to, collect));
    for (const Key& key : keys) IgnoreStatus(Delete(key));
    return kStatusOk;
  }));
  return kStatusOk;
}

}  // namespace Kestrun
