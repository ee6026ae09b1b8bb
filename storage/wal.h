// storage/wal.h: the write-ahead log of a store, wal_v5: a mapped file to which every write is appended,
// and the index over it.
//
// Ownership: a Wal owns its mapping and shares its file and its index. The index belongs to the file, one for
//            each process, and lives until the process ends, so that a log closed and opened again keeps it.
// Threads:   Open and the destructor may run at any time and never wait for a lock. Every other operation is
//            called with the file's lock held (OsFile::Lock on File()): Exclusive for Append, AppendBatch,
//            Insert, Delete, Reserve, Grow and Reset, Shared at least for the rest.
// Failure:   statuses, and the messages named with each operation. Operations that make index entries may
//            throw std::bad_alloc; they have changed nothing then.
// Units:     offsets and sizes are bytes from the start of the file, times are seconds.
// Bytes:     format/wal_format.h.
//
// Other processes append to the same file and reset it. Each operation that looks at the index first
// brings it up to date: it replays records that were appended elsewhere, and starts over when the
// log was reset elsewhere (storage/log_staleness.h).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "base/diagnostics.h"
#include "format/wal_format.h"
#include "kestrun/data_entry.h"
#include "kestrun/key.h"
#include "kestrun/lsdb.h"
#include "storage/log_copy.h"
#include "storage/log_index.h"
#include "storage/log_staleness.h"
#include "storage/os_file.h"

namespace Kestrun {

// What a log has held between two resets, as one process knows it.
struct LogFilling {
  LogIndex index;
  // Of the marked records; guarded by the log's lock.
  bool hasEpoch = false;
  uint32_t epoch = 0;
  std::shared_ptr<LogCopy> copy;  // made for the first snapshot; guarded by the log's lock
  bool isViewed = false;          // a snapshot may be reading it still; guarded by the log's lock
};

// The log at one moment, for readers that hold no lock.
struct LogView {
  std::shared_ptr<const LogFilling> filling;
  std::shared_ptr<const LogCopy> copy;  // null: the log was empty
  uint32_t end = kWalFirstRecord;       // records from here on are later ones
};

// The index of one log in one process. Guarded by the in-process mutex of
// the log's file, except `wasRecreated`.
struct WalSharedState {
  std::shared_ptr<LogFilling> filling = std::make_shared<LogFilling>();
  std::shared_ptr<LogFilling> spare;  // for the next reset
  LogStaleness staleness;
  std::mutex replayMutex;  // held while records are replayed
  // An opening has recreated the file while another thread was using the index: the next
  // look at it starts over.
  std::atomic<bool> wasRecreated{false};

  void AfterFork();
  // Empties the index; the next look at it replays the log from its first record.
  void Clear();
};

// What Wal::Open does with a log that is shorter than asked for.
enum class ShortLog {
  Recreate,  // initializes it again; its records are given up
  Keep,      // takes it as it is, if it is longer than its header
};

class Wal {
 public:
  // Opens the log, creating it with `config.walSize` bytes when it is missing. What becomes of one that is
  // shorter, `shortLog` says; one that is longer is taken as it is. On success `*out` is a Wal that the
  // caller deletes. A log whose size can't be asked, whose disk space can't be reserved or that can't be
  // mapped gives kStatusOk and leaves `*out` as it was (Compat: wal-open-without-handle).
  //
  // kStatusWalOpenFailed  the file can't be opened
  // kStatusInvalid        walSize is 128 or less; "invalid wal size: PATH"
  // kStatusSeekFailed     the file can't be sought, as a pipe
  // kStatusCreateFailed   the file could not be extended, for want of space perhaps
  // kStatusWalChecksum    the header fails its checksum; "Invalid wal checksum"
  // kStatusBadMagic       the file does not begin with the magic; "Invalid wal magic"
  // With kStatusOk: "Failed to get file size: PATH", "Failed to map wal: PATH".
  static uint32_t Open(const std::string& path, const LSDBConfig& config, Wal** out,
                       const Diagnostics& diagnostics = Diagnostics::Printing(),
                       ShortLog shortLog = ShortLog::Recreate);

  ~Wal();
  Wal(const Wal&) = delete;
  Wal& operator=(const Wal&) = delete;

  // Appends a live entry; see Append.
  uint32_t Insert(const Key& key, uint32_t ttl, const void* value, uint32_t valueSize);
  // Appends a tombstone; see Append.
  uint32_t Delete(const Key& key);
  // Appends one record and indexes it. The record's bytes are stored before the header shows them.
  //
  // kStatusInvalid      the key is empty; "Invalid key"
  // kStatusWalChecksum  the header fails its checksum or claims a used area that would take in the header
  //                     itself; "Invalid wal checksum" and the line "Failed to reserve write space"
  // kStatusWalFull      the record does not fit; "Wal is full" and the line "Failed to reserve write space"
  uint32_t Append(const Key& key, uint32_t ttl, const void* value, uint32_t valueSize, bool deleted);
  // Claims `size` bytes without writing to them; `*offset` is where they begin. kStatusWalChecksum and
  // kStatusWalFull with the first message of Append.
  uint32_t Reserve(uint32_t size, uint32_t* offset);

