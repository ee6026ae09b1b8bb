#include "block/block_merge.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <numeric>
#include <utility>

#include "block/block_reader.h"
#include "format/file_names.h"
#include "kestrun/status.h"

namespace Kestrun {
namespace {

constexpr size_t kOpenFiles = 64;
constexpr size_t kNoCursor = std::numeric_limits<size_t>::max();

// The windows share this much memory, three for each source.
constexpr size_t kWindowBudget = 32 * 1024 * 1024;
constexpr size_t kMinWindow = 4 * 1024;
constexpr size_t kMaxWindow = 256 * 1024;

int CompareKeys(const uint8_t* left, size_t leftSize, const uint8_t* right, size_t rightSize) {
  const size_t common = std::min(leftSize, rightSize);
  const int order = common == 0 ? 0 : std::memcmp(left, right, common);
  if (order != 0) return order;
  return leftSize < rightSize ? -1 : static_cast<int>(leftSize > rightSize);
}

// Scans leave out the empty key, which is less than MinKey, and everything from MaxKey on.
bool InScanRange(const uint8_t* key, size_t size) {
  return size != 0 && key[0] < kFirstUnflushedByte;
}

// The positions of a block's entries in the order of their keys; of equal keys only the last one.
std::vector<uint32_t> SortedPositions(const std::vector<Block::IndexedEntry>& entries) {
  std::vector<uint32_t> positions(entries.size());
  std::iota(positions.begin(), positions.end(), 0);
  std::stable_sort(positions.begin(), positions.end(),
                   [&](uint32_t left, uint32_t right) { return entries[left].key < entries[right].key; });
  size_t kept = 0;
  for (size_t i = 0; i < positions.size(); ++i) {
    const bool repeated =
        i + 1 < positions.size() && entries[positions[i]].key == entries[positions[i + 1]].key;
    if (!repeated) positions[kept++] = positions[i];
  }
  positions.resize(kept);
  return positions;
}

bool IsOrdered(const std::vector<Block::IndexedEntry>& entries) {
  const auto later = [](const auto& left, const auto& right) { return !(left.key < right.key); };
  return std::adjacent_find(entries.begin(), entries.end(), later) == entries.end();
}

}  // namespace

// Walks one source: a block in memory, in key order, or a file from its beginning to its end.
struct BlockMerge::Cursor {
  Cursor(FileWindow::Source source, size_t windowSize)
      : reader(source, windowSize), values(source, windowSize), file(std::move(source)) {}

  // Walks `loaded` from now on.
  void Use(std::shared_ptr<Block> loaded) {
    block = std::move(loaded);
    if (!IsOrdered(block->Entries())) positions = SortedPositions(block->Entries());
  }

  uint32_t Start() {
    next = 0;
    previousKey.clear();
    if (block == nullptr) return reader.Start();
    return block->File()->Size(&fileSize) == 0 ? kStatusOk : kStatusStatFailed;
  }

  uint32_t Next(bool* end) {
    if (block == nullptr) {
      if (const uint32_t status = reader.Next(end); status != kStatusOk || *end) return status;
      key = reader.KeyBytes();
      keySize = reader.KeySize();
      entry = reader.Entry();
      fileSize = reader.FileSize();
      return kStatusOk;
    }
    const auto& entries = block->Entries();
    *end = next == (positions.empty() ? entries.size() : positions.size());
    if (*end) return kStatusOk;
    const Block::IndexedEntry& indexed = entries[positions.empty() ? next : positions[next]];
    ++next;
    key = indexed.key.Data();
    keySize = indexed.key.Size();
    entry = indexed.entry;
    return kStatusOk;
  }

  // The same for the entries that scans visit. `*ordered` is false when the key is not after the one before.
  uint32_t NextInScan(bool* end, bool* ordered) {
    *ordered = true;
    do {
      if (const uint32_t status = Next(end); status != kStatusOk || *end) return status;
    } while (!InScanRange(key, keySize));
    const auto* previous = reinterpret_cast<const uint8_t*>(previousKey.data());
    *ordered = CompareKeys(previous, previousKey.size(), key, keySize) < 0;
    previousKey.assign(reinterpret_cast<const char*>(key), keySize);
    return kStatusOk;
  }

