// A whole manifest file, manifest_v5, and its journal, put together by the tests themselves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/support/file_image.h"

namespace Kestrun::Testing {

// The bytes of one entry. A name shorter than 31 characters is filled up with NULs.
std::string ManifestEntryBytes(const std::string& name, const std::string& filter,
                               uint64_t timestamp = 1700000000);

struct ManifestImage {
  // A manifest without entries.
  explicit ManifestImage(uint32_t generation = 0);

  // Puts an entry at the end and moves the generation. Returns where it begins.
  size_t Append(const std::string& name, const std::string& filter, uint64_t timestamp = 1700000000);
  void SetGeneration(uint32_t generation);
  uint32_t Generation() const { return file.Get32(12); }
  // Makes the checksum of the header, or of the entry at `offset`, fit its bytes again.
  void SealHeader();
  void SealEntry(size_t offset);

  const std::string& Bytes() const { return file.Bytes(); }
  // What stands after the header.
  std::string Entries() const { return file.Bytes().substr(128); }

  FileImage file;
};

// The journal, manifest_v5.next: `entries` are to take the place of `oldEntries`.
std::string SideFileBytes(uint32_t generation, const std::string& oldEntries, const std::string& entries);

}  // namespace Kestrun::Testing
