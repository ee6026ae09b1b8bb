#include "tests/support/file_image.h"

#include <utility>

namespace Kestrun::Testing {

uint32_t ChecksumOf(const std::string& bytes) {
  uint32_t sum = 0xBC9F1D34;
  for (const char byte : bytes) sum += static_cast<unsigned char>(byte);
  return sum;
}

FileImage& FileImage::PutBytes(size_t offset, const std::string& bytes) {
  if (bytes_.size() < offset + bytes.size()) bytes_.resize(offset + bytes.size());
  bytes_.replace(offset, bytes.size(), bytes);
  return *this;
}

FileImage& FileImage::PutChecksum(size_t offset, size_t start, size_t length) {
  return Put32(offset, ChecksumOf(bytes_.substr(start, length)));
}

uint32_t FileImage::Get32(size_t offset) const {
  uint32_t value = 0;
  for (size_t i = 4; i-- > 0;) value = value << 8 | static_cast<unsigned char>(bytes_.at(offset + i));
  return value;
}

FileImage& FileImage::PutNumber(size_t offset, uint64_t value, size_t width) {
  std::string bytes;
  for (size_t i = 0; i < width; ++i) bytes += static_cast<char>(value >> (8 * i) & 0xFF);
  return PutBytes(offset, bytes);
}

}  // namespace Kestrun::Testing
