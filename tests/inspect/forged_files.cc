#include "tests/inspect/forged_files.h"

#include <algorithm>

namespace Kestrun::Testing {
namespace {

constexpr uint32_t kSeed = 0xBC9F1D34;

void AppendMagicAndVersion(std::string* bytes) {
  bytes->append("KESTRUN\0", 8);
  Append32(bytes, 5);
}

std::string SectionHeaderOf(uint16_t type, const std::string& name, uint32_t size) {
  std::string bytes;
  Append16(&bytes, type);
  bytes += name;
  bytes.resize(18, '\0');
  Append16(&bytes, 0);
  Append32(&bytes, size);
  Append32(&bytes, ForgedChecksum(bytes, 0, 24));
  return bytes;
}

void FillToPage(std::string* bytes, size_t pageSize) {
  bytes->resize((bytes->size() + pageSize - 1) / pageSize * pageSize, '\0');
}

uint32_t HashOf(const std::string& key) {
  constexpr uint32_t kMultiplier = 0xC6A4A793;
  const auto byte = [&key](size_t i) { return static_cast<uint32_t>(static_cast<unsigned char>(key[i])); };
  uint32_t hash = kSeed ^ (static_cast<uint32_t>(key.size()) * kMultiplier);
  size_t i = 0;
  for (; i + 4 <= key.size(); i += 4) {
    hash = (hash + (byte(i) | byte(i + 1) << 8 | byte(i + 2) << 16 | byte(i + 3) << 24)) * kMultiplier;
    hash ^= hash >> 16;
  }
  const size_t left = key.size() - i;
  if (left == 3) hash += byte(i + 2) << 16;
  if (left >= 2) hash += byte(i + 1) << 8;
  if (left >= 1) {
    hash = (hash + byte(i)) * kMultiplier;
    hash ^= hash >> 24;
  }
  return hash;
}

}  // namespace

void Append16(std::string* bytes, uint16_t number) {
  for (int i = 0; i < 2; ++i) *bytes += static_cast<char>(number >> (8 * i) & 0xFF);
}

void Append32(std::string* bytes, uint32_t number) {
  for (int i = 0; i < 4; ++i) *bytes += static_cast<char>(number >> (8 * i) & 0xFF);
}

void Append64(std::string* bytes, uint64_t number) {
  for (int i = 0; i < 8; ++i) *bytes += static_cast<char>(number >> (8 * i) & 0xFF);
}

void Set32(std::string* bytes, size_t offset, uint32_t number) {
  std::string field;
  Append32(&field, number);
  bytes->replace(offset, 4, field);
}

uint32_t Get32(const std::string& bytes, size_t offset) {
  uint32_t number = 0;
  for (size_t i = 0; i < 4; ++i) {
    number |= static_cast<uint32_t>(static_cast<unsigned char>(bytes[offset + i])) << (8 * i);
  }
  return number;
}

uint32_t ForgedChecksum(const std::string& bytes, size_t offset, size_t size) {
  uint32_t sum = kSeed;
  for (size_t i = 0; i < size; ++i) sum += static_cast<unsigned char>(bytes[offset + i]);
  return sum;
}

void Reseal(std::string* bytes, size_t start, size_t checksumOffset) {
  Set32(bytes, checksumOffset, ForgedChecksum(*bytes, start, checksumOffset - start));
}

namespace {

// CRC-32C, one bit at a time.
uint32_t ForgedCrc(const std::string& bytes) {
  uint32_t crc = 0xFFFFFFFF;
  for (const char byte : bytes) {
    crc ^= static_cast<unsigned char>(byte);
    for (int i = 0; i < 8; ++i) crc = crc >> 1 ^ ((crc & 1) != 0 ? 0x82F63B78 : 0);
  }
  return ~crc;
}

}  // namespace

std::string ForgedLog(const std::vector<ForgedEntry>& entries, size_t size) {
  std::string records;
  for (const ForgedEntry& entry : entries) {
    std::string record;
    Append32(&record, static_cast<uint32_t>(128 + records.size() + 40 + entry.key.size()));
    Append32(&record, static_cast<uint32_t>(entry.value.size()));
    Append64(&record, (entry.deleted ? 1 : 0) | uint64_t{entry.epoch.value_or(0)} << 8);
    Append64(&record, entry.timestamp);
    Append32(&record, entry.ttl);
    Append32(&record, entry.epoch ? ForgedCrc(entry.key + entry.value) : 0);
    Append16(&record, static_cast<uint16_t>(entry.key.size()));
    Append16(&record, entry.epoch ? 0x4B43 : 0);
    Append32(&record, ForgedChecksum(record, 0, 36));
    records += record + entry.key + entry.value;
  }
  std::string bytes;
  AppendMagicAndVersion(&bytes);
  Append32(&bytes, static_cast<uint32_t>(128 + records.size()));
  Append32(&bytes, ForgedChecksum(bytes, 0, 16));
  bytes.resize(128, '\0');
  bytes += records;
  bytes.resize(std::max(bytes.size(), size), '\0');
  return bytes;
}

std::string ForgedBlock(const std::vector<ForgedEntry>& entries, size_t pageSize) {
  std::string values;
  std::string keys;
  std::string table;
  for (const ForgedEntry& entry : entries) {
    std::string record;
    Append32(&record, static_cast<uint32_t>(156 + values.size()));
    Append32(&record, static_cast<uint32_t>(entry.value.size()));
    Append64(&record, entry.deleted ? 1 : 0);
    Append64(&record, entry.timestamp);
    Append32(&record, entry.ttl);
    Append32(&record, entry.epoch ? ForgedCrc(entry.key + entry.value) : 0);
    Append32(&record, static_cast<uint32_t>(28 + keys.size()));
    Append16(&record, static_cast<uint16_t>(entry.key.size()));
    Append16(&record, entry.epoch ? 0x4B43 : 0);
    Append32(&record, ForgedChecksum(record, 0, 40));
    Append32(&record, 0);
    table += record;
    values += entry.value;
    keys += entry.key;
  }
  std::string bytes;
  AppendMagicAndVersion(&bytes);
  Append32(&bytes, ForgedChecksum(bytes, 0, 12));
  bytes.resize(128, '\0');
  bytes += SectionHeaderOf(0, "__DATA__", static_cast<uint32_t>(28 + values.size())) + values;
  FillToPage(&bytes, pageSize);
  bytes += SectionHeaderOf(1, "__KEYTAB__", static_cast<uint32_t>(28 + keys.size())) + keys;
  FillToPage(&bytes, pageSize);
  bytes += SectionHeaderOf(2, "__ENTRY__", static_cast<uint32_t>(28 + table.size())) + table;
  return bytes;
}

std::string ForgedFilter(const std::vector<std::string>& keys) {
  std::vector<std::string> all;
  for (const std::string& key : keys) {
    all.push_back(key);
    const size_t dash = key.rfind('-');
    if (dash != std::string::npos && dash != 0) all.push_back(key.substr(0, dash));
  }
  const size_t bits = std::clamp<size_t>(all.size() * 8, 64, 32768);
  std::string filter(bits / 8, '\0');
  for (const std::string& key : all) {
    const uint32_t hash = HashOf(key);
    const uint32_t step = hash >> 17 | hash << 15;
    for (uint32_t i = 0; i < 5; ++i) {
      const size_t bit = (hash + i * step) % bits;
      filter[bit / 8] = static_cast<char>(filter[bit / 8] | 1 << bit % 8);
    }
  }
  return filter + '\5';
}

std::string ForgedManifest(const std::vector<ForgedRecord>& records) {
  std::string bytes;
  AppendMagicAndVersion(&bytes);
  Append32(&bytes, static_cast<uint32_t>(records.size()));
  Append32(&bytes, 128);
  Append32(&bytes, ForgedChecksum(bytes, 0, 20));
  bytes.resize(128, '\0');
  for (const ForgedRecord& record : records) {
    std::string entry = record.name;
    entry.resize(32, '\0');
    Append64(&entry, kForgedTime);
    Append64(&entry, kForgedTime);
    Append32(&entry, static_cast<uint32_t>(record.filter.size()));
    Append32(&entry, ForgedChecksum(entry, 0, 52));
    bytes += entry + record.filter;
  }
  return bytes;
}

std::string ForgedName(char letter) {
  return std::string(31, letter);
}

}  // namespace Kestrun::Testing
