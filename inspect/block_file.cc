#include "inspect/block_file.h"

#include <cstring>

#include "format/checksum.h"
#include "format/file_magic.h"

namespace Kestrun::Inspect {
namespace {

// Returns whether the entry's checksum is right.
bool DecodeEntry(const uint8_t* bytes, BlockDataEntry* entry) {
  std::memcpy(entry, bytes, sizeof(*entry));
  return entry->checksum == StoreChecksum(bytes, BlockDataEntryOffset::kChecksum);
}

}  // namespace

BlockFile::BlockFile(const ReadOnlyFile& file, uint64_t pageSize)
    : file_(file), entryWindow_(file), keyWindow_(file) {
  uint8_t bytes[sizeof(BlockFileHeader)];
  if (!file.ReadAt(0, bytes, sizeof(bytes))) return;
  std::memcpy(&header_, bytes, sizeof(bytes));
  headerComplete_ = true;
  headerChecksumMatches_ = header_.checksum == StoreChecksum(bytes, BlockFileHeaderOffset::kChecksum);

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

uint64_t OtherPageSize(const ReadOnlyFile& file, uint64_t pageSize) {
  for (const uint64_t other : {uint64_t{4096}, uint64_t{16384}, uint64_t{65536}}) {
    if (other != pageSize && BlockFile(file, other).Usable()) return other;
  }
  return 0;
}

}  // namespace Kestrun::Inspect
