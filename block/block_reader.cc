#include "block/block_reader.h"

#include <cstring>
#include <utility>

#include "kestrun/status.h"
#include "storage/checksum.h"
#include "storage/page_size.h"

namespace Kestrun {
namespace {

uint32_t StatusOf(FileWindow::Result result) {
  switch (result) {
    case FileWindow::Result::Ok:
      return kStatusOk;
    case FileWindow::Result::Short:
      return kStatusBlockCorrupt;
    case FileWindow::Result::Failed:
      break;
  }
  return kStatusBlockShortRead;
}

}  // namespace

BlockReader::BlockReader(FileWindow::Source source, size_t windowSize)
    : source_(std::move(source)), entries_(source_, windowSize), keys_(source_, windowSize) {}

// The sections are found by their sizes alone; magic, version, types and names are not looked at.
uint32_t BlockReader::Start() {
  const std::shared_ptr<OsFile> file = source_();
  if (file == nullptr) return kStatusOpenFailed;
  if (file->Size(&fileSize_) != 0) return kStatusStatFailed;

  const uint8_t* bytes = nullptr;
  if (const uint32_t status = StatusOf(keys_.View(0, sizeof(BlockFileHeader), &bytes)); status != kStatusOk) {
    return status;
  }
  BlockFileHeader header;
  std::memcpy(&header, bytes, sizeof(header));
  if (StoreChecksum(&header, BlockFileHeaderOffset::kChecksum) != header.checksum) return kStatusBlockCorrupt;

  uint64_t dataSize = 0;
  uint64_t entryTableSize = 0;
  if (const uint32_t status = ReadSectionHeader(kDataSectionOffset, &dataSize); status != kStatusOk)
    return status;
  const uint64_t pageSize = PageSize();
  keyTableOffset_ = LayOutBlock(dataSize, 0, 0, pageSize).keyTableOffset;
  if (const uint32_t status = ReadSectionHeader(keyTableOffset_, &keyTableSize_); status != kStatusOk)
    return status;
  entryTableOffset_ = LayOutBlock(dataSize, keyTableSize_, 0, pageSize).entryTableOffset;
  if (const uint32_t status = ReadSectionHeader(entryTableOffset_, &entryTableSize); status != kStatusOk) {
    return status;
  }

  constexpr uint64_t kHeader = sizeof(SectionHeader);
  const bool possible = keyTableSize_ >= kHeader && keyTableOffset_ + keyTableSize_ <= fileSize_ &&
                        entryTableSize >= kHeader && entryTableOffset_ + entryTableSize <= fileSize_ &&
                        (entryTableSize - kHeader) % sizeof(BlockDataEntry) == 0;
  if (!possible) return kStatusBlockCorrupt;
  entryCount_ = (entryTableSize - kHeader) / sizeof(BlockDataEntry);
  position_ = 0;
  return kStatusOk;
}

uint32_t BlockReader::ReadSectionHeader(uint64_t offset, uint64_t* size) {
  const uint8_t* bytes = nullptr;
  if (const uint32_t status = StatusOf(keys_.View(offset, sizeof(SectionHeader), &bytes));
      status != kStatusOk) {
    return status;
  }
  SectionHeader header;
  std::memcpy(&header, bytes, sizeof(header));
  if (StoreChecksum(&header, SectionHeaderOffset::kChecksum) != header.checksum) return kStatusBlockCorrupt;
  *size = header.size;
  return kStatusOk;
}

uint32_t BlockReader::Next(bool* end) {
  *end = position_ == entryCount_;
  if (*end) return kStatusOk;

  const uint64_t offset = entryTableOffset_ + sizeof(SectionHeader) + position_ * sizeof(BlockDataEntry);
  const uint8_t* bytes = nullptr;
  if (const uint32_t status = StatusOf(entries_.View(offset, sizeof(BlockDataEntry), &bytes));
      status != kStatusOk) {
    return status;
  }
  BlockDataEntry entry;
  std::memcpy(&entry, bytes, sizeof(entry));
  if (StoreChecksum(&entry, BlockDataEntryOffset::kChecksum) != entry.checksum) return kStatusBlockCorrupt;
  if (uint64_t{entry.keyOffset} + entry.keySize > keyTableSize_) return kStatusBlockCorrupt;
  if (const uint32_t status = StatusOf(keys_.View(keyTableOffset_ + entry.keyOffset, entry.keySize, &key_));
      status != kStatusOk) {
    return status;
  }

  keySize_ = entry.keySize;
  entry_.valueOffset = entry.valueOffset;
  entry_.valueSize = entry.valueSize;
  entry_.deleted = entry.deleted != 0;
  entry_.timestamp = entry.timestamp;
  entry_.ttl = entry.ttl;
  ++position_;
  return kStatusOk;
}

}  // namespace Kestrun
