#include "block/block_reader.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/page_size.h"
#include "format/checksum.h"
#include "kestrun/status.h"

namespace Kestrun {
namespace {

// What follows an entry's checksum; where the file has lost it, it reads as zeros.
constexpr uint64_t kEntryTail = sizeof(BlockDataEntry) - BlockDataEntryOffset::kPadding3;

uint32_t ToStatus(FileWindow::Result result) {
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

// Reads a header and checks the checksum of the bytes before `checksumOffset`, which stands there.
template <typename Header>
uint32_t ReadHeader(OsFile& file, uint64_t offset, size_t checksumOffset, Header* header) {
  const ssize_t count = file.PReadFully(header, sizeof(*header), static_cast<int64_t>(offset));
  if (count < 0) return kStatusBlockShortRead;
  const bool sound = count == static_cast<ssize_t>(sizeof(*header)) &&
                     StoreChecksum(header, checksumOffset) == header->checksum;
  return sound ? kStatusOk : kStatusBlockCorrupt;
}

uint32_t ReadSectionSize(OsFile& file, uint64_t offset, uint64_t* size) {
  SectionHeader header;
  const uint32_t status = ReadHeader(file, offset, SectionHeaderOffset::kChecksum, &header);
  if (status == kStatusOk) *size = header.size;
  return status;
}

}  // namespace

BlockReader::BlockReader(FileWindow::Source source, size_t windowSize)
    : source_(std::move(source)), entries_(source_, windowSize), keys_(source_, windowSize) {}

// The sections are found by their sizes alone; magic, version, types and names are not looked at.
uint32_t BlockReader::Start() {
  const std::shared_ptr<OsFile> file = source_();
  if (file == nullptr) return kStatusOpenFailed;
  if (file->Size(&fileSize_) != 0) return kStatusStatFailed;

  BlockFileHeader header;
  uint32_t status = ReadHeader(*file, 0, BlockFileHeaderOffset::kChecksum, &header);
  if (status != kStatusOk) return status;

  uint64_t dataSize = 0;
  uint64_t entryTableSize = 0;
  const uint64_t pageSize = PageSize();
  status = ReadSectionSize(*file, kDataSectionOffset, &dataSize);
  if (status != kStatusOk) return status;
  keyTableOffset_ = LayOutBlock(dataSize, 0, 0, pageSize).keyTableOffset;
  status = ReadSectionSize(*file, keyTableOffset_, &keyTableSize_);
  if (status != kStatusOk) return status;
  entryTableOffset_ = LayOutBlock(dataSize, keyTableSize_, 0, pageSize).entryTableOffset;
  status = ReadSectionSize(*file, entryTableOffset_, &entryTableSize);
  if (status != kStatusOk) return status;

  // The system maps no section of 0 bytes.
  if (keyTableSize_ == 0 || entryTableSize == 0) return kStatusMapFailed;

  // An entry that begins within the table counts, wherever the table ends.
  constexpr uint64_t kHeader = sizeof(SectionHeader);
  entryCount_ = entryTableSize <= kHeader
                    ? 0
                    : (entryTableSize - kHeader + sizeof(BlockDataEntry) - 1) / sizeof(BlockDataEntry);
  const uint64_t end = entryTableOffset_ + kHeader + entryCount_ * sizeof(BlockDataEntry);
  if (entryCount_ != 0 && end - kEntryTail > fileSize_) return kStatusBlockCorrupt;
  position_ = 0;
  keys_.LimitTo(keyTableSize_);
  entries_.LimitTo(entryCount_ * sizeof(BlockDataEntry));
  return kStatusOk;
}

uint32_t BlockReader::Next(bool* end) {
  *end = position_ == entryCount_;
  if (*end) return kStatusOk;

  const uint64_t offset = entryTableOffset_ + sizeof(SectionHeader) + position_ * sizeof(BlockDataEntry);
  const auto held = static_cast<size_t>(std::min<uint64_t>(sizeof(BlockDataEntry), fileSize_ - offset));
  const uint8_t* bytes = nullptr;
  if (const uint32_t status = ToStatus(entries_.View(offset, held, &bytes)); status != kStatusOk) {
    return status;
  }
  BlockDataEntry entry = {};
  std::memcpy(&entry, bytes, held);
  if (StoreChecksum(&entry, BlockDataEntryOffset::kChecksum) != entry.checksum) return kStatusBlockCorrupt;
  if (uint64_t{entry.keyOffset} + entry.keySize > keyTableSize_) return kStatusBlockCorrupt;
  if (const uint32_t status = ToStatus(keys_.View(keyTableOffset_ + entry.keyOffset, entry.keySize, &key_));
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
