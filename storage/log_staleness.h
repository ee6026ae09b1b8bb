// storage/log_staleness.h: tells whether the index of a log still belongs to what stands in the log.
//
// Other processes reset the log and fill it again. An index that was replayed before that is stale
// when one of these holds:
//
//   1. Another process has changed the manifest's generation since: every flush does, and then resets the log.
//   2. The used area ends before the last record that this process has replayed or appended.
//   3. Another sound record stands where the first or the last replayed one stood.
//   4. Nothing was replayed, entries are there all the same, and the first record is sound: the entries come from
//      appends after a damaged first record, which does not heal by itself.
//   5. Another sound record stands where the record of a wanted key stood (IsReplaced).
//
// A record that is merely damaged now is not another record: its entry stays.
//
// Threads: guarded by the log's lock.
#pragma once

#include <cstdint>
#include <string>

#include "format/wal_format.h"

namespace Kestrun {

// The mapped bytes of a log.
struct LogBytes {
  const uint8_t* base;
  uint32_t capacity;  // bytes

  // Copies the header of the record at `offset`. False when no sound record that has a key lies whole between
  // `offset` and the end `used` of the used area.
  bool ReadRecord(uint64_t offset, uint64_t used, WalRecord* record) const;
};

class LogStaleness {
 public:
  // Everything before this offset is in the index.
  uint32_t ReplayedEnd() const { return replayedEnd_; }

  bool NeedsFullReplay(const LogBytes& log, uint32_t used, bool indexIsEmpty) const;
  // Rule 5: another sound record than the one that was indexed with these properties stands at `offset`.
  static bool IsReplaced(const LogBytes& log, uint32_t used, uint32_t offset, const WalRecord& indexed,
                         const void* key);

  // Rule 1: `changes` counts what Manifest::ExternalChanges counts.
  void OnManifestChanges(uint64_t changes);
  // The index was found not to belong to the log.
  void RequireFullReplay() { needsFullReplay_ = true; }
  // Nothing is in the index.
  void OnCleared();
  // The records from ReplayedEnd() on up to `end` are in the index; the last of them stands at `lastOffset`.
  void OnReplayed(const LogBytes& log, uint32_t lastOffset, uint32_t end) noexcept;
  // A record at `offset`, or several, up to `end` were appended and are in the index; the last of them stands
  // at `lastOffset`. Where replay has stopped before `offset`, at a damaged record, it stays there.
  void OnAppended(const LogBytes& log, uint32_t offset, uint32_t lastOffset, uint32_t end) noexcept;

 private:
  // What a record began with: its header and its key, of a long key the beginning and
  // the CRC-32C of the rest.
  struct RecordFingerprint {
    uint32_t offset = 0;
    uint32_t size = 0;  // of the header and the whole key; 0: no record
    uint32_t restCrc = 0;
    uint8_t bytes[sizeof(WalRecord) + 64];
  };

  static void SaveFingerprint(const LogBytes& log, uint32_t offset, RecordFingerprint* fingerprint) noexcept;
  static bool WasReplaced(const LogBytes& log, const RecordFingerprint& fingerprint, uint32_t used);

  uint32_t replayedEnd_ = kWalFirstRecord;
  uint32_t end_ = kWalFirstRecord;  // of the last record that was replayed or appended by this process
  RecordFingerprint first_;         // of the records before replayedEnd_
  RecordFingerprint last_;
  uint64_t manifestChanges_ = 0;
  bool needsFullReplay_ = false;
};

}  // namespace Kestrun
