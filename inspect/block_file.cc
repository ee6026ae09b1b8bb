#include "inspect/block_file.h"

#include <algorithm>
#include <cstring>

#include "base/page_size.h"
#include "format/checksum.h"
#include "format/crc32c.h"
#include "format/file_magic.h"
#include "format/wal_format.h"

namespace Kestrun::Inspect {
namespace {

constexpr size_t kWindow = 16 << 10;
constexpr uint64_t kPageSizes[] = {4096, 16384, 65536};

// Whether the header names this section, whatever its checksum says.
bool IsNamed(const SectionHeader& header, const char* name) {
  return std::strncmp(header.name, name, sizeof(header.name)) == 0;
}

// Returns whether the entry's checksum is right.
bool DecodeEntry(const uint8_t* bytes, BlockDataEntry* entry) {
  std::memcpy(entry, bytes, sizeof(*entry));
  return entry->checksum == StoreChecksum(bytes, BlockDataEntryOffset::kChecksum);
}

}  // namespace

BlockFile::BlockFile(const ReadOnlyFile& file, uint64_t pageSize)
    : file_(file), entryWindow_(file, kWindow), keyWindow_(file, kWindow), valueWindow_(file, kWindow) {
  uint8_t bytes[sizeof(BlockFileHeader)];
  if (!file.ReadAt(0, bytes, sizeof(bytes))) return;
  std::memcpy(&header_, bytes, sizeof(bytes));
  headerComplete_ = true;
  headerChecksumMatches_ = header_.checksum == StoreChecksum(bytes, BlockFileHeaderOffset::kChecksum);

  if (pageSize != 0) {
    ReadSections(pageSize);
    return;
  }
  for (const uint64_t candidate : kPageSizes) {
    ReadSections(candidate);
    if (Usable()) return;
  }
  // A damaged block is shown as this machine would read it.
  ReadSections(PageSize());
}

void BlockFile::ReadSections(uint64_t pageSize) {
  keyTable_ = entryTable_ = SectionView();
  data_ = ReadSection(kDataSectionOffset);
  if (!data_.Usable()) return;
  keyTable_ = ReadSection(RoundUpToPage(data_.End(), pageSize));
  if (!keyTable_.Usable()) return;
  entryTable_ = ReadSection(RoundUpToPage(keyTable_.End(), pageSize));
}

SectionView BlockFile::ReadSection(uint64_t offset) const {
  SectionView view;
  view.offset = offset;
  uint8_t bytes[sizeof(SectionHeader)];
  if (!file_.ReadAt(offset, bytes, sizeof(bytes))) return view;
  std::memcpy(&view.header, bytes, sizeof(bytes));
  view.complete = true;
  view.checksumMatches = view.header.checksum == StoreChecksum(bytes, SectionHeaderOffset::kChecksum);
  view.fits = view.header.size >= sizeof(SectionHeader) && view.header.size <= file_.Size() - offset;
  return view;
}

bool BlockFile::MagicMatches() const {
  return std::memcmp(header_.magic, kFileMagic, kMagicSize) == 0;
}

bool BlockFile::Usable() const {
  return headerComplete_ && headerChecksumMatches_ && data_.Usable() && keyTable_.Usable() &&
         entryTable_.Usable() &&
         (entryTable_.header.size - sizeof(SectionHeader)) % sizeof(BlockDataEntry) == 0;
}

// Sections begin at page boundaries, of 4 KiB at least. A table whose header is damaged is known by its name,
// or as the only thing between two others; it then reaches as far as the next one.
bool BlockFile::FindTables() {
  SectionView keys;
  SectionView entries;
  for (uint64_t offset = kPageSizes[0]; offset + sizeof(SectionHeader) <= file_.Size();
       offset += kPageSizes[0]) {
    const SectionView section = ReadSection(offset);
    const bool isKeys = IsNamed(section.header, kKeyTableName);
    const bool isEntries = IsNamed(section.header, kEntryTableName);
    if (isKeys && (!keys.complete || section.checksumMatches)) keys = section;
    if (isEntries && (!entries.complete || section.checksumMatches)) entries = section;
  }
  // Of a table of entries each entry can be told by its checksum.
  BlockDataEntry entry;
  uint8_t bytes[sizeof(BlockDataEntry)];
  for (uint64_t offset = kPageSizes[0]; !entries.complete && offset < file_.Size(); offset += kPageSizes[0]) {
    if (file_.ReadAt(offset + sizeof(SectionHeader), bytes, sizeof(bytes)) && DecodeEntry(bytes, &entry)) {
      entries = ReadSection(offset);
    }
  }
  if (!entries.complete || !keys.complete || keys.offset >= entries.offset) return false;
  countIsKnown_ = entries.checksumMatches && entries.header.size >= sizeof(SectionHeader);
  keySizeIsKnown_ = keys.Usable() && keys.End() <= entries.offset;
  if (!entries.Usable()) {
    const uint64_t told = entries.header.size;
    entries.header.size = static_cast<uint32_t>(file_.Size() - entries.offset);
    const auto count = [](uint64_t size) { return (size - sizeof(SectionHeader)) / sizeof(BlockDataEntry); };
    if (countIsKnown_ && told > entries.header.size) cutEntries_ = count(told) - count(entries.header.size);
  }
  if (!keySizeIsKnown_) keys.header.size = static_cast<uint32_t>(entries.offset - keys.offset);
  entries.checksumMatches = entries.fits = keys.checksumMatches = keys.fits = true;
  keyTable_ = keys;
  entryTable_ = entries;
  return true;
}

bool BlockFile::ValueFits(const BlockDataEntry& entry) const {
  return entry.valueOffset >= kFirstValueOffset &&
         uint64_t{entry.valueOffset} + entry.valueSize <= keyTable_.offset;
}

bool BlockFile::ReadValue(const BlockDataEntry& entry, std::string* value, uint64_t most) {
  value->resize(static_cast<size_t>(std::min<uint64_t>(entry.valueSize, most)));
  return ValueFits(entry) && valueWindow_.ReadAt(entry.valueOffset, value->data(), value->size());
}

uint64_t BlockFile::EntryCount() const {
  return entryTable_.Usable() ? (entryTable_.header.size - sizeof(SectionHeader)) / sizeof(BlockDataEntry)
                              : 0;
}

uint64_t BlockFile::EntryOffset(uint64_t index) const {
  return entryTable_.offset + sizeof(SectionHeader) + index * sizeof(BlockDataEntry);
}

bool BlockFile::ReadEntry(uint64_t index, BlockDataEntry* entry, bool* checksumMatches) {
  uint8_t bytes[sizeof(BlockDataEntry)];
  if (index >= EntryCount() || !entryWindow_.ReadAt(EntryOffset(index), bytes, sizeof(bytes))) return false;
  *checksumMatches = DecodeEntry(bytes, entry);
  return true;
}

bool BlockFile::KeyFits(const BlockDataEntry& entry) const {
  return entry.keyOffset >= sizeof(SectionHeader) &&
         uint64_t{entry.keyOffset} + entry.keySize <= keyTable_.header.size;
}

bool BlockFile::ReadKey(const BlockDataEntry& entry, std::string* key) {
  key->resize(entry.keySize);
  return KeyFits(entry) && keyWindow_.ReadAt(keyTable_.offset + entry.keyOffset, key->data(), key->size());
}

std::optional<BlockDataEntry> BlockFile::Find(const std::string& key) {
  uint64_t low = 0;
  uint64_t high = EntryCount();
  std::string found;
  while (low < high) {
    const uint64_t middle = low + (high - low) / 2;
    // Past the windows: a search jumps.
    BlockDataEntry entry;
    uint8_t bytes[sizeof(BlockDataEntry)];
    if (!file_.ReadAt(EntryOffset(middle), bytes, sizeof(bytes)) || !DecodeEntry(bytes, &entry)) {
      return std::nullopt;
    }
    found.resize(entry.keySize);
    if (!KeyFits(entry) || !file_.ReadAt(keyTable_.offset + entry.keyOffset, found.data(), found.size())) {
      return std::nullopt;
    }
    // Strings compare their bytes as keys do: unsigned, the shorter prefix first.
    const int order = found.compare(key);
    if (order == 0) return entry;
    if (order < 0) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return std::nullopt;
}

bool IsMarked(const BlockDataEntry& entry) {
  return entry.mark == kChecksummedMark;
}

bool ContentMatches(const BlockDataEntry& entry, const std::string& key, const std::string& value) {
  return !IsMarked(entry) || Crc32c(value.data(), value.size(), Crc32c(key.data(), key.size())) == entry.crc;
}

uint64_t OtherPageSize(const ReadOnlyFile& file, uint64_t pageSize) {
  for (const uint64_t other : kPageSizes) {
    if (other != pageSize && BlockFile(file, other).Usable()) return other;
  }
  return 0;
}

}  // namespace Kestrun::Inspect
