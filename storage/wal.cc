#include "storage/wal.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "base/clock.h"
#include "base/key_bytes.h"
#include "base/page_size.h"
#include "format/checksum.h"
#include "format/crc32c.h"
#include "format/wal_reader.h"
#include "kestrun/status.h"
#include "storage/published_header.h"

namespace Kestrun {
namespace {

uint64_t SizeOf(const WalRecord& record) {
  return sizeof(record) + record.keySize + uint64_t{record.valueSize};
}

std::string_view KeyAt(const LogBytes& log, uint64_t offset, const WalRecord& record) {
  return {reinterpret_cast<const char*>(log.base + offset + sizeof(record)), record.keySize};
}

}  // namespace

void WalSharedState::AfterFork() {
  ReinitAfterFork(replayMutex);
}

// A walk or a snapshot keeps the filling that it looks at: a new one takes its place then.
void WalSharedState::Clear() {
  if (filling.use_count() == 1 && !filling->isViewed) {
    filling->index.Clear();
    filling->hasEpoch = false;
    filling->copy.reset();
  } else if (spare != nullptr) {
    filling = std::move(spare);
    spare.reset();
  } else {
    filling = std::make_shared<LogFilling>();
  }
  staleness.OnCleared();
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
  const std::string_view keyBytes = BytesOf(key);
  if (keyBytes.empty()) {
    diagnostics_.Print("Invalid key");
    return kStatusInvalid;
  }
  WalHeader header;
  if (!ReadHeader(&header) || header.used < WalHeaderOffset::kEnd) {
    diagnostics_.Print("Invalid wal checksum");
    diagnostics_.Print("Failed to reserve write space\n");
    return kStatusWalChecksum;
  }
  CatchUp(header);
  const uint32_t offset = header.used;
  const uint64_t end = uint64_t{offset} + sizeof(WalRecord) + keyBytes.size() + valueSize;
  if (!HasRoom(end)) {
    diagnostics_.Print("Wal is full");
    diagnostics_.Print("Failed to reserve write space\n");
    return kStatusWalFull;
  }

  WalRecord record = {};
  record.valueOffset = static_cast<uint32_t>(offset + sizeof(WalRecord) + keyBytes.size());
  record.valueSize = valueSize;
  record.deleted = deleted ? 1 : 0;
  record.timestamp = NowSeconds();
  record.ttl = ttl;
  record.keySize = static_cast<uint16_t>(keyBytes.size());
  record.checksum = StoreChecksum(&record, WalRecordOffset::kChecksum);
  state_->filling->index.Insert(keyBytes, {offset, ToDataEntry(record)});

  InvalidateRecord(state_->staleness.ReplayedEnd(), offset);
  std::memcpy(base_ + offset, &record, sizeof(record));
  std::memcpy(base_ + offset + sizeof(record), keyBytes.data(), keyBytes.size());
  if (valueSize != 0) std::memcpy(base_ + record.valueOffset, value, valueSize);
  PublishUsed(header, static_cast<uint32_t>(end));
  state_->staleness.OnAppended(Bytes(), offset, offset, static_cast<uint32_t>(end));
  return kStatusOk;
}

// What an append checks: the header, that every record can be replayed, and that `size` bytes fit.
uint32_t Wal::BeginAppend(uint64_t size, WalHeader* header) {
  if (!ReadHeader(header) || header->used < WalHeaderOffset::kEnd) return kStatusWalChecksum;
  CatchUp(*header);
  if (state_->staleness.ReplayedEnd() < header->used) return kStatusInvalid;
  return HasRoom(header->used + size) ? kStatusOk : kStatusWalFull;
}

// Completes a marked record and stores it, unseen as yet, at `offset`; indexes it, for which there is room.
void Wal::StoreMarked(WalRecord record, uint32_t offset, std::string_view key, std::string_view value) {
  record.valueOffset = static_cast<uint32_t>(offset + sizeof(record) + key.size());
  record.mark = kChecksummedMark;
  record.crc = Crc32c(value.data(), value.size(), Crc32c(key.data(), key.size()));
  std::memcpy(record.epoch, &state_->filling->epoch, sizeof(record.epoch));
  record.checksum = StoreChecksum(&record, WalRecordOffset::kChecksum);
  std::memcpy(base_ + offset, &record, sizeof(record));
  std::memcpy(base_ + offset + sizeof(record), key.data(), key.size());
  if (!value.empty()) std::memcpy(base_ + record.valueOffset, value.data(), value.size());
  state_->filling->index.Insert(key, {offset, ToDataEntry(record)});
}

uint32_t Wal::AppendMarked(std::string_view key, uint32_t ttl, std::string_view value, bool deleted) {
  WalHeader header;
  const uint64_t size = sizeof(WalRecord) + key.size() + uint64_t{value.size()};
  if (const uint32_t status = BeginAppend(size, &header); status != kStatusOk) return status;
  state_->filling->index.Reserve(1, key.size());
  ChooseEpoch();

  WalRecord record = {};
  record.valueSize = static_cast<uint32_t>(value.size());
  record.deleted = deleted ? 1 : 0;
  record.timestamp = NowSeconds();
  record.ttl = ttl;
  record.keySize = static_cast<uint16_t>(key.size());
  const auto end = static_cast<uint32_t>(header.used + size);
  StoreMarked(record, header.used, key, value);
  PublishUsed(header, end);
  state_->staleness.OnAppended(Bytes(), header.used, header.used, end);
  return kStatusOk;
}

uint32_t Wal::AppendBatch(std::string_view records, size_t count) {
  WalHeader header;
  if (const uint32_t status = BeginAppend(records.size(), &header); status != kStatusOk) return status;
  state_->filling->index.Reserve(count, records.size());
  ChooseEpoch();

  const uint64_t now = NowSeconds();
  uint32_t last = header.used;
  for (size_t position = 0; position < records.size();) {
    WalRecord record;
    std::memcpy(&record, records.data() + position, sizeof(record));
    position += sizeof(record);
    const std::string_view key = records.substr(position, record.keySize);
    position += key.size();
    const std::string_view value = records.substr(position, record.valueSize);
    position += value.size();
    last = static_cast<uint32_t>(header.used + position - value.size() - key.size() - sizeof(record));
    record.timestamp = now;
    StoreMarked(record, last, key, value);
  }
  const auto end = static_cast<uint32_t>(header.used + records.size());
  PublishUsed(header, end);
  state_->staleness.OnAppended(Bytes(), header.used, last, end);
  return kStatusOk;
}

// All marked records of a filling have the same epoch, and no two fillings have: what an earlier one
// left in the file never passes for a record of this one. The clock tells them apart, because a reset
// takes more than a microsecond.
void Wal::ChooseEpoch() {
  LogFilling& filling = *state_->filling;
  if (filling.hasEpoch) return;
  filling.epoch = static_cast<uint32_t>(NowMicroseconds());
  WalRecord stale;
  std::memcpy(&stale, base_ + kWalFirstRecord,
              capacity_ < kWalFirstRecord + sizeof(stale) ? 0 : sizeof(stale));
  if (EpochOf(stale) == filling.epoch) ++filling.epoch;
  filling.hasEpoch = true;
}

uint32_t Wal::Reserve(uint32_t size, uint32_t* offset) {
  WalHeader header;
  if (!ReadHeader(&header)) {
    diagnostics_.Print("Invalid wal checksum");
    return kStatusWalChecksum;
  }
  if (!HasRoom(uint64_t{header.used} + size)) {
    diagnostics_.Print("Wal is full");
    return kStatusWalFull;
  }
  *offset = header.used;
  PublishUsed(header, header.used + size);
  return kStatusOk;
}

void Wal::ClearIfRecreated() {
  if (state_->wasRecreated.load(std::memory_order_relaxed) && state_->wasRecreated.exchange(false)) {
    state_->Clear();
  }
}

bool Wal::CatchUp() {
  ClearIfRecreated();
  WalHeader header;
  if (!ReadHeader(&header)) return false;
  CatchUp(header);
  return true;
}

void Wal::CatchUp(const WalHeader& header) {
  ClearIfRecreated();
  RemapIfGrown(header.used);
  const bool indexIsEmpty = state_->filling->index.KeyCount() == 0;
  if (state_->staleness.NeedsFullReplay(Bytes(), header.used, indexIsEmpty)) state_->Clear();
  if (state_->staleness.ReplayedEnd() < header.used) Replay(header.used);
}

// Looks through the records first: what is not sound ends the replay, and for what is sound there is
// room in the index then.
void Wal::Replay(uint32_t used) {
  const std::lock_guard<std::mutex> lock(state_->replayMutex);
  LogFilling& filling = *state_->filling;
  const LogBytes log = Bytes();
  const uint64_t start = state_->staleness.ReplayedEnd();
  uint64_t end = start;
  uint64_t last = start;
  bool hasEpoch = filling.hasEpoch;
  uint32_t epoch = filling.epoch;
  size_t count = 0;
  size_t keyBytes = 0;
  WalRecord record;
  while (log.ReadRecord(end, used, &record) && IsContentSound(end, record, &hasEpoch, &epoch)) {
    ++count;
    keyBytes += record.keySize;
    last = end;
    end += SizeOf(record);
  }
  if (end == start) return;

  filling.index.Reserve(count, keyBytes);
  for (uint64_t offset = start; offset < end; offset += SizeOf(record)) {
    std::memcpy(&record, log.base + offset, sizeof(record));
    filling.index.Insert(KeyAt(log, offset, record), {static_cast<uint32_t>(offset), ToDataEntry(record)});
  }
  filling.hasEpoch = hasEpoch;
  filling.epoch = epoch;
  state_->staleness.OnReplayed(log, static_cast<uint32_t>(last), static_cast<uint32_t>(end));
}

// What a marked record promises of its content. `*epoch` is that of the marked records before it.
bool Wal::IsContentSound(uint64_t offset, const WalRecord& record, bool* hasEpoch, uint32_t* epoch) const {
  if (!IsMarked(record)) return true;
  if (*hasEpoch && EpochOf(record) != *epoch) return false;
  if (Crc32c(base_ + offset + sizeof(record), size_t{record.keySize} + record.valueSize) != record.crc)
    return false;
  *hasEpoch = true;
  *epoch = EpochOf(record);
  return true;
}

// Where replay has stopped, the next append can make a record fit into the used area that did not fit before:
// an old one whose neighbours were lost with the power. Its key would get a value that lies inside newer
// records, and they would never be replayed. So what stopped the replay is made to stop it for good.
void Wal::InvalidateRecord(uint32_t offset, uint32_t used) {
  if (offset >= used) return;
  WalRecord record;
  if (uint64_t{offset} + sizeof(record) > used) return;  // is overwritten by what is appended
  std::memcpy(&record, base_ + offset, sizeof(record));
  if (StoreChecksum(&record, WalRecordOffset::kChecksum) != record.checksum) return;
  base_[offset + WalRecordOffset::kChecksum] ^= 0xFF;
}

bool Wal::Lookup(const Key& key, DataEntry* entry) {
  LogIndex::Version version;
  if (!Lookup(BytesOf(key), &version)) return false;
  *entry = version.entry;
  return true;
}

bool Wal::Lookup(std::string_view key, LogIndex::Version* version, bool* isSound) {
  ClearIfRecreated();
  WalHeader header;
  const bool hasHeader = ReadHeader(&header);
  if (isSound != nullptr) *isSound = hasHeader;
  if (hasHeader) CatchUp(header);
  if (!state_->filling->index.Find(key, LogIndex::kNoLimit, version)) return false;
  if (!hasHeader) return true;

  WalRecord indexed = {};
  indexed.valueOffset = version->entry.valueOffset;
  indexed.valueSize = version->entry.valueSize;
  indexed.timestamp = version->entry.timestamp;
  indexed.keySize = static_cast<uint16_t>(key.size());
  if (!LogStaleness::IsReplaced(Bytes(), header.used, version->offset, indexed, key.data())) return true;
  state_->staleness.RequireFullReplay();
  CatchUp();
  return state_->filling->index.Find(key, LogIndex::kNoLimit, version);
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
    diagnostics_.Print("wal boundary verification failed");
    return nullptr;
  }
  return base_ + entry.valueOffset;
}

