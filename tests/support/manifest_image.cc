#include "tests/support/manifest_image.h"

namespace Kestrun::Testing {
namespace {

// The 64-bit hash known as FNV-1a.
uint64_t SideFileHash(const std::string& bytes) {
  uint64_t hash = 14695981039346656037u;
  for (const char byte : bytes) {
    hash ^= static_cast<unsigned char>(byte);
    hash *= 1099511628211u;
  }
  return hash;
}

}  // namespace

std::string ManifestEntryBytes(const std::string& name, const std::string& filter, uint64_t timestamp) {
  FileImage entry(std::string(56, '\0'));
  entry.PutBytes(0, name).Put64(32, timestamp).Put64(40, timestamp);
  entry.Put32(48, static_cast<uint32_t>(filter.size())).PutChecksum(52, 0, 52);
  return entry.PutBytes(56, filter).Bytes();
}

ManifestImage::ManifestImage(uint32_t generation) : file(std::string(128, '\0')) {
  file.PutBytes(0, std::string("KESTRUN\0", 8)).Put32(8, 5).Put32(16, 128);
  SetGeneration(generation);
}

size_t ManifestImage::Append(const std::string& name, const std::string& filter, uint64_t timestamp) {
  const size_t offset = file.Bytes().size();
  file.PutBytes(offset, ManifestEntryBytes(name, filter, timestamp));
  SetGeneration(Generation() + 1);
  return offset;
}

void ManifestImage::SetGeneration(uint32_t generation) {
  file.Put32(12, generation);
  SealHeader();
}

void ManifestImage::SealHeader() {
  file.PutChecksum(20, 0, 20);
}

void ManifestImage::SealEntry(size_t offset) {
  file.PutChecksum(offset + 52, offset, 52);
}

std::string SideFileBytes(uint32_t generation, const std::string& oldEntries, const std::string& entries) {
  FileImage side(std::string("KESTRUN\0", 8));
  side.Put32(8, 5).Put32(12, generation);
  side.Put64(16, oldEntries.size()).Put64(24, SideFileHash(oldEntries));
  side.Put64(32, SideFileHash(side.Bytes() + entries));
  return side.PutBytes(40, entries).Bytes();
}

}  // namespace Kestrun::Testing
