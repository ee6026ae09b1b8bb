#include "block/merge_cursor.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "base/clock.h"
#include "base/key_bytes.h"
#include "base/page_size.h"
#include "format/block_reader.h"
#include "format/scan_range.h"
#include "kestrun/status.h"
#include "storage/os_file_source.h"

namespace Kestrun {
namespace {

constexpr size_t kOpenFiles = 32;  // beside those of the blocks that are loaded

// The windows share this much memory, three for each source.
constexpr size_t kWindowBudget = 32 * 1024 * 1024;
constexpr size_t kMinWindow = 4 * 1024;
constexpr size_t kMaxWindow = 256 * 1024;

// Sources whose tables fit into this much memory in all are loaded: that is faster
// than walking their files twice.
constexpr size_t kIndexBudget = 32 * 1024 * 1024;

// Values that lie side by side and make up this much are read straight into the writer's buffer.
constexpr uint64_t kDirectCopy = 64 * 1024;

// The file of a source: that of a loaded block, or the one at a path, which is opened again whenever it has
// been closed in favour of others.
class SourceFile final : public ByteSource {
 public:
  SourceFile(const BlockSource& source, OpenFileCache& files)
      : files_(files), path_(source.path), file_(source.block == nullptr ? nullptr : source.block->File()) {}

  ssize_t ReadAt(uint64_t offset, void* buffer, size_t length) override {
    const std::shared_ptr<OsFile> file = Open();
    return file == nullptr ? -1 : OsFileSource(*file).ReadAt(offset, buffer, length);
  }
  bool Size(uint64_t* size) override {
    const std::shared_ptr<OsFile> file = Open();
    return file != nullptr && OsFileSource(*file).Size(size);
  }

 private:
  std::shared_ptr<OsFile> Open() { return file_ != nullptr ? file_ : files_.Get(path_); }

  OpenFileCache& files_;
  std::string path_;
  std::shared_ptr<OsFile> file_;
};

// The positions of a block's entries in the order of their keys; of equal keys only the last one.
std::vector<uint32_t> SortedPositions(const BlockIndex& index) {
  std::vector<uint32_t> positions(index.Count());
  std::iota(positions.begin(), positions.end(), 0);
  std::stable_sort(positions.begin(), positions.end(),
                   [&](uint32_t left, uint32_t right) { return index.KeyAt(left) < index.KeyAt(right); });
  size_t kept = 0;
  for (size_t i = 0; i < positions.size(); ++i) {
    const bool repeated =
        i + 1 < positions.size() && index.KeyAt(positions[i]) == index.KeyAt(positions[i + 1]);
    if (!repeated) positions[kept++] = positions[i];
  }
  positions.resize(kept);
  return positions;
}

}  // namespace

// One source: a block in memory, walked in key order, or a file, from its beginning to its end.
class MergeCursor::Source {
 public:
  Source(const BlockSource& source, OpenFileCache& files, size_t windowSize)
      : bytes_(source, files),
        reader_(bytes_, PageSize(), windowSize),
        values_(bytes_, windowSize),
        windowSize_(windowSize) {
    if (source.block != nullptr && source.block->Index() != nullptr) Use(source.block->Index());
  }

  uint32_t Start() {
    next_ = 0;
    previous_.clear();
    if (index_ == nullptr) {
      const uint32_t status = reader_.Start();
      fileSize_ = reader_.Sections().fileSize;
      return status;
    }
    return bytes_.Size(&fileSize_) ? kStatusOk : kStatusStatFailed;
  }

  // Moves to the next entry that scans visit. kStatusInvalid when its key is not after the one before.
  uint32_t Next(bool* end) {
    do {
      const uint32_t status = index_ != nullptr ? NextOfIndex(end) : NextOfFile(end);
      if (status != kStatusOk || *end) return status;
    } while (!InScanRange(key_));
    prefix_ = PrefixOf(key_);
    return kStatusOk;
  }