void Wal::Enumerate(const Key& from, const Key& to, const std::function<bool(const Key&)>& visit) {
  if (!visit) return;
  CatchUp();
  std::shared_ptr<LogFilling> filling = state_->filling;
  LogIndex::Iterator position(filling->index);
  for (position.Seek(BytesOf(from)); position.Valid();) {
    const Key key = ToKey(position.Key());
    if (!(key < to) || visit(key)) return;
    if (filling != state_->filling) {
      filling = state_->filling;
      position = LogIndex::Iterator(filling->index);
      position.Seek(BytesOf(key));
      if (!position.Valid() || position.Key() != BytesOf(key)) continue;
    }
    position.Next();
  }
}

void Wal::ForEachEntry(const Key& from, const Key& to,
                       const std::function<bool(const Key&, const DataEntry&)>& visit) {
  CatchUp();
  LogIndex::Iterator position(state_->filling->index);
  for (position.Seek(BytesOf(from)); position.Valid(); position.Next()) {
    const Key key = ToKey(position.Key());
    if (!(key < to) || visit(key, position.Get().entry)) return;
  }
}

uint32_t Wal::TakeView(LogView* view) {
  WalHeader header;
  if (!ReadHeader(&header)) return kStatusWalChecksum;
  CatchUp(header);
  LogFilling& filling = *state_->filling;
  filling.isViewed = true;
  if (filling.index.KeyCount() == 0) {
    *view = {state_->filling, nullptr, kWalFirstRecord};
    return kStatusOk;
  }
  const uint32_t end = std::min(header.used, capacity_);
  if (filling.copy == nullptr || filling.copy->Capacity() < end) {
    filling.copy = LogCopy::Create(capacity_);
    if (filling.copy == nullptr) return kStatusNoMemory;
  }
  filling.copy->Extend(base_, end);
  *view = {state_->filling, filling.copy, end};
  return kStatusOk;
}

