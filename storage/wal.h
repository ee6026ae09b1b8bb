// storage/wal.h: the write-ahead log of a store, wal_v5: a mapped file to which every write is appended, and
// the index over it.
//
// Ownership: a Wal owns its mapping and shares its file and its index. The index belongs to the file, one for
//            each process, and lives until the process ends, so that a log closed and opened again keeps it.
// Threads:   Open may run at any time. Every other operation is called with the file's lock held
// (OsFile::Lock
//            on File()): Exclusive for Append, Insert, Delete, Reserve and Reset, Shared at least for the
//            rest.
// Failure:   statuses, and the diagnostics named with each operation. Operations that make index entries may
//            throw std::bad_alloc; they have changed nothing then.
// Units:     offsets and sizes are bytes from the start of the file, times are seconds.
// Bytes:     storage/wal_format.h.
//
// Other processes append to the same file and empty it. Each operation that looks at the index first brings
// it up to date: it replays records that were appended elsewhere, and starts over when the log was emptied
// elsewhere. The latter shows in a used area shorter than what was replayed, in another record standing where
// the first, the last or a wanted one stood, or, since every flush moves the manifest, in a move of the
// manifest by another process, of which the engine gives notice (OnManifestChanges).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "format/wal_format.h"
#include "kestrun/data_entry.h"
#include "kestrun/key.h"
#include "kestrun/lsdb.h"
#include "storage/os_file.h"

namespace Kestrun {

template <typename Entry>
using MemTable = std::map<Key, Entry>;

// The index of one log in one process. Guarded by the in-process mutex of the log's file.
struct WalSharedState {
  // One record as it was replayed: its header and its key.
  struct RecordFingerprint {
    uint32_t offset = 0;
    std::string bytes;
  };

  uint32_t replayedEnd = kWalFirstRecord;  // everything before this offset is in the index
  uint32_t end = kWalFirstRecord;          // of the last record that was replayed or appended by this process
  std::shared_ptr<MemTable<DataEntry>> index = std::make_shared<MemTable<DataEntry>>();
  RecordFingerprint first;  // of the records before `replayedEnd`
  RecordFingerprint last;
  uint64_t manifestChanges = 0;  // what OnManifestChanges reported last
  bool needsFullReplay = false;  // the manifest was moved elsewhere since the last replay
  std::mutex replayMutex;        // held while records are replayed

  void AfterFork();
  // Empties the index; the next look at it replays the log from its first record.
  void Clear();
};

class Wal {
 public:
  // Opens the log, creating it with `config.walSize` bytes when it is missing. One that is shorter is made
  // anew and its records are given up; one that is longer is taken as it is. On success `*out` is a Wal that
  // the caller deletes. A log whose size can't be asked, whose disk space can't be reserved or that can't be
  // mapped gives kStatusOk and leaves `*out` as it was; callers rely on it.
  //
  // kStatusWalOpenFailed  the file can't be opened
  // kStatusInvalid        walSize is 128 or less; "invalid wal size: PATH"
  // kStatusCreateFailed   the file could not be extended, for want of space perhaps
  // kStatusWalChecksum    the header fails its checksum; "Invalid wal checksum"
  // kStatusBadMagic       the file does not begin with the magic; "Invalid wal magic"
  // With kStatusOk: "Failed to get file size: PATH", "Failed to map wal: PATH".
  static uint32_t Open(const std::string& path, const LSDBConfig& config, Wal** out);

  ~Wal();
  Wal(const Wal&) = delete;
  Wal& operator=(const Wal&) = delete;

  // Appends a live entry; see Append.
  uint32_t Insert(const Key& key, uint32_t ttl, const void* value, uint32_t valueSize);
  // Appends a deletion marker; see Append.
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

  // Brings the index up to date with the file, as described above. A record that fails its checksum, has no
  // key or reaches beyond the used area ends the replay for good. With a damaged header nothing happens.
  void CatchUp();
  // Tells how often other processes have moved the manifest so far (Manifest::ExternalChanges). A change makes
  // the next CatchUp start over.
  void OnManifestChanges(uint64_t moves);

  // True with the newest entry of `key`, deletion markers included. Catches up first.
  bool Lookup(const Key& key, DataEntry* entry);
  // Copies a value to a malloc buffer that the caller frees. kStatusInvalid and "wal boundary verification
  // failed" when the entry lies outside the mapping, kStatusNoMemory.
  uint32_t ReadValue(const DataEntry& entry, void** value);
  // The value's bytes in the mapping, valid until the next call of anything; null under the same conditions
  // as kStatusInvalid of ReadValue, with the same message.
  const uint8_t* ViewValue(const DataEntry& entry);
  // Calls `visit` for the keys in [from, to) in ascending order, deletion markers included, until it returns
  // true. Catches up first. `visit` may change the log: the walk goes on at the next key. An empty `visit`
  // visits nothing.
  void Enumerate(const Key& from, const Key& to, const std::function<bool(const Key&)>& visit);
  // The same with the entries; `visit` must not change the log.
  void ForEachEntry(const Key& from, const Key& to,
                    const std::function<bool(const Key&, const DataEntry&)>& visit);

  // Empties the log. The bytes of the records stay until they are overwritten. Always kStatusOk.
  uint32_t Reset();
  // Forces the log's first page to the disk, so that no loss of power undoes a Reset. Without a status: what
  // is lost with a failure is only that assurance.
  void SyncFirstPage();

  const std::shared_ptr<OsFile>& File() const { return file_; }
  uint32_t Capacity() const { return capacity_; }
  uint16_t Options() const { return walOptions_; }

 private:
  Wal(std::shared_ptr<OsFile> file, uint8_t* base, uint32_t capacity, uint16_t walOptions);

  bool ReadHeader(WalHeader* header) const;
  bool VerifyAtOpen(uint32_t* status) const;
  void PublishUsed(WalHeader header, uint32_t used);
  void RemapIfGrown(uint32_t used);
  void CatchUp(const WalHeader& header);
  void InvalidateRecord(uint32_t offset, uint32_t used);
  bool WasResetByOtherProcess(const WalHeader& header) const;
  bool WasReplaced(const WalSharedState::RecordFingerprint& seen, uint32_t used) const;
  bool IsStale(const Key& key, const DataEntry& entry) const;
  bool ReadRecord(uint64_t offset, uint64_t limit, WalRecord* record) const;
  void SaveFingerprints(uint32_t firstOffset, uint32_t lastOffset);
  void CopyRecordTo(uint32_t offset, WalSharedState::RecordFingerprint* seen) const;

  std::shared_ptr<OsFile> file_;  // has adopted the mapping
  uint8_t* base_;
  WalSharedState* state_;
  uint32_t capacity_;  // mapped bytes
  uint16_t walOptions_;
};

}  // namespace Kestrun