  // Finds out whether a file is in order, which only its end tells. It is loaded if it is not, or if its
  // tables fit into what is left of `*budget` bytes.
  uint32_t Prepare(size_t* budget) {
    if (index_ != nullptr) return kStatusOk;
    uint32_t status = Start();
    if (status != kStatusOk) return status;
    const uint64_t tables =
        reader_.Sections().entryCount * sizeof(BlockDataEntry) + reader_.Sections().keyTableSize;
    if (tables <= *budget) {
      *budget -= static_cast<size_t>(tables);
      return Load();
    }
    for (bool end = false; status == kStatusOk && !end;) status = Next(&end);
    return status == kStatusInvalid ? Load() : status;
  }

  std::string_view Key() const { return key_; }
  uint64_t Prefix() const { return prefix_; }
  const DataEntry& Entry() const { return entry_; }
  std::optional<uint32_t> Checksum() const { return checksum_; }
  uint64_t FileSize() const { return fileSize_; }
  uint64_t EntryCount() const { return index_ != nullptr ? index_->Count() : reader_.Sections().entryCount; }
  void ReleaseTables() { reader_.Release(); }

  bool CopyValues(uint64_t offset, uint64_t size, BufferedWriter& out) {
    if (size >= kDirectCopy) return out.AppendFrom(bytes_, offset, size);
    for (uint64_t done = 0; done < size;) {
      const auto piece = static_cast<size_t>(std::min<uint64_t>(size - done, windowSize_));
      const uint8_t* bytes = nullptr;
      if (values_.View(offset + done, piece, &bytes) != ByteWindow::Result::Ok) return false;
      if (!out.Append(bytes, piece)) return false;
      done += piece;
    }
    return true;
  }

 private:
  uint32_t Load() {
    std::shared_ptr<const BlockIndex> index;
    const uint32_t status = BlockIndex::Read(bytes_, PageSize(), &index);
    if (status == kStatusOk) Use(std::move(index));
    return status;
  }

  void Use(std::shared_ptr<const BlockIndex> index) {
    index_ = std::move(index);
    if (!index_->IsOrdered()) positions_ = SortedPositions(*index_);
  }

  uint32_t NextOfIndex(bool* end) {
    const size_t count = index_->IsOrdered() ? index_->Count() : positions_.size();
    *end = next_ == count;
    if (*end) return kStatusOk;
    const uint32_t position = index_->IsOrdered() ? static_cast<uint32_t>(next_) : positions_[next_];
    ++next_;
    key_ = index_->KeyAt(position);
    entry_ = index_->EntryAt(position);
    const BlockIndex::Record& record = index_->RecordAt(position);
    checksum_ = record.hasChecksum ? std::optional<uint32_t>(record.checksum) : std::nullopt;
    return kStatusOk;
  }

  uint32_t NextOfFile(bool* end) {
    if (const uint32_t status = reader_.Next(end); status != kStatusOk || *end) return status;
    key_ = reader_.Key();
    if (!previous_.empty() && key_ <= previous_) return kStatusInvalid;
    previous_.assign(key_);
    entry_ = ToDataEntry(reader_.Entry());
    checksum_.reset();
    if (reader_.Entry().mark == kChecksummedMark) checksum_ = reader_.Entry().crc;
    return kStatusOk;
  }