  BlockReader reader;
  FileWindow values;
  FileWindow::Source file;
  std::shared_ptr<Block> block;     // null while the file is read
  std::vector<uint32_t> positions;  // of the block's entries, where those are out of order
  size_t next = 0;
  std::string previousKey;
  // The current entry.
  const uint8_t* key = nullptr;
  uint16_t keySize = 0;
  DataEntry entry = {};
  uint64_t fileSize = 0;
};

BlockMerge::BlockMerge(const std::vector<BlockSource>& sources)
    : pool_(kOpenFiles),
      windowSize_(
          std::clamp(kWindowBudget / (3 * std::max<size_t>(sources.size(), 1)), kMinWindow, kMaxWindow)),
      current_(kNoCursor) {
  for (const BlockSource& source : sources) {
    FileWindow::Source file = [this, path = source.path] { return pool_.Get(path); };
    if (source.block != nullptr) file = [block = source.block] { return block->File(); };
    cursors_.push_back(std::make_unique<Cursor>(std::move(file), windowSize_));
    if (source.block != nullptr) cursors_.back()->Use(source.block);
  }
}

BlockMerge::~BlockMerge() = default;

// A file is walked once more than it is merged, because only its end tells that it is in order. One that is
// not, which takes damage, is held in memory.
uint32_t BlockMerge::SortUnorderedSources() {
  if (sorted_) return kStatusOk;
  for (const std::unique_ptr<Cursor>& cursor : cursors_) {
    if (cursor->block != nullptr) continue;
    uint32_t status = cursor->Start();
    bool end = false;
    bool ordered = true;
    while (status == kStatusOk && !end && ordered) status = cursor->NextInScan(&end, &ordered);
    if (status != kStatusOk) return kStatusBlockWriteFailed;
    if (ordered) continue;
    const std::shared_ptr<OsFile> file = cursor->file();
    std::shared_ptr<Block> block;
    if (file == nullptr || Block::LoadFrom(file, &block) != kStatusOk) return kStatusBlockWriteFailed;
    cursor->Use(std::move(block));
  }
  sorted_ = true;
  return kStatusOk;
}

uint32_t BlockMerge::Start() {
  if (const uint32_t status = SortUnorderedSources(); status != kStatusOk) return status;
  heap_.clear();
  current_ = kNoCursor;
  for (size_t i = 0; i < cursors_.size(); ++i) {
    if (cursors_[i]->Start() != kStatusOk) return kStatusBlockWriteFailed;
    if (const uint32_t status = Advance(i); status != kStatusOk) return status;
  }
  return kStatusOk;
}

// Takes the least key; among equal keys the newest source, and the older ones are passed over.
uint32_t BlockMerge::Next(bool* end) {
  if (current_ != kNoCursor) {
    if (const uint32_t status = Advance(current_); status != kStatusOk) return status;
    current_ = kNoCursor;
  }
  *end = heap_.empty();
  if (*end) return kStatusOk;

  const auto later = [this](size_t left, size_t right) { return ComesLater(left, right); };
  std::pop_heap(heap_.begin(), heap_.end(), later);
  current_ = heap_.back();
  heap_.pop_back();
  while (!heap_.empty()) {
    const Cursor& other = *cursors_[heap_.front()];
    if (CompareKeys(other.key, other.keySize, KeyBytes(), KeySize()) != 0) break;
    std::pop_heap(heap_.begin(), heap_.end(), later);
    const size_t older = heap_.back();
    heap_.pop_back();
    if (const uint32_t status = Advance(older); status != kStatusOk) return status;
  }
  return kStatusOk;
}

// Moves a cursor to its next key that scans visit and puts it into the heap, unless it is at its end.
uint32_t BlockMerge::Advance(size_t cursor) {
  bool end = false;
  bool ordered = true;
  if (cursors_[cursor]->NextInScan(&end, &ordered) != kStatusOk || !ordered) return kStatusBlockWriteFailed;
  if (end) return kStatusOk;
  heap_.push_back(cursor);
  std::push_heap(heap_.begin(), heap_.end(),
                 [this](size_t left, size_t right) { return ComesLater(left, right); });
  return kStatusOk;
}

bool BlockMerge::ComesLater(size_t left, size_t right) const {
  const Cursor& l = *cursors_[left];
  const Cursor& r = *cursors_[right];
  const int order = CompareKeys(l.key, l.keySize, r.key, r.keySize);
  return order != 0 ? order > 0 : left < right;
}

const uint8_t* BlockMerge::KeyBytes() const {
  return cursors_[current_]->key;
}

uint16_t BlockMerge::KeySize() const {
  return cursors_[current_]->keySize;
}

const DataEntry& BlockMerge::Entry() const {
  return cursors_[current_]->entry;
}

bool BlockMerge::HasWholeValue() const {
  return uint64_t{Entry().valueOffset} + Entry().valueSize <= cursors_[current_]->fileSize;
}

bool BlockMerge::ViewValue(uint64_t done, const uint8_t** bytes, size_t* size) {
  *size = static_cast<size_t>(std::min<uint64_t>(Entry().valueSize - done, windowSize_));
  return cursors_[current_]->values.View(Entry().valueOffset + done, *size, bytes) == FileWindow::Result::Ok;
}

}  // namespace Kestrun
