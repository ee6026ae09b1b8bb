#include "block/block_merge.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "block/block_reader.h"
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
bool InScanRange(const BlockReader& reader) {
  return reader.KeySize() != 0 && reader.KeyBytes()[0] != 0xFF;
}

}  // namespace

struct BlockMerge::Cursor {
  Cursor(const FileWindow::Source& source, size_t windowSize)
      : reader(source, windowSize), values(source, windowSize) {}

  BlockReader reader;
  FileWindow values;
  std::string previousKey;
};

BlockMerge::BlockMerge(const std::vector<std::string>& sources)
    : pool_(kOpenFiles),
      windowSize_(
          std::clamp(kWindowBudget / (3 * std::max<size_t>(sources.size(), 1)), kMinWindow, kMaxWindow)),
      current_(kNoCursor) {
  for (const std::string& path : sources) {
    cursors_.push_back(std::make_unique<Cursor>([this, path] { return pool_.Get(path); }, windowSize_));
  }
}

BlockMerge::~BlockMerge() = default;

uint32_t BlockMerge::Start() {
  heap_.clear();
  current_ = kNoCursor;
  for (size_t i = 0; i < cursors_.size(); ++i) {
    if (cursors_[i]->reader.Start() != kStatusOk) return kStatusBlockWriteFailed;
    cursors_[i]->previousKey.clear();
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
    const BlockReader& other = cursors_[heap_.front()]->reader;
    if (CompareKeys(other.KeyBytes(), other.KeySize(), KeyBytes(), KeySize()) != 0) break;
    std::pop_heap(heap_.begin(), heap_.end(), later);
    const size_t older = heap_.back();
    heap_.pop_back();
    if (const uint32_t status = Advance(older); status != kStatusOk) return status;
  }
  return kStatusOk;
}

// Moves a cursor to its next key that scans visit and puts it into the heap, unless it is at its end.
uint32_t BlockMerge::Advance(size_t cursor) {
  Cursor& source = *cursors_[cursor];
  for (;;) {
    bool end = false;
    if (source.reader.Next(&end) != kStatusOk) return kStatusBlockWriteFailed;
    if (end) return kStatusOk;
    if (!InScanRange(source.reader)) continue;

    const uint8_t* key = source.reader.KeyBytes();
    const size_t size = source.reader.KeySize();
    const auto* previous = reinterpret_cast<const uint8_t*>(source.previousKey.data());
    if (CompareKeys(previous, source.previousKey.size(), key, size) >= 0) return kStatusBlockWriteFailed;
    source.previousKey.assign(reinterpret_cast<const char*>(key), size);
    heap_.push_back(cursor);
    std::push_heap(heap_.begin(), heap_.end(),
                   [this](size_t left, size_t right) { return ComesLater(left, right); });
    return kStatusOk;
  }
}

bool BlockMerge::ComesLater(size_t left, size_t right) const {
  const BlockReader& l = cursors_[left]->reader;
  const BlockReader& r = cursors_[right]->reader;
  const int order = CompareKeys(l.KeyBytes(), l.KeySize(), r.KeyBytes(), r.KeySize());
  return order != 0 ? order > 0 : left < right;
}

const uint8_t* BlockMerge::KeyBytes() const {
  return cursors_[current_]->reader.KeyBytes();
}

uint16_t BlockMerge::KeySize() const {
  return cursors_[current_]->reader.KeySize();
}

const DataEntry& BlockMerge::Entry() const {
  return cursors_[current_]->reader.Entry();
}

bool BlockMerge::HasWholeValue() const {
  return uint64_t{Entry().valueOffset} + Entry().valueSize <= cursors_[current_]->reader.FileSize();
}

bool BlockMerge::ViewValue(uint64_t done, const uint8_t** bytes, size_t* size) {
  *size = static_cast<size_t>(std::min<uint64_t>(Entry().valueSize - done, windowSize_));
  return cursors_[current_]->values.View(Entry().valueOffset + done, *size, bytes) == FileWindow::Result::Ok;
}

}  // namespace Kestrun
