#include "format/wal_reader.h"

#include <algorithm>
#include <cstring>

#include "format/checksum.h"
#include "format/crc32c.h"

namespace Kestrun {
namespace {

constexpr size_t kLogWindow = 64 << 10;

}  // namespace

WalHeaderView ReadWalHeader(ByteSource& source) {
  return ReadFileHeader<WalHeader>(source, WalHeaderOffset::kChecksum);
}

// A record that reaches beyond the used area is not followed: what is appended next would lie inside it.
WalEnd CheckWalRecord(const uint8_t* bytes, uint64_t offset, uint64_t used, uint64_t fileSize,
                      WalRecord* record) {
  std::memcpy(record, bytes, sizeof(*record));
  if (record->checksum != StoreChecksum(bytes, WalRecordOffset::kChecksum)) return WalEnd::BadChecksum;
  if (record->keySize == 0) return WalEnd::EmptyKey;
  const uint64_t end = offset + sizeof(*record) + record->keySize + record->valueSize;
  if (end > fileSize) return WalEnd::BeyondFile;
  return end > used ? WalEnd::BeyondUsed : WalEnd::Complete;
}

uint32_t EpochOf(const WalRecord& record) {
  uint32_t epoch = 0;
  std::memcpy(&epoch, record.epoch, sizeof(epoch));
  return epoch;
}

WalReader::WalReader(ByteSource& source, uint64_t used, uint64_t fileSize, uint64_t start)
    : window_(source, kLogWindow), used_(used), fileSize_(fileSize), offset_(start) {}

bool WalReader::Next() {
  if (!WalRecordFits(offset_, used_, fileSize_)) return false;
  end_ = Examine();
  if (end_ != WalEnd::Complete) return false;
  ++records_;
  offset_ = record_.end;
  return true;
}

// Whether the record at offset_ is one that a replay takes. What replay compares comes in its
// order: header, key, epoch, content.
WalEnd WalReader::Examine() {
  uint8_t bytes[sizeof(WalRecord)];
  if (!window_.Copy(offset_, bytes, sizeof(bytes))) return WalEnd::Unreadable;
  WalRecord& header = record_.header;
  const WalEnd verdict = CheckWalRecord(bytes, offset_, used_, fileSize_, &header);
  record_.offset = offset_;
  record_.valueOffset = offset_ + sizeof(header) + header.keySize;
  record_.end = record_.valueOffset + header.valueSize;
  toldEnd_ = record_.end;
  if (verdict != WalEnd::Complete) return verdict;

  record_.key.resize(header.keySize);
  if (!window_.Copy(offset_ + sizeof(header), record_.key.data(), record_.key.size())) {
    return WalEnd::Unreadable;
  }
  if (!IsMarked(header)) return WalEnd::Complete;
  if (epoch_ && *epoch_ != EpochOf(header)) return WalEnd::OtherEpoch;
  if (!ContentMatches()) return WalEnd::BadContent;
  epoch_ = EpochOf(header);
  return WalEnd::Complete;
}

bool WalReader::ContentMatches() {
  uint8_t piece[4096];
  uint32_t crc = Crc32c(record_.key.data(), record_.key.size());
  for (uint64_t at = record_.valueOffset; at < record_.end;) {
    const auto size = static_cast<size_t>(std::min<uint64_t>(sizeof(piece), record_.end - at));
    if (!window_.Copy(at, piece, size)) return false;
    crc = Crc32c(piece, size, crc);
    at += size;
  }
  return crc == record_.header.crc;
}

bool WalReader::ReadValue(std::string* value) {
  value->resize(record_.header.valueSize);
  return window_.Copy(record_.valueOffset, value->data(), value->size());
}

uint64_t FindNextWalRecord(ByteSource& source, uint64_t used, uint64_t fileSize, uint64_t start) {
  ByteWindow window(source, kLogWindow);
  const uint64_t limit = std::min(used, fileSize);
  for (uint64_t offset = start + 1; WalRecordFits(offset, limit, limit); ++offset) {
    uint8_t bytes[sizeof(WalRecord)];
    if (!window.Copy(offset, bytes, sizeof(bytes))) return 0;
    // The record's own place stands in it, which no value is likely to have: it is looked at first.
    WalRecord record;
    std::memcpy(&record, bytes, sizeof(record));
    if (record.valueOffset != offset + sizeof(record) + record.keySize) continue;
    if (CheckWalRecord(bytes, offset, limit, limit, &record) == WalEnd::Complete) return offset;
  }
  return 0;
}

}  // namespace Kestrun