  SourceFile bytes_;
  BlockReader reader_;
  ByteWindow values_;
  size_t windowSize_;
  std::shared_ptr<const BlockIndex> index_;  // null while the file is walked
  std::vector<uint32_t> positions_;          // of the index's entries, where those are out of order
  size_t next_ = 0;
  std::string previous_;
  // The current entry.
  std::string_view key_;
  uint64_t prefix_ = 0;
  DataEntry entry_ = {};
  std::optional<uint32_t> checksum_;
  uint64_t fileSize_ = 0;
};

MergeCursor::MergeCursor(const std::vector<BlockSource>& sources, DeadEntries dead)
    : files_(kOpenFiles), dead_(dead), now_(NowSeconds()) {
  const size_t windowSize =
      std::clamp(kWindowBudget / (3 * std::max<size_t>(sources.size(), 1)), kMinWindow, kMaxWindow);
  for (const BlockSource& source : sources) {
    sources_.push_back(std::make_unique<Source>(source, files_, windowSize));
  }
}

MergeCursor::~MergeCursor() = default;

uint32_t MergeCursor::PrepareSources() {
  if (prepared_) return kStatusOk;
  size_t budget = kIndexBudget;
  for (const std::unique_ptr<Source>& source : sources_) {
    if (source->Prepare(&budget) != kStatusOk) return kStatusBlockWriteFailed;
  }
  prepared_ = true;
  return kStatusOk;
}

uint32_t MergeCursor::CountEntries(uint64_t* count) {
  if (const uint32_t status = PrepareSources(); status != kStatusOk) return status;
  *count = 0;
  for (const std::unique_ptr<Source>& source : sources_) *count += source->EntryCount();
  return kStatusOk;
}

uint32_t MergeCursor::Start() {
  if (const uint32_t status = PrepareSources(); status != kStatusOk) return status;
  heap_.clear();
  started_ = false;
  walked_ = false;
  for (uint32_t i = 0; i < sources_.size(); ++i) {
    bool end = false;
    if (sources_[i]->Start() != kStatusOk) return kStatusBlockWriteFailed;
    if (sources_[i]->Next(&end) != kStatusOk) return kStatusBlockWriteFailed;
    if (!end) heap_.push_back(i);
  }
  for (size_t i = heap_.size(); i-- > 0;) SiftDown(i);
  return kStatusOk;
}

uint32_t MergeCursor::Next(bool* end) {
  for (;;) {
    if (const uint32_t status = NextNewest(end); status != kStatusOk || *end) return status;
    const Source& source = *sources_[heap_.front()];
    entry_ = source.Entry();
    if (dead_ == DeadEntries::Drop && (entry_.deleted || !IsAlive(entry_.timestamp, entry_.ttl, now_)))
      continue;
    key_ = source.Key();
    checksum_ = source.Checksum();
    source_ = heap_.front();
    return kStatusOk;
  }
}

// Moves to the least key of all; among equal keys the newest source is on top, and the older ones, which come
// next, are passed over.
uint32_t MergeCursor::NextNewest(bool* end) {
  if (started_) {
    // The key that is left stays readable: its source is the last to move.
    const uint32_t newest = heap_.front();
    const auto isOlder = [&](size_t position) {
      return position < heap_.size() && sources_[heap_[position]]->Prefix() == sources_[newest]->Prefix() &&
             sources_[heap_[position]]->Key() == sources_[newest]->Key();
    };
    for (;;) {
      const size_t older = isOlder(1) ? 1 : isOlder(2) ? 2 : 0;
      if (older == 0) break;
      if (const uint32_t status = Advance(older); status != kStatusOk) return status;
    }
    if (const uint32_t status = Advance(0); status != kStatusOk) return status;
  }
  *end = heap_.empty();
  started_ = !*end;
  return kStatusOk;
}

// Moves the source at a position of the heap to its next entry; one that has no more leaves the heap.
uint32_t MergeCursor::Advance(size_t position) {
  bool end = false;
  if (sources_[heap_[position]]->Next(&end) != kStatusOk) return kStatusBlockWriteFailed;
  if (end) {
    heap_[position] = heap_.back();
    heap_.pop_back();
  }
  SiftDown(position);
  return kStatusOk;
}

void MergeCursor::SiftDown(size_t position) {
  for (;;) {
    size_t first = position;
    for (size_t child = 2 * position + 1; child <= 2 * position + 2 && child < heap_.size(); ++child) {
      if (ComesFirst(heap_[child], heap_[first])) first = child;
    }
    if (first == position) return;
    std::swap(heap_[position], heap_[first]);
    position = first;
  }
}

bool MergeCursor::ComesFirst(uint32_t left, uint32_t right) const {
  const Source& l = *sources_[left];
  const Source& r = *sources_[right];
  if (l.Prefix() != r.Prefix()) return l.Prefix() < r.Prefix();
  const int order = l.Key().compare(r.Key());
  return order != 0 ? order < 0 : left > right;
}

bool MergeCursor::HoldsValue(uint32_t source, uint64_t offset, uint64_t size) {
  return offset + size <= sources_[source]->FileSize();
}

bool MergeCursor::CopyValues(uint32_t source, uint64_t offset, uint64_t size, BufferedWriter& out) {
  if (!walked_ && heap_.empty()) {
    for (const std::unique_ptr<Source>& each : sources_) each->ReleaseTables();
    walked_ = true;
  }
  return sources_[source]->CopyValues(offset, size, out);
}

}  // namespace Kestrun