  // Appends `count` records that stand back to back in `records`, each with its deleted, ttl, keySize and
  // valueSize filled in; gives them their place, one common time, and content checksums. All of them are
  // stored before the header shows them at once. Without messages.
  //
  // kStatusWalChecksum  as Append
  // kStatusInvalid      a record that is not sound stands before the end of the log: nothing after
  //                     it could be replayed
  // kStatusWalFull      they do not fit
  uint32_t AppendBatch(std::string_view records, size_t count);
  // The same for one record; `value` is not null when `valueSize` is not 0.
  uint32_t AppendMarked(std::string_view key, uint32_t ttl, std::string_view value, bool deleted);
  // How many bytes of records fit into the log when it is empty.
  uint32_t MaxBatchSize() const { return capacity_ - kWalFirstRecord; }

  // Brings the index up to date with the file, as described above. A record that fails its checksum,
  // has no key or reaches beyond the used area ends the replay for good, and so does a marked one
  // whose content fails its checksum or whose epoch is not that of the marked ones before it. With a
  // damaged header nothing happens: false.
  bool CatchUp();
  // Tells how often other processes have changed the manifest so far (Manifest::ExternalChanges). A change
  // makes the next CatchUp start over.
  void OnManifestChanges(uint64_t changes) { state_->staleness.OnManifestChanges(changes); }

  // True with the newest entry of `key`, tombstones included. Catches up first.
  bool Lookup(const Key& key, DataEntry* entry);
  // The same; `*isSound`, when asked for, is false when the header fails its checksum and
  // nothing could be caught up.
  bool Lookup(std::string_view key, LogIndex::Version* version, bool* isSound = nullptr);
  // Copies a value to a malloc buffer that the caller frees. kStatusInvalid and "wal boundary verification
  // failed" when the entry lies outside the mapping, kStatusNoMemory.
  uint32_t ReadValue(const DataEntry& entry, void** value);
  // The value's bytes in the mapping, valid until the next call of anything; null under the same conditions
  // as kStatusInvalid of ReadValue, with the same message.
  const uint8_t* ViewValue(const DataEntry& entry);
  // Calls `visit` for the keys in [from, to) in ascending order, tombstones included, until it
  // returns true. Catches up first. `visit` may change the log: the walk goes on at the next key.
  // An empty `visit` visits nothing.
  void Enumerate(const Key& from, const Key& to, const std::function<bool(const Key&)>& visit);
  // The same with the entries; `visit` must not change the log.
  void ForEachEntry(const Key& from, const Key& to,
                    const std::function<bool(const Key&, const DataEntry&)>& visit);

  // What the log holds now, after CatchUp; copies what was appended since the last view. kStatusNoMemory,
  // kStatusWalChecksum.
  uint32_t TakeView(LogView* view);
  // The index as it is now; valid until the lock is given up.
  const LogIndex& Index() const { return state_->filling->index; }
  // What the index belongs to; whoever holds it may look at the index after a reset.
  std::shared_ptr<const LogFilling> Filling() const { return state_->filling; }
  // The mapped bytes; valid until the next call of anything.
  LogBytes Bytes() const { return {base_, capacity_}; }
  // Where replay has stopped: at the end of the used area, or before it at a record that is not sound.
  uint32_t ReplayedEnd() const { return state_->staleness.ReplayedEnd(); }
  // The end of the used area as the header says; 0 when the header fails its checksum.
  uint32_t Used() const;

  // Makes what Reset needs beforehand, so that it can't fail. May throw std::bad_alloc.
  void PrepareReset();
  // Empties the log. The bytes of the records stay until they are overwritten. Always kStatusOk. May throw
  // std::bad_alloc unless PrepareReset came before.
  uint32_t Reset();
  // Syncs the log's first page, so that no loss of power undoes a Reset. Without a status: a failure
  // takes nothing but that assurance.
  void SyncFirstPage();
  // Syncs the used bytes. False when the system reports a failure.
  [[nodiscard]] bool SyncUsed();

  // Makes the file at least `size` bytes long, in place, for every process. kStatusCreateFailed
  // when there is no space.
  uint32_t Grow(uint32_t size);

  const std::shared_ptr<OsFile>& File() const { return file_; }
  uint32_t Capacity() const { return capacity_; }
  uint16_t Options() const { return walOptions_; }

 private:
  Wal(std::shared_ptr<OsFile> file, uint8_t* base, uint32_t capacity, uint16_t walOptions,
      const Diagnostics& diagnostics);

  bool ReadHeader(WalHeader* header) const;
  void ClearIfRecreated();
  bool VerifyAtOpen(uint32_t* status) const;
  void PublishUsed(WalHeader header, uint32_t used);
  bool HasRoom(uint64_t end);
  void RemapIfGrown(uint64_t needed);
  void CatchUp(const WalHeader& header);
  void Replay(uint32_t used);
  bool IsContentSound(uint64_t offset, const WalRecord& record, bool* hasEpoch, uint32_t* epoch) const;
  void InvalidateRecord(uint32_t offset, uint32_t used);
  uint32_t BeginAppend(uint64_t size, WalHeader* header);
  void StoreMarked(WalRecord record, uint32_t offset, std::string_view key, std::string_view value);
  void ChooseEpoch();

  std::shared_ptr<OsFile> file_;  // tracks the mapping
  uint8_t* base_;
  WalSharedState* state_;
  uint32_t capacity_;  // mapped bytes
  uint16_t walOptions_;
  const Diagnostics& diagnostics_;
};

}  // namespace Kestrun
