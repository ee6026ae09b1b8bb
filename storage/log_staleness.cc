#include "storage/log_staleness.h"

#include <algorithm>
#include <cstring>

#include "format/crc32c.h"
#include "format/wal_reader.h"

namespace Kestrun {

bool LogBytes::ReadRecord(uint64_t offset, uint64_t used, WalRecord* record) const {
  return WalRecordFits(offset, used, capacity) &&
         CheckWalRecord(base + offset, offset, used, capacity, record) == WalEnd::Complete;
}

bool LogStaleness::NeedsFullReplay(const LogBytes& log, uint32_t used, bool indexIsEmpty) const {
  if (needsFullReplay_ || used < end_) return true;
  if (replayedEnd_ == kWalFirstRecord) {
    WalRecord record;
    return !indexIsEmpty && log.ReadRecord(kWalFirstRecord, used, &record);
  }
  return WasReplaced(log, first_, used) || WasReplaced(log, last_, used);
}

bool LogStaleness::IsReplaced(const LogBytes& log, uint32_t used, uint32_t offset, const WalRecord& indexed,
                              const void* key) {
  WalRecord record;
  if (!log.ReadRecord(offset, used, &record)) return false;
  return record.valueOffset != indexed.valueOffset || record.valueSize != indexed.valueSize ||
         record.timestamp != indexed.timestamp || record.keySize != indexed.keySize ||
         std::memcmp(log.base + offset + sizeof(record), key, indexed.keySize) != 0;
}

void LogStaleness::OnManifestChanges(uint64_t changes) {
  if (manifestChanges_ == changes) return;
  manifestChanges_ = changes;
  needsFullReplay_ = true;
}

void LogStaleness::OnCleared() {
  replayedEnd_ = kWalFirstRecord;
  end_ = kWalFirstRecord;
  first_.size = 0;
  last_.size = 0;
  needsFullReplay_ = false;
}

void LogStaleness::OnReplayed(const LogBytes& log, uint32_t lastOffset, uint32_t end) noexcept {
  if (replayedEnd_ == kWalFirstRecord) SaveFingerprint(log, kWalFirstRecord, &first_);
  SaveFingerprint(log, lastOffset, &last_);
  replayedEnd_ = end;
  end_ = std::max(end_, end);
}

void LogStaleness::OnAppended(const LogBytes& log, uint32_t offset, uint32_t lastOffset,
                              uint32_t end) noexcept {
  end_ = end;
  if (replayedEnd_ != offset) return;
  if (offset == kWalFirstRecord) SaveFingerprint(log, offset, &first_);
  SaveFingerprint(log, lastOffset, &last_);
  replayedEnd_ = end;
}

void LogStaleness::SaveFingerprint(const LogBytes& log, uint32_t offset,
                                   RecordFingerprint* fingerprint) noexcept {
  constexpr size_t kKept = sizeof(fingerprint->bytes);
  WalRecord record;
  std::memcpy(&record, log.base + offset, sizeof(record));
  fingerprint->offset = offset;
  fingerprint->size = static_cast<uint32_t>(sizeof(record) + record.keySize);
  std::memcpy(fingerprint->bytes, log.base + offset, std::min<size_t>(fingerprint->size, kKept));
  if (fingerprint->size > kKept) {
    fingerprint->restCrc = Crc32c(log.base + offset + kKept, fingerprint->size - kKept);
  }
}

bool LogStaleness::WasReplaced(const LogBytes& log, const RecordFingerprint& fingerprint, uint32_t used) {
  constexpr size_t kKept = sizeof(fingerprint.bytes);
  if (uint64_t{fingerprint.offset} + fingerprint.size > log.capacity) return true;
  const uint8_t* bytes = log.base + fingerprint.offset;
  const bool isSame =
      std::memcmp(bytes, fingerprint.bytes, std::min<size_t>(fingerprint.size, kKept)) == 0 &&
      (fingerprint.size <= kKept || Crc32c(bytes + kKept, fingerprint.size - kKept) == fingerprint.restCrc);
  if (isSame) return false;
  WalRecord record;
  return log.ReadRecord(fingerprint.offset, used, &record);
}

}  // namespace Kestrun
