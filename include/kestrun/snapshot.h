// kestrun/snapshot.h: the state of a store at one moment.
//
// Later writes, flushes, compactions and clears, by any thread or process, do not show, and neither does the
// end of the store that it came from. What is alive is judged by the second in which the snapshot was taken.
//
// Ownership: Store::TakeSnapshot and Open hand it out. It keeps the block files of that moment open and a
//            copy of the log in memory, which all snapshots between two flushes share.
// Threads:   any number at once. Reading takes no file lock, and no mutex that a writer holds.
// Failure:   statuses; nothing throws.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kestrun/cursor.h"
#include "kestrun/export.h"
#include "kestrun/range.h"

namespace Kestrun {

class KESTRUN_EXPORT Snapshot {
 public:
  // Reads the files of the store in the directory `path` without being able to change anything: creates,
  // writes and deletes nothing, works on read-only media and on stores that were written with another
  // page size. The store may be in use, in this process or in others. A block that is damaged, or whose
  // file is gone, is named by the diagnostic, and only the reads that need it answer kStatusBlockCorrupt.
  // Of a log with a record that is not sound the records before it are shown, as Store shows them; the
  // diagnostic tells where they end.
  //
  // kStatusStoreMissing  there is no such directory, or it is empty
  // kStatusNotAStore     `path` is a file, or a directory without a whole store
  // kStatusNoPermission  the system does not allow to read it
  // kStatusLockFailed    another process kept it locked for five seconds
  // kStatusWalChecksum, kStatusManifestChecksum, kStatusManifestUnreadable, kStatusBadMagic  the log or
  //                      the manifest is damaged
  // kStatusOpenFailed, kStatusStatFailed, kStatusBlockShortRead, kStatusMapFailed, kStatusNoMemory  the
  //                      system could not do it
  [[nodiscard]] static uint32_t Open(const std::string& path, std::unique_ptr<Snapshot>* out);

  ~Snapshot();
  Snapshot(const Snapshot&) = delete;
  Snapshot& operator=(const Snapshot&) = delete;

  // The value of `key`; nullopt unless it was alive.
  //
  // kStatusInvalid         the key is empty, longer than 65,535 bytes or begins with the byte 0xFF
  // kStatusBlockCorrupt    the block that may hold it, or the value, is damaged
  // kStatusBlockShortRead  the system could not read the value
  // kStatusNoMemory
  [[nodiscard]] uint32_t Get(std::string_view key, std::optional<std::string>* value) const;

  // A cursor over the keys of `range`, which stands nowhere until the first Seek. kStatusNoMemory.
  [[nodiscard]] uint32_t NewCursor(const Range& range, std::unique_ptr<Cursor>* out) const;

  // When it was taken, in seconds since the Unix epoch.
  uint64_t Seconds() const;

  class Impl;

 private:
  friend class Store;

  explicit Snapshot(std::shared_ptr<const Impl> impl);

  std::shared_ptr<const Impl> impl_;
};

}  // namespace Kestrun