uint32_t Wal::Used() const {
  WalHeader header;
  return ReadHeader(&header) ? header.used : 0;
}

void Wal::PrepareReset() {
  if (state_->spare == nullptr) state_->spare = std::make_shared<LogFilling>();
}

void Wal::SyncFirstPage() {
  const uint64_t page = PageSize();
  IgnoreStatus(msync(base_, page < capacity_ ? page : capacity_, MS_SYNC));  // see the header
}

bool Wal::SyncUsed() {
  return file_->Sync() == 0;
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

bool Wal::HasRoom(uint64_t end) {
  if (end > capacity_) RemapIfGrown(end);
  return end <= capacity_;
}

// Another process may have made the log longer than this mapping.
void Wal::RemapIfGrown(uint64_t needed) {
  if (needed <= capacity_) return;
  uint64_t size = 0;
  if (file_->Size(&size) != 0 || size <= capacity_ || size > std::numeric_limits<uint32_t>::max()) return;
  void* base = file_->Map(static_cast<uint32_t>(size), 0, 0);
  if (base == nullptr) return;
  file_->TrackMapping(base, static_cast<uint32_t>(size));
  IgnoreStatus(file_->Unmap(base_));  // a tracked mapping, so nothing can be wrong with it
  base_ = static_cast<uint8_t*>(base);
  capacity_ = static_cast<uint32_t>(size);
}

// Space first, so that a full disk leaves what there is.
uint32_t Wal::Grow(uint32_t size) {
  RemapIfGrown(size);
  if (capacity_ >= size) return kStatusOk;
  if (!file_->Reserve(size) || file_->Truncate(size) != 0) return kStatusCreateFailed;
  RemapIfGrown(size);
  return capacity_ >= size ? kStatusOk : kStatusMapFailed;
}

}  // namespace Kestrun
