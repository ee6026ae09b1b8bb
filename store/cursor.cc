#include "kestrun/cursor.h"

#include <algorithm>
#include <utility>

#include "base/catch_bad_alloc.h"
#include "base/clock.h"
#include "base/diagnostics.h"
#include "format/crc32c.h"
#include "kestrun/status.h"
#include "store/cursor_impl.h"

namespace Kestrun {
namespace {

constexpr size_t kMinReadAhead = 4 * 1024;
constexpr size_t kMaxReadAhead = 256 * 1024;
constexpr size_t kMaxAllStretches = 4 * 1024 * 1024;
// Entries of the pages of all blocks of a walk, and of the largest page of one.
constexpr size_t kMaxAllPages = 64 * 1024;
constexpr size_t kMinLargestPage = 64;

uint32_t TellDamage(const Block& block, uint32_t status) {
  if (status == kStatusBlockCorrupt) {
    Diagnostics::HandlerOnly().Printf("Block file %s is damaged\n", block.File()->Path().c_str());
  }
  return status;
}

}  // namespace

Cursor::Impl::Impl(std::shared_ptr<const Snapshot::Impl> snapshot, const Range& range)
    : snapshot_(std::move(snapshot)),
      range_(range),
      log_(snapshot_->log.filling->index, snapshot_->log.end),
      status_(kStatusOk) {
  for (const OpenBlock& open : *snapshot_->blocks) {
    const uint32_t status =
        open.block == nullptr ? kStatusBlockCorrupt : TellDamage(*open.block, AddBlock(*open.block));
    if (status != kStatusOk) damage_ = status;
  }
  logSource_ = blocks_.size();
}

uint32_t Cursor::Impl::AddBlock(const Block& block) {
  if (block.Index() != nullptr && !block.Index()->IsOrdered()) return kStatusBlockCorrupt;
  const BlockPages pages(block);
  uint32_t begin = 0;
  uint32_t end = block.Count();
  uint32_t status = kStatusOk;
  if (!range_.from.empty()) status = pages.LowerBound(range_.from, &begin);
  if (status == kStatusOk && !range_.to.empty()) status = pages.LowerBound(range_.to, &end);
  if (status == kStatusOk && begin < end) {
    const size_t largest = std::clamp(kMaxAllPages / snapshot_->blocks->size(), kMinLargestPage,
                                      size_t{BlockPages::kLargestPage});
    blocks_.push_back({&block, BlockPages(block, static_cast<uint32_t>(largest)), begin, end, end, {}});
  }
  return status;
}

// A damaged block may hold any key, so there is no walk that could be right.
void Cursor::Impl::Reset() {
  heads_.clear();
  current_ = kNone;
  entry_ = {};
  status_ = damage_;
}

void Cursor::Impl::Fail(uint32_t status) {
  current_ = kNone;
  entry_ = {};
  status_ = status;
}

// False at the end of the block, whose memory is given up, and where its key can't be read.
bool Cursor::Impl::TakeBlock(BlockPlace& place, std::string_view* key) {
  if (place.position < place.begin || place.position >= place.end) {
    place.pages.Release();
    place.values = {};
    return false;
  }
  const uint32_t status = place.pages.Load(place.position, direction_ == Direction::Forward);
  if (status != kStatusOk) {
    status_ = TellDamage(*place.block, status);
    return false;
  }
  *key = place.pages.KeyAt(place.position);
  return true;
}

bool Cursor::Impl::TakeLog(std::string_view* key) {
  if (!log_.Valid()) return false;
  *key = log_.Key();
  return direction_ == Direction::Forward ? range_.to.empty() || *key < range_.to : *key >= range_.from;
}

// Lets a source take part that stands where it is to begin.
void Cursor::Impl::AddHead(size_t source) {
  Head head = {{}, source};
  const bool isThere = source == logSource_ ? TakeLog(&head.key) : TakeBlock(blocks_[source], &head.key);
  if (isThere) heads_.push_back(head);
}

// Stands a block where SeekSources says; false when it can't be read.
bool Cursor::Impl::SeekBlock(BlockPlace& place, std::string_view key, bool inclusive) {
  const bool forward = direction_ == Direction::Forward;
  uint32_t found = 0;
  uint32_t status = place.pages.LowerBound(key, &found);
  found = std::clamp(found, place.begin, place.end);
  if (status == kStatusOk && found < place.end) status = place.pages.Load(found, forward);
  if (status != kStatusOk) {
    status_ = TellDamage(*place.block, status);
    return false;
  }
  const bool isThere = found < place.end && place.pages.KeyAt(found) == key;
  if (forward && isThere && !inclusive) ++found;
  if (!forward && !(isThere && inclusive)) --found;  // wraps below the first entry, which is no valid place
  place.position = found;
  return true;
}

// Stands each source on its first key that is not before `key`, or after it, or backwards on its last one
// that is not after `key`, or before it.
void Cursor::Impl::SeekSources(std::string_view key, bool inclusive, Direction direction) {
  direction_ = direction;
  heads_.clear();
  for (size_t i = 0; i < blocks_.size(); ++i) {
    if (!SeekBlock(blocks_[i], key, inclusive)) return;
    AddHead(i);
  }
  if (snapshot_->log.copy != nullptr) {
    if (direction == Direction::Forward) {
      log_.Seek(key);
      if (!inclusive && log_.Valid() && log_.Key() == key) log_.Next();
    } else {
      log_.SeekForPrev(key);
      if (!inclusive && log_.Valid() && log_.Key() == key) log_.Prev();
    }
    AddHead(logSource_);
  }
  OrderHeads();
}

// Of equal keys the newest source comes first.
bool Cursor::Impl::ComesBefore(const Head& left, const Head& right) const {
  const int order = left.key.compare(right.key);
  if (order == 0) return left.source > right.source;
  return direction_ == Direction::Forward ? order < 0 : order > 0;
}

// Puts one head in its place below, where everything but it is in order.
void Cursor::Impl::SiftDown(size_t head) {
  for (;;) {
    size_t first = 2 * head + 1;
    if (first >= heads_.size()) return;
    if (first + 1 < heads_.size() && ComesBefore(heads_[first + 1], heads_[first])) ++first;
    if (!ComesBefore(heads_[first], heads_[head])) return;
    std::swap(heads_[first], heads_[head]);
    head = first;
  }
}

void Cursor::Impl::OrderHeads() {
  for (size_t i = heads_.size() / 2; i-- > 0;) SiftDown(i);
}

// Moves the source of one head on by one key. The head is the first one or one of the two after it.
void Cursor::Impl::Step(size_t head) {
  const bool forward = direction_ == Direction::Forward;
  Head& moved = heads_[head];
  bool isThere = false;
  if (moved.source == logSource_) {
    if (forward) {
      log_.Next();
    } else {
      log_.Prev();
    }
    isThere = TakeLog(&moved.key);
  } else {
    BlockPlace& place = blocks_[moved.source];
    place.position = forward ? place.position + 1 : place.position - 1;
    isThere = TakeBlock(place, &moved.key);
  }
  if (!isThere) {
    moved = heads_.back();
    heads_.pop_back();
  }
  if (heads_.size() > 1) SiftDown(head);
}

// Finds the key on which the cursor stands, the newest source of it, and passes over the
// keys that are not alive.
void Cursor::Impl::Settle() {
  while (status_ == kStatusOk && !heads_.empty()) {
    // Older versions of the key come right after it.
    for (const size_t next : {size_t{1}, size_t{2}}) {
      while (next < heads_.size() && heads_[next].key == heads_[0].key) Step(next);
    }
    if (status_ != kStatusOk) break;
    current_ = heads_[0].source;
    key_ = heads_[0].key;
    if (TakeCurrent()) return;
    Step(0);
  }
  Fail(status_);
}

// False when the entry is not alive.
bool Cursor::Impl::TakeCurrent() {
  entry_ =
      current_ == logSource_ ? log_.Get().entry : blocks_[current_].pages.EntryAt(blocks_[current_].position);
  if (entry_.deleted || !IsAlive(entry_.timestamp, entry_.ttl, snapshot_->seconds)) return false;
  return true;
}

void Cursor::Impl::SeekToFirst() {
  SeekFrom(range_.from);
}

void Cursor::Impl::SeekFrom(std::string_view key) {
  Reset();
  if (status_ != kStatusOk) return;
  SeekSources(key, true, Direction::Forward);
  Settle();
}

// The key may be the cursor's own, which goes when the sources move.
void Cursor::Impl::Seek(std::string_view key) {
  SeekFrom(std::string(std::max(key, std::string_view(range_.from))));
}

void Cursor::Impl::SeekToLast() {
  Reset();
  if (status_ != kStatusOk) return;
  if (!range_.to.empty()) {
    SeekSources(range_.to, false, Direction::Backward);
  } else {
    direction_ = Direction::Backward;
    for (size_t i = 0; i < blocks_.size(); ++i) {
      blocks_[i].position = blocks_[i].end - 1;
      AddHead(i);
    }
    if (snapshot_->log.copy != nullptr) {
      log_.SeekToLast();
      AddHead(logSource_);
    }
    OrderHeads();
  }
  Settle();
}

void Cursor::Impl::SeekForPrev(std::string_view key) {
  if (!range_.to.empty() && key >= range_.to) {
    SeekToLast();
    return;
  }
  Reset();
  if (status_ != kStatusOk) return;
  SeekSources(std::string(key), true, Direction::Backward);
  Settle();
}

void Cursor::Impl::Next() {
  if (!Valid()) return;
  if (direction_ == Direction::Backward) {
    SeekSources(std::string(key_), false, Direction::Forward);
  } else {
    Step(0);
  }
  Settle();
}

void Cursor::Impl::Prev() {
  if (!Valid()) return;
  if (direction_ == Direction::Forward) {
    SeekSources(std::string(key_), false, Direction::Backward);
  } else {
    Step(0);
  }
  Settle();
}

uint32_t Cursor::Impl::Value(std::string_view* bytes) {
  if (!Valid()) return kStatusInvalid;
  if (current_ == logSource_) return snapshot_->ViewLogValue(key_, log_.Get(), bytes);
  BlockPlace& place = blocks_[current_];
  std::string_view found;
  if (const uint32_t status = ReadAhead(place, &found); status != kStatusOk) return status;
  const BlockIndex::Record& record = place.pages.RecordAt(place.position);
  if (record.hasChecksum &&
      Crc32c(found.data(), found.size(), Crc32c(key_.data(), key_.size())) != record.checksum) {
    return kStatusBlockCorrupt;
  }
  *bytes = found;
  return kStatusOk;
}

// Values lie side by side in the order of their keys: a walk reads larger and larger stretches at once. All
// blocks of the walk share kMaxAllStretches.
uint32_t Cursor::Impl::ReadAhead(BlockPlace& place, std::string_view* bytes) {
  Stretch& values = place.values;
  const uint64_t begin = entry_.valueOffset;
  const uint64_t end = begin + entry_.valueSize;
  if (begin < values.start || end > values.start + values.size) {
    uint64_t fileSize = 0;
    if (place.block->File()->Size(&fileSize) != 0) return kStatusBlockShortRead;
    if (end > fileSize) return kStatusBlockCorrupt;
    const size_t most = std::clamp(kMaxAllStretches / blocks_.size(), kMinReadAhead, kMaxReadAhead);
    const bool goesOn = begin >= values.start && begin <= values.start + values.size + most;
    const bool goesBack = end <= values.start + values.size && end + most >= values.start;
    values.readAhead =
        values.size != 0 && (goesOn || goesBack) ? std::min(values.readAhead * 2, most) : kMinReadAhead;
    const uint64_t wanted = std::max<uint64_t>(entry_.valueSize, values.readAhead);
    uint64_t start = begin;
    if (direction_ == Direction::Backward) start = end > wanted ? std::min(begin, end - wanted) : 0;
    const auto size = static_cast<size_t>(std::min(wanted, fileSize - start));
    values.size = 0;
    if (values.bytes.size() < size) values.bytes.resize(size);
    const ssize_t read =
        place.block->File()->PReadFully(values.bytes.data(), size, static_cast<int64_t>(start));
    if (read < 0) return kStatusBlockShortRead;
    if (start + static_cast<uint64_t>(read) < end) return kStatusBlockCorrupt;
    values.start = start;
    values.size = static_cast<size_t>(read);
  }
  *bytes = {values.bytes.data() + (begin - values.start), entry_.valueSize};
  return kStatusOk;
}

Cursor::Cursor(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Cursor::~Cursor() = default;

namespace {

// Runs one move; running out of memory ends the walk.
template <typename Move>
void Run(Cursor::Impl& impl, Move move) {
  const uint32_t status = CatchBadAlloc([&] {
    move();
    return kStatusOk;
  });
  if (status != kStatusOk) impl.Fail(status);
}

}  // namespace

void Cursor::SeekToFirst() {
  Run(*impl_, [&] { impl_->SeekToFirst(); });
}

void Cursor::SeekToLast() {
  Run(*impl_, [&] { impl_->SeekToLast(); });
}

void Cursor::Seek(std::string_view key) {
  Run(*impl_, [&] { impl_->Seek(key); });
}

void Cursor::SeekForPrev(std::string_view key) {
  Run(*impl_, [&] { impl_->SeekForPrev(key); });
}

void Cursor::Next() {
  Run(*impl_, [&] { impl_->Next(); });
}

void Cursor::Prev() {
  Run(*impl_, [&] { impl_->Prev(); });
}

bool Cursor::Valid() const {
  return impl_->Valid();
}

uint32_t Cursor::Status() const {
  return impl_->Status();
}

std::string_view Cursor::Key() const {
  return impl_->Key();
}

uint32_t Cursor::Value(std::string_view* bytes) {
  if (bytes == nullptr) return kStatusInvalid;
  return CatchBadAlloc([&] { return impl_->Value(bytes); });
}

const DataEntry& Cursor::Entry() const {
  return impl_->Entry();
}

}  // namespace Kestrun
