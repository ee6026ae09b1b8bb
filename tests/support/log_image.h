// A whole log file, wal_v5, put together by the tests themselves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/support/file_image.h"

namespace Kestrun::Testing {

struct LogImageRecord {
  std::string key;
  std::string value;
  bool deleted = false;
  uint64_t timestamp = 1700000000;  // seconds
  uint32_t ttl = 0xFFFFFFFF;        // seconds
};

struct LogImage {
  // An empty log of `size` bytes.
  explicit LogImage(size_t size);

  // Puts a record after the last one and shows it in the header. Returns where it begins.
  size_t Append(const LogImageRecord& record);
  // The header's end of the used area, with the checksum that fits.
  void SetUsed(uint32_t offset);
  uint32_t Used() const { return file.Get32(12); }
  // Makes the checksum of the header, or of the record at `offset`, fit its bytes again.
  void SealHeader();
  void SealRecord(size_t offset);

  const std::string& Bytes() const { return file.Bytes(); }

  FileImage file;
};

}  // namespace Kestrun::Testing
