// kestrun/store.h: a store of byte values under byte-string keys, in a directory of its
// own. New programs use this.
//
//   std::unique_ptr<Store> store;
//   uint32_t status = Store::Open("/data/settings", {}, &store);
//   status = store->Put("colour", "green");
//   std::optional<std::string> value;
//   status = store->Get("colour", &value);
//
// A store works on the same files as LSDBImpl, and both may be open on one directory. What LSDBImpl keeps for
// older programs is not here: nothing that was acknowledged is given up, a block that can't be read is kept
// and told, a lock is waited for, and nothing is printed.
//
// Ownership: Open hands out the store; destroying it closes it. Snapshots and cursors may outlive it.
// Threads:   every operation may be called from any thread, and several stores, in this process or in others,
//            may be open on one directory. Destroying a store while another thread is inside one of its
//            operations is the caller's error.
// Failure:   every operation returns a status of kestrun/status.h; a failed one leaves its output
//            arguments as they were. Nothing throws, except what the body of a transaction
//            throws. SetDiagnosticHandler tells reasons.
// Units:     sizes are bytes, times to live seconds.
// Keys:      1 to 65,535 bytes of any value, ordered as unsigned bytes; the first byte is not 0xFF.
// Life span: an entry is alive while it is not deleted and its write second plus its time to live is at least the
//            current second. Absent, deleted and expired look the same.
// Durability: what was acknowledged survives the end of the process at any moment. What a loss of power spares is
//            what Sync, or the flush of a full log, has brought to the disk.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kestrun/cursor.h"
#include "kestrun/data_entry.h"
#include "kestrun/export.h"
#include "kestrun/range.h"
#include "kestrun/snapshot.h"
#include "kestrun/stats.h"
#include "kestrun/status.h"
#include "kestrun/transaction.h"
#include "kestrun/write_batch.h"

namespace Kestrun {

struct StoreOptions {
  // Bytes of the log, more than 128; the largest entry or batch takes logSize - 128. A log that is longer
  // keeps its length, one that is shorter is extended in place and loses nothing.
  uint32_t logSize = 4 * 1024 * 1024;
  // Makes the directory and the store when they are missing. The parent directory must be there.
  bool createIfMissing = true;
  // Refuses a store that exists, with kStatusStoreExists.
  bool errorIfExists = false;
  // A thread of the store, started by its first flush, merges runs of neighbouring blocks
  // of similar size after flushes.
  bool autoCompact = true;
  // Milliseconds that a lock is tried for before kStatusLockFailed. 0: four tries within about 3 ms.
  unsigned int busyTimeout = 5000;
};

class KESTRUN_EXPORT Store {
 public:
  // Opens the store in the directory `path`.
  //
  // kStatusStoreMissing     there is none, and createIfMissing is off
  // kStatusStoreExists      there is one, and errorIfExists is on
  // kStatusNotAStore        the path is a file, or a directory that holds other files and no whole store, or
  //                         part of a store only; the diagnostic says what is missing
  // kStatusNoPermission     the system does not allow it
  // kStatusDirectoryFailed  the directory could not be made; its parent is missing, perhaps
  // kStatusInvalid          logSize is 128 or less
  // kStatusWalChecksum, kStatusManifestChecksum, kStatusManifestUnreadable, kStatusBadMagic  the log or the
  //                         manifest is damaged; nothing was changed
  // kStatusCreateFailed, kStatusOpenFailed, kStatusWalOpenFailed, kStatusStatFailed, kStatusMapFailed,
  // kStatusLockFailed, kStatusNoMemory
  [[nodiscard]] static uint32_t Open(const std::string& path, const StoreOptions& options,
                                     std::unique_ptr<Store>* out);

  // Closes the store. Waits for its thread; nothing is flushed: the log stays and is read
  // again by the next Open.
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Stores `value` under `key` for `ttl` seconds.
  //
  // kStatusInvalid  the key is empty, longer than 65,535 bytes or begins with the byte 0xFF, `ttl` is 0, the
  //                 value is 4 GiB or longer, or the call comes from the body of a transaction of this store
  // kStatusWalFull  the entry does not fit into an empty log; nothing was written or flushed
  // kStatusLockFailed, kStatusNoMemory, kStatusWalChecksum, and the statuses of Flush
  [[nodiscard]] uint32_t Put(std::string_view key, std::string_view value, unsigned int ttl = kTtlForever);
  // Deletes `key`, whether or not it exists. Statuses as Put.
  [[nodiscard]] uint32_t Delete(std::string_view key);

