#include "block/section_writer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/clock.h"
#include "format/checksum.h"
#include "kestrun/status.h"

namespace Kestrun {

bool SyntheticSectionWriter::WriteHeader(BufferedWriter& file) {
  const uint64_t size = Size();
  if (size == 0) return false;
  SectionHeader header = {};
  header.type = static_cast<uint16_t>(type_);
  std::memcpy(header.name, name_, std::min(std::strlen(name_), sizeof(header.name)));
  header.size = static_cast<uint32_t>(size);
  header.checksum = StoreChecksum(&header, SectionHeaderOffset::kChecksum);
  return file.Append(&header, sizeof(header));
}

void DataSectionWriter::Count(uint16_t keySize, uint32_t valueSize) {
  ++totals_.entries;
  totals_.keyBytes += keySize;
  totals_.valueBytes += valueSize;
}

uint32_t DataSectionWriterWithWal::Measure() {
  wal_.ForEachEntry(Key::MinKey(), Key::MaxKey(), [this](const Key& key, const DataEntry& entry) {
    Count(key.Size(), entry.valueSize);
    return false;
  });
  return kStatusOk;
}

bool DataSectionWriterWithWal::WriteTo(BufferedWriter& file) {
  if (!WriteHeader(file)) return false;
  entries_.reserve(totals_.entries);
  bool written = true;
  wal_.ForEachEntry(Key::MinKey(), Key::MaxKey(), [&](const Key& key, const DataEntry& entry) {
    const uint8_t* value = wal_.ViewValue(entry);
    const auto offset = static_cast<uint32_t>(file.Position());
    written = value != nullptr && file.Append(value, entry.valueSize);
    if (!written) return true;
    entries_.push_back({key, entry});
    entries_.back().entry.valueOffset = offset;
    return false;
  });
  return written;
}

DataSectionWriterWithBlocks::DataSectionWriterWithBlocks(const std::vector<BlockSource>& sources)
    : merge_(sources), now_(NowSeconds()) {}

bool DataSectionWriterWithBlocks::IsKept(const DataEntry& entry) const {
  return !entry.deleted && IsAlive(entry.timestamp, entry.ttl, now_);
}

uint32_t DataSectionWriterWithBlocks::Measure() {
  uint32_t status = merge_.Start();
  bool end = false;
  while (status == kStatusOk) {
    status = merge_.Next(&end);
    if (status != kStatusOk || end) break;
    if (IsKept(merge_.Entry())) Count(merge_.KeySize(), merge_.Entry().valueSize);
  }
  return status;
}

// An entry that expires meanwhile, or whose value its file does not hold, is left out though the section's
// header has counted it; the tables find their place by the size that the header declares.
bool DataSectionWriterWithBlocks::WriteTo(BufferedWriter& file) {
  if (!WriteHeader(file) || merge_.Start() != kStatusOk) return false;
  entries_.reserve(totals_.entries);
  for (;;) {
    bool end = false;
    if (merge_.Next(&end) != kStatusOk) return false;
    if (end) return true;
    const DataEntry& entry = merge_.Entry();
    if (!IsKept(entry)) continue;
    if (!IsAlive(entry.timestamp, entry.ttl, NowSeconds())) {
      std::printf("TTL verification failed");
      continue;
    }
    if (!merge_.HasWholeValue()) continue;

    const auto offset = static_cast<uint32_t>(file.Position());
    const auto append = [&file](const uint8_t* bytes, size_t size) { return file.Append(bytes, size); };
    if (!merge_.ReadValue(append)) return false;
    entries_.push_back({Key(merge_.KeyBytes(), merge_.KeySize()), entry});
    entries_.back().entry.valueOffset = offset;
  }
}

uint64_t KeyTabSectionWriter::Size() {
  uint64_t size = sizeof(SectionHeader);
  for (const Block::IndexedEntry& indexed : entries_) size += indexed.key.Size();
  return size;
}

bool KeyTabSectionWriter::WriteTo(BufferedWriter& file) {
  if (!file.MoveTo(offset_) || !WriteHeader(file)) return false;
  return std::all_of(entries_.begin(), entries_.end(), [&file](const Block::IndexedEntry& indexed) {
    return file.Append(indexed.key.Data(), indexed.key.Size());
  });
}

uint64_t EntrySectionWriter::Size() {
  return sizeof(SectionHeader) + entries_.size() * sizeof(BlockDataEntry);
}

bool EntrySectionWriter::WriteTo(BufferedWriter& file) {
  if (!file.MoveTo(offset_) || !WriteHeader(file)) return false;
  uint32_t keyOffset = sizeof(SectionHeader);
  for (const Block::IndexedEntry& indexed : entries_) {
    BlockDataEntry entry = {};
    entry.valueOffset = indexed.entry.valueOffset;
    entry.valueSize = indexed.entry.valueSize;
    entry.deleted = indexed.entry.deleted ? 1 : 0;
    entry.timestamp = indexed.entry.timestamp;
    entry.ttl = indexed.entry.ttl;
    entry.keyOffset = keyOffset;
    entry.keySize = indexed.key.Size();
    entry.checksum = StoreChecksum(&entry, BlockDataEntryOffset::kChecksum);
    if (!file.Append(&entry, sizeof(entry))) return false;
    keyOffset += entry.keySize;
  }
  return file.Flush();
}

}  // namespace Kestrun
