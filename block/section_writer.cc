#include "block/section_writer.h"

#include <algorithm>
#include <cstring>

#include "base/clock.h"
#include "base/page_size.h"
#include "format/checksum.h"
#include "kestrun/status.h"

namespace Kestrun {
namespace {

// Values that lie side by side are copied together, up to this many bytes at a time.
constexpr uint64_t kMaxRun = 8 * 1024 * 1024;

// Values are asked for so many entries before they are copied.
constexpr uint32_t kPrefetched = 8;

}  // namespace

bool WriteSectionHeader(BufferedWriter& file, SectionType type, const char* name, uint64_t size) {
  SectionHeader header = {};
  header.type = static_cast<uint16_t>(type);
  std::memcpy(header.name, name, std::min(std::strlen(name), sizeof(header.name)));
  header.size = static_cast<uint32_t>(size);
  header.checksum = StoreChecksum(&header, SectionHeaderOffset::kChecksum);
  return file.Append(&header, sizeof(header));
}

BlockDataEntry ToBlockDataEntry(const BlockIndex::Record& record, uint32_t keyOffset) {
  BlockDataEntry entry = {};
  entry.valueOffset = record.valueOffset;
  entry.valueSize = record.valueSize;
  entry.deleted = record.deleted ? 1 : 0;
  entry.timestamp = record.timestamp;
  entry.ttl = record.ttl;
  entry.crc = record.hasChecksum ? record.checksum : 0;
  entry.keyOffset = keyOffset;
  entry.keySize = record.keySize;
  entry.mark = record.hasChecksum ? kChecksummedMark : uint16_t{0};
  entry.checksum = StoreChecksum(&entry, BlockDataEntryOffset::kChecksum);
  return entry;
}

bool SyntheticSectionWriter::WriteHeader(BufferedWriter& file) {
  const uint64_t size = Size();
  return size != 0 && WriteSectionHeader(file, type_, name_, size);
}

uint32_t DataSectionWriter::Measure() {
  if (const uint32_t status = cursor_.Start(); status != kStatusOk) return status;
  for (;;) {
    bool end = false;
    if (const uint32_t status = cursor_.Next(&end); status != kStatusOk) return status;
    if (end) break;
    if (IsStopped()) return kStatusBlockWriteFailed;
    entries_->Append(cursor_.Key(), cursor_.Entry(), cursor_.Checksum());
    *sources_.Extend(1) = cursor_.Source();
    valueBytes_ += cursor_.Entry().valueSize;
    if (entries_->KeyBytes().size() >= kBlockSizeLimit) return kStatusBlockWriteFailed;
  }
  const BlockLayout layout = LayOutBlock(Size(), KeyTabSectionWriter(*entries_, 0).Size(),
                                         EntrySectionWriter(*entries_, 0).Size(), PageSize());
  return layout.fileSize < kBlockSizeLimit ? kStatusOk : kStatusBlockWriteFailed;
}

// An entry that has expired since it was measured.
bool DataSectionWriter::IsLeftOut(const BlockIndex::Record& record, uint32_t source) {
  if (onExpired_ && !IsAlive(record.timestamp, record.ttl, NowSeconds())) {
    onExpired_();
    return true;
  }
  if (cursor_.HoldsValue(source, record.valueOffset, record.valueSize)) return false;
  foundDamage_ = isStrict_;
  return true;
}

bool DataSectionWriter::WriteTo(BufferedWriter& file) {
  if (!WriteHeader(file)) return false;
  BlockIndex& entries = *entries_;
  uint64_t position = file.Position();
  struct {
    uint32_t source = 0;
    uint64_t offset = 0;
    uint64_t size = 0;
  } run;
  const auto copyRun = [&] {
    return run.size == 0 || cursor_.CopyValues(run.source, run.offset, run.size, file);
  };
  uint32_t kept = 0;
  for (uint32_t i = 0; i < entries.Count(); ++i) {
    if (const uint32_t ahead = i + kPrefetched; ahead < entries.Count()) {
      cursor_.Prefetch(sources_[ahead], entries.RecordAt(ahead).valueOffset,
                       entries.RecordAt(ahead).valueSize);
    }
    const uint32_t source = sources_[i];
    if (IsLeftOut(entries.RecordAt(i), source)) {
      if (foundDamage_) return false;
      continue;
    }
    entries.Move(i, kept);
    BlockIndex::Record& record = entries.RecordAt(kept++);
    if (record.valueSize != 0) {
      const bool goesOn =
          source == run.source && record.valueOffset == run.offset + run.size && run.size < kMaxRun;
      if (!goesOn) {
        if (!copyRun() || IsStopped()) return false;
        run.source = source;
        run.offset = record.valueOffset;
        run.size = 0;
      }
      run.size += record.valueSize;
    }
    record.valueOffset = static_cast<uint32_t>(position);
    position += record.valueSize;
  }
  entries.Truncate(kept);
  return copyRun();
}

std::shared_ptr<const BlockIndex> DataSectionWriter::TakeEntries() {
  entries_->Finish();
  return std::move(entries_);
}

uint64_t KeyTabSectionWriter::Size() {
  return sizeof(SectionHeader) + entries_.KeyBytes().size();
}

bool KeyTabSectionWriter::WriteTo(BufferedWriter& file) {
  const std::string_view keys = entries_.KeyBytes();
  return file.MoveTo(offset_) && WriteHeader(file) && file.Append(keys.data(), keys.size());
}

uint64_t EntrySectionWriter::Size() {
  return sizeof(SectionHeader) + uint64_t{entries_.Count()} * sizeof(BlockDataEntry);
}

bool EntrySectionWriter::WriteTo(BufferedWriter& file) {
  if (!file.MoveTo(offset_) || !WriteHeader(file)) return false;
  for (uint32_t i = 0; i < entries_.Count(); ++i) {
    const BlockIndex::Record& record = entries_.RecordAt(i);
    const BlockDataEntry entry =
        ToBlockDataEntry(record, static_cast<uint32_t>(sizeof(SectionHeader)) + record.keyOffset);
    if (!file.Append(&entry, sizeof(entry))) return false;
  }
  return file.Flush();
}

}  // namespace Kestrun
