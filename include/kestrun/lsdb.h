// kestrun/lsdb.h: the store: byte values under byte-string keys, in a directory of their own.
//
// A store is a write-ahead log, a manifest and any number of block files. Every write is appended to the
// log; when the log is full its entries become a new block; compaction merges the blocks into one.
//
// Ownership: Open hands out an engine that the caller deletes. A value from Get is a malloc buffer that the
//            caller releases with free.
// Threads:   every operation of one engine may be called from any thread, and several engines, in this
//            process or in others, may be open on one directory. Deleting an engine while another thread is
//            inside one of its operations is the caller's error.
// Failure:   every operation returns a status of kestrun/status.h; no operation throws, except what a
//            caller's own callback throws. Diagnostics go to standard output, most without a line end.
//            kStatusLockFailed means that another process held a lock for more than about 3 ms; nothing
//            was done, and calling again is safe. kStatusWalOpenFailed is also the answer of an engine
//            that was constructed but not opened.
// Units:     sizes are bytes, times to live are seconds.
// Life span: an entry is alive while its write second plus its time to live is at least the current second.
//            0 lasts only for the second of writing; nothing lasts for ever, 4294967295 lasts 136 years.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "kestrun/data_entry.h"
#include "kestrun/export.h"
#include "kestrun/key.h"

namespace Kestrun {

class Block;
class BlockCache;
class Manifest;
class Wal;
struct Core;

// How a store is opened. The same values should be given at every opening.
struct LSDBConfig {
  // The size in bytes of the log file, more than 128. An entry takes 40 bytes, its key and its value, and
  // must fit into walSize - 128. A log that exists and is longer keeps its length; one that is shorter is
  // recreated and its entries are given up: call ResetWal before opening with a larger size.
  uint32_t walSize;
  // Carried along and not interpreted.
  uint16_t walOptions;
};
static_assert(sizeof(LSDBConfig) == 8);

class KESTRUN_EXPORT LSDBImpl {
 public:
  // Opens the store in the directory `path`, which is created (mode 0700) when it is missing; its parents
  // are not. With a null `out` the store is created or checked on disk and closed again. After a failure
  // `*out` is as it was, and what was created on disk stays.
  //
  // kStatusDirectoryFailed     the directory is missing and could not be created
  // kStatusManifestUnreadable  the manifest could not be opened, or a block record in it is damaged
  // kStatusStatFailed          the manifest could not be inspected
  // kStatusMapFailed           the manifest's header could not be mapped
  // kStatusManifestChecksum    the manifest's header fails its checksum or is cut short
  // kStatusBadMagic            the manifest or the log is not a file of this store
  // kStatusSeekFailed, kStatusCreateFailed  the manifest or the log could not be written when it was created
  // kStatusWalOpenFailed       the log could not be opened, inspected, given its disk space or mapped
  // kStatusInvalid             walSize is 128 or less
  // kStatusWalChecksum         the log's header fails its checksum
  // kStatusNoMemory            memory ran out
  static uint32_t Open(const std::string& path, const LSDBConfig& config, LSDBImpl** out);

  // Deletes the directory `path` and the files and directories in it; engines that are open on it are not
  // looked for. kStatusOpenFailed when the directory can't be read or not be removed, for instance because
  // it holds a symbolic link: what was deleted before that stays deleted.
  static uint32_t Remove(const std::string& path);

  // An engine that is not open; use Open.
  LSDBImpl(std::string path, const LSDBConfig& config);
  // Closes the store. Nothing is flushed: the log stays as it is and is read again by the next Open.
  ~LSDBImpl();
  LSDBImpl(const LSDBImpl&) = delete;
  LSDBImpl& operator=(const LSDBImpl&) = delete;

  // Stores a copy of `size` bytes under `key` for `ttl` seconds. When it returns kStatusOk the entry
  // survives the end of the process. A full log is flushed into a block first, once.
  //
  // kStatusInvalid      the key is empty, or `value` is null and `size` is not 0
  // kStatusWalFull      the entry does not fit into an empty log
  // kStatusWalChecksum  the log's header fails its checksum
  // kStatusLockFailed, kStatusNoMemory, and every status of ResetWal
  uint32_t Insert(const Key& key, unsigned int ttl, const void* value, unsigned int size);

  // Writes a tombstone for `key`, whether or not the key exists. Statuses as Insert.
  uint32_t Delete(const Key& key);

