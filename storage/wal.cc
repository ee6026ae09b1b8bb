#include "storage/wal.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "base/clock.h"
#include "base/page_size.h"
#include "format/checksum.h"
#include "kestrun/status.h"
#include "storage/published_header.h"

namespace Kestrun {
namespace {

DataEntry EntryOf(const WalRecord& record) {
  DataEntry entry = {};
  entry.valueOffset = record.valueOffset;
  entry.valueSize = record.valueSize;
  entry.deleted = record.deleted != 0;
  entry.timestamp = record.timestamp;
  entry.ttl = record.ttl;
  return entry;
}

}  // namespace

void WalSharedState::AfterFork() {
  ReinitAfterFork(replayMutex);
}

// A walk over the index keeps the table that it walks: it is replaced then, not emptied.
void WalSharedState::Clear() {
  if (index.use_count() == 1) {
    index->clear();
  } else {
    index = std::make_shared<MemTable<DataEntry>>();
  }
  replayedEnd = kWalFirstRecord;
  end = kWalFirstRecord;
  first.bytes.clear();
  last.bytes.clear();
  needsFullReplay = false;
}

uint32_t Wal::Insert(const Key& key, uint32_t ttl, const void* value, uint32_t valueSize) {
  return Append(key, ttl, value, valueSize, false);
}

uint32_t Wal::Delete(const Key& key) {
  return Append(key, 0, nullptr, 0, true);
}

// Catches up, so that what others wrote before enters the index before this entry; checks that the record
// fits; indexes it, the only step that can fail; stores its bytes; and publishes them last, so that a process
// killed on the way leaves no half record.
uint32_t Wal::Append(const Key& key, uint32_t ttl, const void* value, uint32_t valueSize, bool deleted) {
  const uint16_t keySize = key.Data() == nullptr ? static_cast<uint16_t>(0) : key.Size();
  if (keySize == 0) {
    std::printf("Invalid key");
    return kStatusInvalid;
  }
  WalHeader header;
  if (!ReadHeader(&header) || header.used < WalHeaderOffset::kEnd) {
    std::printf("Invalid wal checksum");
    std::puts("Failed to reserve write space");
    return kStatusWalChecksum;
  }
  CatchUp(header);
  const uint32_t offset = header.used;
  const uint64_t end = uint64_t{offset} + sizeof(WalRecord) + keySize + valueSize;
  if (end > capacity_) {
    std::printf("Wal is full");
    std::puts("Failed to reserve write space");
    return kStatusWalFull;
  }

  WalRecord record = {};
  record.valueOffset = offset + static_cast<uint32_t>(sizeof(WalRecord)) + keySize;
  record.valueSize = valueSize;
  record.deleted = deleted ? 1 : 0;
  record.timestamp = NowSeconds();
  record.ttl = ttl;
  record.keySize = keySize;
  record.checksum = StoreChecksum(&record, WalRecordOffset::kChecksum);
  state_->index->insert_or_assign(key, EntryOf(record));

  if (state_->replayedEnd < offset) InvalidateRecord(state_->replayedEnd, offset);
  std::memcpy(base_ + offset, &record, sizeof(record));
  std::memcpy(base_ + offset + sizeof(record), key.Data(), keySize);
  if (valueSize != 0) std::memcpy(base_ + record.valueOffset, value, valueSize);
  PublishUsed(header, static_cast<uint32_t>(end));

  state_->end = static_cast<uint32_t>(end);
  // Behind a damaged record, where replay has stopped, the offset stays.
  if (state_->replayedEnd == offset) {
    SaveFingerprints(offset, offset);
    state_->replayedEnd = static_cast<uint32_t>(end);
  }
  return kStatusOk;
}

uint32_t Wal::Reserve(uint32_t size, uint32_t* offset) {
  WalHeader header;
  if (!ReadHeader(&header)) {
    std::printf("Invalid wal checksum");
    return kStatusWalChecksum;
  }
  if (uint64_t{header.used} + size > capacity_) {
    std::printf("Wal is full");
    return kStatusWalFull;
  }
  *offset = header.used;
  PublishUsed(header, header.used + size);
  return kStatusOk;
}

void Wal::OnManifestChanges(uint64_t moves) {
  if (state_->manifestChanges == moves) return;
  state_->manifestChanges = moves;
  state_->needsFullReplay = true;
}

void Wal::CatchUp() {
  WalHeader header;
  if (ReadHeader(&header)) CatchUp(header);
}

void Wal::CatchUp(const WalHeader& header) {
  RemapIfGrown(header.used);
  if (state_->needsFullReplay || WasResetByOtherProcess(header)) state_->Clear();
  if (state_->replayedEnd >= header.used) return;

  const std::lock_guard<std::mutex> lock(state_->replayMutex);
  const uint32_t start = state_->replayedEnd;
  uint64_t offset = start;
  uint64_t lastOffset = start;
  WalRecord record;
  while (ReadRecord(offset, header.used, &record)) {
    const Key key(base_ + offset + sizeof(record), record.keySize);
    state_->index->insert_or_assign(key, EntryOf(record));
    lastOffset = offset;
    offset += sizeof(record) + record.keySize + uint64_t{record.valueSize};
  }
  if (offset == start) return;
  SaveFingerprints(start, static_cast<uint32_t>(lastOffset));
  state_->replayedEnd = static_cast<uint32_t>(offset);
  state_->end = std::max(state_->end, state_->replayedEnd);
}

// A sound record lies between `offset` and the end of the used area. One that reaches beyond is not followed:
// what is appended next would lie inside it and never be replayed.
bool Wal::ReadRecord(uint64_t offset, uint64_t used, WalRecord* record) const {
  const uint64_t limit = used < capacity_ ? used : capacity_;
  if (offset + sizeof(WalRecord) >= limit) return false;
  std::memcpy(record, base_ + offset, sizeof(WalRecord));
  if (StoreChecksum(record, WalRecordOffset::kChecksum) != record->checksum || record->keySize == 0)
    return false;
  return offset + sizeof(WalRecord) + record->keySize + record->valueSize <= limit;
}

// Where replay has stopped, the next append can make a record fit into the used area that did not fit before:
// an old one whose neighbours were lost with the power. Its key would get a value that lies inside newer
// records, and they would never be replayed. So what stopped the replay is made to stop it for good.
void Wal::InvalidateRecord(uint32_t offset, uint32_t used) {
  WalRecord record;
  if (uint64_t{offset} + sizeof(record) > used) return;  // is overwritten by what is appended
  std::memcpy(&record, base_ + offset, sizeof(record));
  if (StoreChecksum(&record, WalRecordOffset::kChecksum) != record.checksum) return;
  base_[offset + WalRecordOffset::kChecksum] ^= 0xFF;
}

bool Wal::WasResetByOtherProcess(const WalHeader& header) const {
  if (header.used < state_->end) return true;
  if (state_->replayedEnd == kWalFirstRecord) {
    // Entries without a replay come from appends behind a damaged first record. It does not heal by itself.
    WalRecord record;
    return !state_->index->empty() && ReadRecord(kWalFirstRecord, header.used, &record);
  }
  return WasReplaced(state_->first, header.used) || WasReplaced(state_->last, header.used);
}

// A record that is merely damaged now is not another record: its entry stays.
bool Wal::WasReplaced(const WalSharedState::RecordFingerprint& seen, uint32_t used) const {
  if (uint64_t{seen.offset} + seen.bytes.size() > capacity_) return true;
  if (std::memcmp(base_ + seen.offset, seen.bytes.data(), seen.bytes.size()) == 0) return false;
  WalRecord record;
  return ReadRecord(seen.offset, used, &record);
}

void Wal::SaveFingerprints(uint32_t firstOffset, uint32_t lastOffset) {
  if (firstOffset == kWalFirstRecord) CopyRecordTo(firstOffset, &state_->first);
  CopyRecordTo(lastOffset, &state_->last);
}

void Wal::CopyRecordTo(uint32_t offset, WalSharedState::RecordFingerprint* seen) const {
  WalRecord record;
  std::memcpy(&record, base_ + offset, sizeof(record));
  seen->bytes.assign(reinterpret_cast<const char*>(base_ + offset), sizeof(record) + record.keySize);
  seen->offset = offset;
}

bool Wal::Lookup(const Key& key, DataEntry* entry) {
  CatchUp();
  auto found = state_->index->find(key);
  if (found != state_->index->end() && IsStale(key, found->second)) {
    state_->needsFullReplay = true;
    CatchUp();
    found = state_->index->find(key);
  }
  if (found == state_->index->end()) return false;
  *entry = found->second;
  return true;
}

// Whether another record stands where the index says that this entry's record is: the log was emptied
// elsewhere and filled again with a first and a last record like those of before.
bool Wal::IsStale(const Key& key, const DataEntry& entry) const {
  const uint64_t headSize = sizeof(WalRecord) + key.Size();
  WalHeader header;
  WalRecord record;
  if (entry.valueOffset < headSize || !ReadHeader(&header)) return false;
  const uint64_t offset = entry.valueOffset - headSize;
  if (offset < kWalFirstRecord || !ReadRecord(offset, header.used, &record)) return false;
  return record.valueOffset != entry.valueOffset || record.valueSize != entry.valueSize ||
         record.timestamp != entry.timestamp || record.keySize != key.Size() ||
         std::memcmp(base_ + offset + sizeof(record), key.Data(), key.Size()) != 0;
}

uint32_t Wal::ReadValue(const DataEntry& entry, void** value) {
  const uint8_t* bytes = ViewValue(entry);
  if (bytes == nullptr) return kStatusInvalid;
  void* copy = std::malloc(entry.valueSize);
  if (copy == nullptr) return kStatusNoMemory;
  std::memcpy(copy, bytes, entry.valueSize);
  *value = copy;
  return kStatusOk;
}

const uint8_t* Wal::ViewValue(const DataEntry& entry) {
  if (uint64_t{entry.valueOffset} + entry.valueSize > capacity_) {
    std::printf("wal boundary verification failed");
    return nullptr;
  }
  return base_ + entry.valueOffset;
}

void Wal::Enumerate(const Key& from, const Key& to, const std::function<bool(const Key&)>& visit) {
  if (!visit) return;
  CatchUp();
  std::shared_ptr<MemTable<DataEntry>> table = state_->index;
  auto position = table->lower_bound(from);
  while (position != table->end() && position->first < to) {
    if (visit(position->first)) return;
    if (table == state_->index) {
      ++position;
    } else {
      const std::shared_ptr<MemTable<DataEntry>> current = state_->index;
      position = current->upper_bound(position->first);
      table = current;
    }
  }
}

void Wal::ForEachEntry(const Key& from, const Key& to,
                       const std::function<bool(const Key&, const DataEntry&)>& visit) {
  CatchUp();
  for (auto position = state_->index->lower_bound(from);
       position != state_->index->end() && position->first < to; ++position) {
    if (visit(position->first, position->second)) return;
  }
}

void Wal::SyncFirstPage() {
  const uint64_t page = PageSize();
  IgnoreStatus(msync(base_, page < capacity_ ? page : capacity_, MS_SYNC));  // see the header
}

bool Wal::ReadHeader(WalHeader* header) const {
  std::memcpy(header, base_, sizeof(*header));
  return StoreChecksum(header, WalHeaderOffset::kChecksum) == header->checksum;
}

void Wal::PublishUsed(WalHeader header, uint32_t used) {
  header.used = used;
  header.checksum = StoreChecksum(&header, WalHeaderOffset::kChecksum);
  StoreHeaderAtomically(base_, &header);
}

// Another process may have made the log longer than this mapping.
void Wal::RemapIfGrown(uint32_t used) {
  if (used <= capacity_) return;
  uint64_t size = 0;
  if (file_->Size(&size) != 0 || size <= capacity_ || size > std::numeric_limits<uint32_t>::max()) return;
  void* base = file_->Map(static_cast<uint32_t>(size), 0, 0);
  if (base == nullptr) return;
  file_->TrackMapping(base, static_cast<uint32_t>(size));
  IgnoreStatus(file_->Unmap(base_));  // an adopted mapping, so nothing can be wrong with it
  base_ = static_cast<uint8_t*>(base);
  capacity_ = static_cast<uint32_t>(size);
}

}  // namespace Kestrun
