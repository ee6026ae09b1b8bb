#include "block/block.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "base/clock.h"
#include "block/block_reader.h"
#include "kestrun/status.h"

namespace Kestrun {
namespace {

constexpr size_t kLoadWindow = 256 * 1024;

// Of a longer value it is made sure that the file holds it before memory is allocated.
constexpr uint32_t kMaxUncheckedValue = 64 * 1024;

// Calls `take` with each entry of the file.
template <typename Take>
uint32_t ReadEntries(const std::shared_ptr<OsFile>& file, Take take) {
  BlockReader reader([&file] { return file; }, kLoadWindow);
  if (const uint32_t status = reader.Start(); status != kStatusOk) return status;
  for (;;) {
    bool end = false;
    if (const uint32_t status = reader.Next(&end); status != kStatusOk) return status;
    if (end) return kStatusOk;
    take(reader);
  }
}

}  // namespace

Block::Block(std::shared_ptr<OsFile> file, std::vector<IndexedEntry> entries)
    : file_(std::move(file)), entries_(std::move(entries)) {}

uint32_t Block::Load(const std::string& path, Block** out, uint64_t /*pageSize*/) {
  std::shared_ptr<OsFile> file;
  if (const uint32_t status = OsFile::Open(path, kOpenReadOnly, &file); status != kStatusOk) return status;
  std::shared_ptr<Block> block;
  if (const uint32_t status = LoadFrom(std::move(file), &block); status != kStatusOk) return status;
  *out = new Block(std::move(block->file_), std::move(block->entries_));
  return kStatusOk;
}

uint32_t Block::LoadFrom(std::shared_ptr<OsFile> file, std::shared_ptr<Block>* out) {
  std::vector<IndexedEntry> entries;
  const auto take = [&entries](const BlockReader& reader) {
    // The count is believed only once an entry proves sound.
    if (entries.empty()) entries.reserve(reader.EntryCount());
    entries.push_back({Key(reader.KeyBytes(), reader.KeySize()), reader.Entry()});
  };
  if (const uint32_t status = ReadEntries(file, take); status != kStatusOk) return status;
  *out = std::make_shared<Block>(std::move(file), std::move(entries));
  return kStatusOk;
}

uint32_t Block::Verify(const std::string& path) {
  std::shared_ptr<OsFile> file;
  if (const uint32_t status = OsFile::Open(path, kOpenReadOnly, &file); status != kStatusOk) return status;
  return ReadEntries(file, [](const BlockReader&) {});
}

uint32_t Block::Count() const {
  return static_cast<uint32_t>(entries_.size());
}

std::string_view Block::KeyAt(uint32_t i) const {
  const Key& key = entries_[i].key;
  return {reinterpret_cast<const char*>(key.Data()), key.Size()};
}

uint32_t Block::LowerBound(std::string_view key) const {
  uint32_t low = 0;
  uint32_t high = Count();
  while (low < high) {
    const uint32_t middle = low + (high - low) / 2;
    if (KeyAt(middle) < key) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

uint32_t Block::Find(std::string_view key) const {
  const uint32_t found = LowerBound(key);
  return found < Count() && KeyAt(found) == key ? found : Count();
}

bool Block::Contains(const Key& key) const {
  return Find(key) != nullptr;
}

uint32_t Block::Lookup(const Key& key, DataEntry* entry) const {
  const IndexedEntry* found = Find(key);
  if (found == nullptr) return kStatusInvalid;
  *entry = found->entry;
  return kStatusOk;
}

// Looks at the time to live before anything else: an expired deletion marker has expired, too.
uint32_t Block::ReadValue(const DataEntry& entry, void** value) const {
  if (!IsAlive(entry.timestamp, entry.ttl, NowSeconds())) {
    std::printf("TTL verification failed");
    return kStatusInvalid;
  }
  if (entry.deleted || entry.valueSize == 0) {
    *value = nullptr;
    return kStatusOk;
  }
  uint64_t size = 0;
  const uint64_t end = uint64_t{entry.valueOffset} + entry.valueSize;
  if (entry.valueSize > kMaxUncheckedValue && file_->Size(&size) == 0 && end > size)
    return kStatusBlockShortRead;
  std::unique_ptr<void, decltype(&std::free)> buffer(std::malloc(entry.valueSize), &std::free);
  if (buffer == nullptr) return kStatusNoMemory;
  const ssize_t read = file_->PReadFully(buffer.get(), entry.valueSize, entry.valueOffset);
  if (read != static_cast<ssize_t>(entry.valueSize)) return kStatusBlockShortRead;
  *value = buffer.release();
  return kStatusOk;
}

namespace {

bool KeyIsLess(const Block::IndexedEntry& entry, const Key& key) {
  return entry.key < key;
}

}  // namespace

void Block::ForEachInRange(const Key& from, const Key& to,
                           const std::function<bool(const Key&)>& visit) const {
  auto position = std::lower_bound(entries_.begin(), entries_.end(), from, &KeyIsLess);
  for (; position != entries_.end() && position->key < to; ++position) {
    if (!visit) std::abort();
    if (visit(position->key)) return;
  }
}

// Keys outside the block's range are answered without a search.
const Block::IndexedEntry* Block::Find(const Key& key) const {
  if (entries_.empty() || key < entries_.front().key || entries_.back().key < key) return nullptr;
  const auto position = std::lower_bound(entries_.begin(), entries_.end(), key, &KeyIsLess);
  return position != entries_.end() && position->key == key ? &*position : nullptr;
}

}  // namespace Kestrun