  // The value of `key`; nullopt unless alive.
  //
  // kStatusInvalid         the key, as in Put
  // kStatusBlockCorrupt    the newest block that may hold the key, or the value, is damaged or gone
  // kStatusBlockShortRead, kStatusOpenFailed, kStatusStatFailed, kStatusMapFailed  it can't be
  //                         read at the moment
  // kStatusNoPermission    the system does not allow to read the block
  // kStatusWalChecksum, kStatusManifestChecksum, kStatusManifestUnreadable  the log or
  //                         the manifest is damaged
  // kStatusLockFailed, kStatusNoMemory
  [[nodiscard]] uint32_t Get(std::string_view key, std::optional<std::string>* value);
  // Whether `key` is alive. Statuses as Get: what can't be found out is not answered.
  [[nodiscard]] uint32_t Contains(std::string_view key, bool* alive);

  // Deletes the keys that are alive in `range`: at once for all readers if the log has room for that after a
  // flush, else in several steps. Statuses as Get and Put.
  [[nodiscard]] uint32_t DeleteRange(const Range& range);

  // Writes all of the batch or nothing, for every reader and after every kill. A full log is flushed once,
  // under the same lock. An empty batch writes nothing.
  //
  // kStatusWalFull  the batch does not fit into an empty log; nothing was written or flushed
  // The other statuses of Put.
  [[nodiscard]] uint32_t Write(const WriteBatch& batch);

  // Runs `body` once while no other thread or process can write to the store. When it returns kStatusOk, what
  // it put and deleted is written like a batch; any other status is returned and nothing is written. What it
  // throws passes through, with nothing written and every lock given up. The body reads and writes through
  // its argument: any call of this store from it, on its thread, is kStatusInvalid and changes nothing.
  //
  // kStatusInvalid  `body` is empty
  // The statuses of Write.
  [[nodiscard]] uint32_t Transact(const std::function<uint32_t(Transaction&)>& body);

  // The state of this moment. Costs the locks of a read and a copy of what was written to the log since the
  // last one. Statuses as Get.
  [[nodiscard]] uint32_t TakeSnapshot(std::unique_ptr<Snapshot>* out);

  // Writes the log's entries to a new block and empties the log. Without entries it does nothing.
  //
  // kStatusOpenFailed, kStatusStatFailed, kStatusCreateFailed, kStatusBlockWriteFailed, kStatusSyncFailed  the
  //                       block could not be written
  // kStatusSeekFailed, kStatusTruncateFailed, kStatusManifestWriteFailed, kStatusManifestChecksum,
  // kStatusManifestUnreadable, kStatusSyncFailed  the block could not be recorded
  // kStatusLockFailed, kStatusNoMemory; after any of them the log has kept its entries
  [[nodiscard]] uint32_t Flush();

  // Merges log and blocks into one block and drops what is deleted or expired. Statuses as Flush and Get:
  // kStatusBlockCorrupt when a block is damaged, and nothing is given up for it.
  [[nodiscard]] uint32_t Compact();

  // Empties the store; every process sees it empty from then on. Statuses as Flush.
  [[nodiscard]] uint32_t Clear();

  // Brings everything acknowledged so far, by any process, to the disk. kStatusSyncFailed, kStatusLockFailed.
  [[nodiscard]] uint32_t Sync();

  // Makes a consistent copy in the new directory `directory`, which opens as a store, record types included.
  // Writers wait only while the log's new part is copied. The copy is on the disk before it gets its name.
  //
  // kStatusStoreExists      there is something of that name
  // kStatusDirectoryFailed  it could not be made
  // kStatusCreateFailed, kStatusSyncFailed, kStatusNoPermission, and the statuses of
  // Get; a failure leaves nothing
  [[nodiscard]] uint32_t Checkpoint(const std::string& directory);

  // Fills in figures, without a file lock. kStatusManifestUnreadable,
  // kStatusManifestChecksum, kStatusNoMemory.
  [[nodiscard]] uint32_t GetStats(StoreStats* out);

  class Impl;

 private:
  explicit Store(std::unique_ptr<Impl> impl);

  std::unique_ptr<Impl> impl_;
};

}  // namespace Kestrun
