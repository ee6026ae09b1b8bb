// The bytes of a store's file, put together field by field at offsets that the test writes out. It shares
// nothing with the library's own descriptions of its formats: both would be wrong together.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace Kestrun::Testing {

// What the store's files call a checksum: 0xBC9F1D34 plus every byte.
uint32_t ChecksumOf(const std::string& bytes);

class FileImage {
 public:
  FileImage() = default;
  explicit FileImage(std::string bytes) : bytes_(std::move(bytes)) {}

  // Each of these makes the image long enough first, with zeros. Integers are little-endian.
  FileImage& Put8(size_t offset, uint8_t value) { return PutNumber(offset, value, 1); }
  FileImage& Put16(size_t offset, uint16_t value) { return PutNumber(offset, value, 2); }
  FileImage& Put32(size_t offset, uint32_t value) { return PutNumber(offset, value, 4); }
  FileImage& Put64(size_t offset, uint64_t value) { return PutNumber(offset, value, 8); }
  FileImage& PutBytes(size_t offset, const std::string& bytes);
  // The checksum of `length` bytes from `start`, put at `offset`.
  FileImage& PutChecksum(size_t offset, size_t start, size_t length);

  uint32_t Get32(size_t offset) const;

  const std::string& Bytes() const { return bytes_; }
  std::string& Bytes() { return bytes_; }

 private:
  FileImage& PutNumber(size_t offset, uint64_t value, size_t width);

  std::string bytes_;
};

}  // namespace Kestrun::Testing
