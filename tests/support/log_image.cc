#include "tests/support/log_image.h"

namespace Kestrun::Testing {

LogImage::LogImage(size_t size) : file(std::string(size, '\0')) {
  file.PutBytes(0, std::string("KESTRUN\0", 8)).Put32(8, 5);
  SetUsed(128);
}

size_t LogImage::Append(const LogImageRecord& record) {
  const size_t offset = Used();
  const auto keySize = static_cast<uint16_t>(record.key.size());
  file.Put32(offset, static_cast<uint32_t>(offset + 40 + keySize));
  file.Put32(offset + 4, static_cast<uint32_t>(record.value.size()));
  file.Put8(offset + 8, record.deleted ? 1 : 0).PutBytes(offset + 9, std::string(7, '\0'));
  file.Put64(offset + 16, record.timestamp).Put32(offset + 24, record.ttl).Put32(offset + 28, 0);
  file.Put16(offset + 32, keySize).Put16(offset + 34, 0);
  file.PutBytes(offset + 40, record.key + record.value);
  SealRecord(offset);
  SetUsed(static_cast<uint32_t>(offset + 40 + record.key.size() + record.value.size()));
  return offset;
}

void LogImage::SetUsed(uint32_t offset) {
  file.Put32(12, offset);
  SealHeader();
}

void LogImage::SealHeader() {
  file.PutChecksum(16, 0, 16);
}

void LogImage::SealRecord(size_t offset) {
  file.PutChecksum(offset + 36, offset, 36);
}

}  // namespace Kestrun::Testing