  // Reads the value of `key`. A missing or deleted key and an empty value give kStatusOk, a null `*value`
  // and a `*size` of 0; otherwise `*value` is a malloc buffer of `*size` bytes that the caller frees.
  //
  // kStatusExpired          the entry lies in the log and has expired; the out-values are as they were
  // kStatusInvalid          the entry lies in a block and has expired (`*size` may have been set), lies
  //                         outside the log, or an out-pointer is null
  // kStatusBlockShortRead   the block file ends before the value does
  // kStatusNoMemory         the buffer could not be allocated
  // kStatusLockFailed       a lock was not obtained; the out-values are as they were
  // kStatusOpenFailed, kStatusStatFailed, kStatusBlockShortRead  a block that may hold the key can't be
  //                         read at the moment
  uint32_t Get(const Key& key, const void** value, unsigned int* size);

  // Whether `key` is present and not deleted. The time to live is not looked at: an expired entry counts.
  // Where a lock is not obtained or a block can't be read at the moment the answer is true, so that a "no" is
  // certain. Compat: contains-unsure-is-true
  bool Contains(const Key& key);

  // Copies the newest entry of `key` to `entry`. A missing key leaves `entry` as it was and gives kStatusOk,
  // and so does a tombstone in the log; one in a block is copied. Clear `entry` first to tell.
  // The time to live is not looked at. Statuses as Get, without kStatusExpired.
  uint32_t GetDataEntry(const Key& key, DataEntry& entry);

  // Calls `visit` for the keys in [from, to): those of each block, oldest block first, then those of the
  // log, each source in ascending order. A key that several sources hold is reported by each; deleted and
  // expired keys are reported too. Where both bounds have the same primary (Key::GetPrimary) only blocks
  // that may hold a key with that primary are looked at.
  //
  // `visit` returns true to end the scan of the current source; the next source is scanned all the same, so
  // it must be ready to be called again. The key is valid during the call only. `visit` runs while the log
  // and the manifest are locked for reading: other writers wait. It may call this engine, even to write.
  // An empty `visit` aborts the process when a block holds a key of the range.
  //
  // kStatusLockFailed when a lock is not obtained (nothing was visited), kStatusNoMemory, else kStatusOk.
  uint32_t EnumerateKeys(const Key& from, const Key& to, const std::function<bool(const Key&)>& visit);

  // Deletes every key that EnumerateKeys reports for [from, to). Returns kStatusOk in every case, also when
  // nothing could be locked or a deletion failed. Not atomic: keys written meanwhile may stay.
  uint32_t DeleteByRange(const Key& from, const Key& to);

  // Flushes the log: writes its entries as a new block, records the block in the manifest and empties the
  // log. A failure leaves the log as it was. Keys that begin with the byte 0xFF are not written to the block.
  //
  // kStatusOpenFailed, kStatusStatFailed, kStatusCreateFailed, kStatusBlockWriteFailed, kStatusSyncFailed
  //                              the block could not be written
  // kStatusSeekFailed, kStatusManifestWriteFailed, kStatusManifestChecksum, kStatusManifestUnreadable,
  // kStatusSyncFailed            the block could not be recorded; its file stays until the next Clear
  // kStatusLockFailed, kStatusNoMemory
  uint32_t ResetWal();

  // Merges all blocks into one and deletes their files, when there are at least four. The newest entry of a
  // key stays unless it is deleted or has expired. The log is not touched. Where other threads or processes
  // have compacted or cleared the store meanwhile nothing is changed and kStatusOk is returned.
  //
  // kStatusBlockWriteFailed  the new block could not be written, or would reach 4 GiB; nothing has changed
  // The statuses of reading a block or the manifest when one can't be read at the moment, and those of
  // ResetWal: nothing has changed, except that after kStatusSyncFailed the merged block may be in use
  // beside the old files. kStatusOpenFailed also when files of an earlier format could not be looked for.
  uint32_t ForceCompact();

  // Empties the store: the log, the manifest and every file of the directory whose name contains ".blk_v5",
  // whatever it is. The store stays open and usable. Each call keeps one directory stream open until the
  // process ends.
  //
  // kStatusLockFailed  nothing was cleared, or the log only
  // kStatusOpenFailed  log and manifest are empty, but the directory could not be read
  uint32_t Clear();

  // The newest block that holds `key`, tombstones and expired entries included; empty when there is
  // none. The caller holds the manifest's lock. Block is opaque to users of this header.
  std::shared_ptr<Block> FindBlock(const Key& key);

 private:
  bool IsOpen() const { return cache_ != nullptr; }  // which Open sets last

  Core MakeCore() const;
  uint32_t FindEntry(const Key& key, DataEntry* entry, std::shared_ptr<Block>* block, bool* found);
  uint32_t WriteEntry(const std::function<uint32_t()>& append);
  uint32_t Compact();
  uint32_t RemoveLegacyFiles();

  std::string path_;
  std::unique_ptr<Wal> wal_;
  std::unique_ptr<Manifest> manifest_;
  std::unique_ptr<BlockCache> cache_;
};

}  // namespace Kestrun
