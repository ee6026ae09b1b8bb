// engine/core.h: the steps that both faces take with an open store, under its locks.
//
// A core prints nothing by itself and hides no status: it is given a Diagnostics, and the face
// decides what a caller sees.
//
// Ownership: a core refers to the parts of a handle, which must outlive it.
// Threads:   as the parts: a section's operations run while the section is open.
// Failure:   statuses; may throw std::bad_alloc.
//
// Locks: the log first, the manifest inside it, released in reverse.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/diagnostics.h"
#include "block/block_cache.h"
#include "engine/lock_patience.h"
#include "kestrun/key.h"
#include "storage/manifest.h"
#include "storage/wal.h"

namespace Kestrun {

// The parts of one handle on a store.
struct Core {
  const std::string& path;  // of the store's directory
  Wal& wal;
  Manifest& manifest;
  BlockCache& cache;
  const Diagnostics& diagnostics;
  LockPatience patience;

  std::string BlockPath(const std::string& name) const;

  // Every flush changes the manifest, so a change by another process may mean that it has reset the log.
  void NoticeManifestChanges() const { wal.OnManifestChanges(manifest.ExternalChanges()); }

  // Writes the log's entries to a new block, records it, publishes it in the cache and resets the log.
  // The log's lock is held at Exclusive. The reset comes last, so that at every moment each entry can be
  // reached through the log or through a recorded block; an earlier failure leaves the log whole. The
  // empty log is synced before anything is appended: old records must not come back after a loss of
  // power and hide newer blocks.
  //
  // `*blockBytes`, when asked for, is the size of the block's file. "Failed to dump wal file" when
  // the block can't be written, "Failed lock manifest", "Failed to update manifest" when it can't
  // be recorded; statuses as LSDBImpl::ResetWal.
  uint32_t FlushLocked(uint64_t* blockBytes = nullptr) const;

  // False when the block of a list's entry is known to have no entry for a key.
  bool MayContain(const std::shared_ptr<BlockEntry>& entry, const BlockFilter::Probe& probe) const;

  // The newest block that holds `key`, tombstones and expired entries included; null when there is none. The
  // manifest's lock is held. A block that can't be read at the moment ends the search, because an older one
  // may hold an older value; a corrupt one is deleted and passed over. Compat: corrupt-block-deleted
  uint32_t FindBlock(const Key& key, std::shared_ptr<Block>* found) const;

 private:
  uint32_t RecordFlushedBlock(const std::string& name, const std::shared_ptr<Block>& block) const;
};

// The log locked for a scope, with what other processes did to the manifest noticed. Operations of Wal catch
// up with the log by themselves. "Failed lock wal" when it can't be locked.
class [[nodiscard]] LogSection {
 public:
  LogSection(const Core& core, LockLevel level);
  ~LogSection();
  LogSection(const LogSection&) = delete;
  LogSection& operator=(const LogSection&) = delete;
  uint32_t Status() const { return status_; }

 private:
  std::shared_ptr<OsFile> file_;  // outlives the unlock
  LockLevel level_;
  LockPatience patience_;
  uint32_t status_;
  bool isEntered_;  // also after a failed lock of the older face (Compat: failed-lock-keeps-mutex)
};

// The manifest locked for a scope. "Failed lock manifest" when it can't be locked.
class [[nodiscard]] ManifestSection {
 public:
  ManifestSection(const Core& core, LockLevel level);
  ~ManifestSection();
  ManifestSection(const ManifestSection&) = delete;
  ManifestSection& operator=(const ManifestSection&) = delete;
  uint32_t Status() const { return status_; }

 private:
  std::shared_ptr<OsFile> file_;
  LockLevel level_;
  LockPatience patience_;
  uint32_t status_;
  bool isEntered_;  // as above
};

// Locks `file` as `patience` says. Unlock must follow if `*isEntered`.
uint32_t LockPatiently(OsFile& file, LockLevel level, const LockPatience& patience, bool* isEntered);

}  // namespace Kestrun
