#include "format/block_reader.h"

#include <algorithm>
#include <cstring>

#include "format/checksum.h"
#include "kestrun/status.h"

namespace Kestrun {
namespace {

// The page sizes of the machines that the store runs on.
constexpr uint64_t kPageSizes[] = {4096, 16384, 65536};

uint32_t ToStatus(ByteWindow::Result result) {
  switch (result) {
    case ByteWindow::Result::Ok:
      return kStatusOk;
    case ByteWindow::Result::Short:
      return kStatusBlockCorrupt;
    case ByteWindow::Result::Failed:
      break;
  }
  return kStatusBlockShortRead;
}

// Reads a header and checks the checksum of the bytes before `checksumOffset`, which stands there.
template <typename Header>
uint32_t ReadHeader(ByteSource& source, uint64_t offset, size_t checksumOffset, Header* header) {
  const ssize_t count = source.ReadAt(offset, header, sizeof(*header));
  if (count < 0) return kStatusBlockShortRead;
  const bool sound = count == static_cast<ssize_t>(sizeof(*header)) &&
                     StoreChecksum(header, checksumOffset) == header->checksum;
  return sound ? kStatusOk : kStatusBlockCorrupt;
}

uint32_t ReadSectionSize(ByteSource& source, uint64_t offset, uint64_t* size) {
  SectionHeader header;
  const uint32_t status = ReadHeader(source, offset, SectionHeaderOffset::kChecksum, &header);
  if (status == kStatusOk) *size = header.size;
  return status;
}

}  // namespace

uint32_t ReadBlockSections(ByteSource& source, uint64_t pageSize, BlockSections* sections) {
  BlockSections found;
  if (!source.Size(&found.fileSize)) return kStatusStatFailed;

  BlockFileHeader header;
  uint32_t status = ReadHeader(source, 0, BlockFileHeaderOffset::kChecksum, &header);
  if (status == kStatusOk) status = ReadSectionSize(source, kDataSectionOffset, &found.dataSize);
  if (status != kStatusOk) return status;
  found.keyTableOffset = LayOutBlock(found.dataSize, 0, 0, pageSize).keyTableOffset;
  status = ReadSectionSize(source, found.keyTableOffset, &found.keyTableSize);
  if (status != kStatusOk) return status;
  found.entryTableOffset = LayOutBlock(found.dataSize, found.keyTableSize, 0, pageSize).entryTableOffset;
  status = ReadSectionSize(source, found.entryTableOffset, &found.entryTableSize);
  if (status != kStatusOk) return status;
  if (found.keyTableSize == 0 || found.entryTableSize == 0) return kStatusMapFailed;

  if (found.entryTableSize > sizeof(SectionHeader)) {
    const uint64_t bytes = found.entryTableSize - sizeof(SectionHeader);
    found.entryCount = (bytes + sizeof(BlockDataEntry) - 1) / sizeof(BlockDataEntry);
    const uint64_t lastEntry = found.FirstEntry() + (found.entryCount - 1) * sizeof(BlockDataEntry);
    if (lastEntry + BlockDataEntryOffset::kPadding3 > found.fileSize) return kStatusBlockCorrupt;
  }
  *sections = found;
  return kStatusOk;
}

uint32_t DetectBlockPageSize(ByteSource& source, uint64_t* pageSize) {
  uint32_t status = kStatusBlockCorrupt;
  for (const uint64_t candidate : kPageSizes) {
    BlockSections sections;
    status = ReadBlockSections(source, candidate, &sections);
    if (status == kStatusOk) *pageSize = candidate;
    if (status != kStatusBlockCorrupt) break;
  }
  return status;
}

bool DecodeBlockEntry(const uint8_t* bytes, size_t held, uint64_t keyTableSize, BlockDataEntry* entry) {
  if (held >= sizeof(*entry)) {
    std::memcpy(entry, bytes, sizeof(*entry));
  } else {
    *entry = {};
    std::memcpy(entry, bytes, held);
  }
  return StoreChecksum(entry, BlockDataEntryOffset::kChecksum) == entry->checksum &&
         uint64_t{entry->keyOffset} + entry->keySize <= keyTableSize;
}

BlockReader::BlockReader(ByteSource& source, uint64_t pageSize, size_t windowSize)
    : source_(source), pageSize_(pageSize), entries_(source, windowSize), keys_(source, windowSize) {}

uint32_t BlockReader::Start() {
  position_ = 0;
  if (const uint32_t status = ReadBlockSections(source_, pageSize_, &sections_); status != kStatusOk) {
    return status;
  }
  keys_.LimitTo(sections_.keyTableSize);
  entries_.LimitTo(sections_.entryCount * sizeof(BlockDataEntry));
  return kStatusOk;
}

uint32_t BlockReader::Next(bool* end) {
  *end = position_ == sections_.entryCount;
  if (*end) return kStatusOk;

  const uint64_t offset = sections_.FirstEntry() + position_ * sizeof(BlockDataEntry);
  const auto held =
      static_cast<size_t>(std::min<uint64_t>(sizeof(BlockDataEntry), sections_.fileSize - offset));
  const uint8_t* bytes = nullptr;
  uint32_t status = ToStatus(entries_.View(offset, held, &bytes));
  if (status != kStatusOk) return status;
  if (!DecodeBlockEntry(bytes, held, sections_.keyTableSize, &entry_)) return kStatusBlockCorrupt;
  status = ToStatus(keys_.View(sections_.keyTableOffset + entry_.keyOffset, entry_.keySize, &bytes));
  if (status != kStatusOk) return status;
  key_ = {reinterpret_cast<const char*>(bytes), entry_.keySize};
  ++position_;
  return kStatusOk;
}

void BlockReader::Release() {
  entries_.Release();
  keys_.Release();
}

}  // namespace Kestrun
