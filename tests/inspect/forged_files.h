// Files of a store, made byte by byte with offsets of their own: were they to include the formats' headers,
// both could be wrong together.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Kestrun::Testing {

// 2012-01-01T00:00:00Z, when forged entries are written, and a time to live that outlasts every test.
inline constexpr uint64_t kForgedTime = 1325376000;
inline constexpr uint32_t kForgedTtl = 4294967295;

struct ForgedEntry {
  std::string key;
  std::string value;
  bool deleted = false;
  uint64_t timestamp = kForgedTime;
  uint32_t ttl = kForgedTtl;
  // Makes the entry carry the mark and the checksum of its key and value, and in a log this epoch.
  std::optional<uint32_t> epoch = std::nullopt;
};

// Little-endian integers, appended and put in place.
void Append16(std::string* bytes, uint16_t number);
void Append32(std::string* bytes, uint32_t number);
void Append64(std::string* bytes, uint64_t number);
void Set32(std::string* bytes, size_t offset, uint32_t number);
uint32_t Get32(const std::string& bytes, size_t offset);

uint32_t ForgedChecksum(const std::string& bytes, size_t offset, size_t size);
// Stores the checksum of [start, checksumOffset) at checksumOffset.
void Reseal(std::string* bytes, size_t start, size_t checksumOffset);

// A log of `size` bytes, or of just what it needs.
std::string ForgedLog(const std::vector<ForgedEntry>& entries, size_t size = 0);

// The entries in the order given, which need not be the right one.
std::string ForgedBlock(const std::vector<ForgedEntry>& entries, size_t pageSize = 4096);

// A filter that holds the keys and their primaries.
std::string ForgedFilter(const std::vector<std::string>& keys);

struct ForgedRecord {
  std::string name;
  std::string filter;
};
std::string ForgedManifest(const std::vector<ForgedRecord>& records);

// A name of 31 characters.
std::string ForgedName(char letter);

}  // namespace Kestrun::Testing
