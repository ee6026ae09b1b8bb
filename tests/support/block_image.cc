#include "tests/support/block_image.h"

#include <unistd.h>

namespace Kestrun::Testing {
namespace {

size_t RoundUp(size_t offset, size_t page) {
  return offset % page == 0 ? offset : offset + (page - offset % page);
}

void PutSection(FileImage& file, size_t offset, uint16_t type, const std::string& name,
                const std::string& content) {
  file.Put16(offset, type).PutBytes(offset + 2, name).Put16(offset + 18, 0);
  file.Put32(offset + 20, static_cast<uint32_t>(28 + content.size())).PutChecksum(offset + 24, offset, 24);
  file.PutBytes(offset + 28, content);
}

}  // namespace

BlockImage::BlockImage(const std::vector<BlockImageEntry>& entries, uint64_t pageSize) {
  const size_t page = pageSize == 0 ? static_cast<size_t>(sysconf(_SC_PAGESIZE)) : pageSize;
  std::string values;
  std::string keys;
  FileImage table;
  for (size_t i = 0; i < entries.size(); ++i) {
    const BlockImageEntry& entry = entries[i];
    const size_t at = 48 * i;
    table.Put32(at, static_cast<uint32_t>(156 + values.size()));
    table.Put32(at + 4, static_cast<uint32_t>(entry.value.size()));
    table.Put8(at + 8, entry.deleted ? 1 : 0);
    table.Put64(at + 16, entry.timestamp).Put32(at + 24, entry.ttl);
    table.Put32(at + 32, static_cast<uint32_t>(28 + keys.size()));
    table.Put16(at + 36, static_cast<uint16_t>(entry.key.size()));
    table.PutChecksum(at + 40, at, 40).Put32(at + 44, 0);
    values += entry.value;
    keys += entry.key;
  }

  file.PutBytes(0, std::string("KESTRUN\0", 8)).Put32(8, 5).PutChecksum(12, 0, 12);
  PutSection(file, 128, 0, "__DATA__", values);
  keyTable = RoundUp(128 + 28 + values.size(), page);
  PutSection(file, keyTable, 1, "__KEYTAB__", keys);
  entryTable = RoundUp(keyTable + 28 + keys.size(), page);
  PutSection(file, entryTable, 2, "__ENTRY__", table.Bytes());
}

void BlockImage::SealEntry(size_t index) {
  file.PutChecksum(EntryOffset(index) + 40, EntryOffset(index), 40);
}

void BlockImage::SealSection(size_t offset) {
  file.PutChecksum(offset + 24, offset, 24);
}

}  // namespace Kestrun::Testing
