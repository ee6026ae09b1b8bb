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
      log_{LogIndex::Iterator(snapshot_->log.filling->index, snapshot_->log.end), false, {}},
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
    blocks_.push_back({&block, BlockPages(block), begin, end, end, false, {}, {}});
  }
  return status;
}

// A damaged block may hold any key, so there is no walk that could be right.
void Cursor::Impl::Reset() {
  current_ = kNone;
  entry_ = {};
  status_ = damage_;
}

void Cursor::Impl::Fail(uint32_t status) {
  current_ = kNone;
  entry_ = {};
  status_ = status;
}

void Cursor::Impl::TakeBlock(BlockPlace& place) {
  place.isValid = place.position >= place.begin && place.position < place.end;
  if (!place.isValid) return;
  const uint32_t status = place.pages.Load(place.position, direction_ == Direction::Forward);
  if (status != kStatusOk) {
    place.isValid = false;
    status_ = TellDamage(*place.block, status);
    return;
  }
  place.key = place.pages.KeyAt(place.position);
}

void Cursor::Impl::TakeLog(Direction direction) {
  log_.isValid = log_.position.Valid();
  if (!log_.isValid) return;
  log_.key = log_.position.Key();
  log_.isValid =
      direction == Direction::Forward ? range_.to.empty() || log_.key < range_.to : log_.key >= range_.from;
}

// Stands each source on its first key that is not before `key`, or after it, or backwards on its last one that is not
// after `key`, or before it.
void Cursor::Impl::SeekSources(std::string_view key, bool inclusive, Direction direction) {
  direction_ = direction;
  const bool forward = direction == Direction::Forward;
  for (BlockPlace& place : blocks_) {
    uint32_t found = 0;
    uint32_t status = place.pages.LowerBound(key, &found);
    found = std::clamp(found, place.begin, place.end);
    if (status == kStatusOk && found < place.end) status = place.pages.Load(found, forward);
    if (status != kStatusOk) {
      status_ = TellDamage(*place.block, status);
      return;
    }
    const bool isThere = found < place.end && place.pages.KeyAt(found) == key;
    if (forward && isThere && !inclusive) ++found;
    if (!forward && !(isThere && inclusive)) --found;  // wraps below the first entry, which is no valid place
    place.position = found;
    TakeBlock(place);
  }
  if (snapshot_->log.copy == nullptr) {
    log_.isValid = false;
    return;
  }
  if (forward) {
    log_.position.Seek(key);
    if (!inclusive && log_.position.Valid() && log_.position.Key() == key) log_.position.Next();
  } else {
    log_.position.SeekForPrev(key);
    if (!inclusive && log_.position.Valid() && log_.position.Key() == key) log_.position.Prev();
  }
  TakeLog(direction);
}

// Moves one source on by one key.
void Cursor::Impl::Step(size_t source) {
  const bool forward = direction_ == Direction::Forward;
  if (source == logSource_) {
    if (forward) {
      log_.position.Next();
    } else {
      log_.position.Prev();
    }
    TakeLog(direction_);
    return;
  }
  BlockPlace& place = blocks_[source];
  place.position = forward ? place.position + 1 : place.position - 1;
  TakeBlock(place);
}

// Finds the key on which the cursor stands, the newest source of it, and passes over the keys that are not alive.
void Cursor::Impl::Settle() {
  const bool forward = direction_ == Direction::Forward;
  for (;;) {
    if (status_ != kStatusOk) {
      Fail(status_);
      return;
    }
    size_t best = kNone;
    std::string_view bestKey;
    // From the oldest source on: of equal keys the last one counts.
    for (size_t i = 0; i < blocks_.size(); ++i) {
      const BlockPlace& place = blocks_[i];
      if (!place.isValid) continue;
      if (best == kNone || (forward ? place.key <= bestKey : place.key >= bestKey)) {
        best = i;
        bestKey = place.key;
      }
    }
    if (log_.isValid && (best == kNone || (forward ? log_.key <= bestKey : log_.key >= bestKey))) {
      best = logSource_;
      bestKey = log_.key;
    }
    current_ = best;
    if (best == kNone) {
      entry_ = {};
      return;
    }
    // Older versions of the key come after it now.
    for (size_t i = 0; i < blocks_.size() && i < best; ++i) {
      if (blocks_[i].isValid && blocks_[i].key == bestKey) Step(i);
    }
    if (status_ != kStatusOk) continue;
    key_ = bestKey;
    if (TakeCurrent()) return;
    Step(best);
  }
}

// False when the entry is not alive.
bool Cursor::Impl::TakeCurrent() {
  entry_ = current_ == logSource_ ? log_.position.Get().entry
                                  : blocks_[current_].pages.EntryAt(blocks_[current_].position);
  if (entry_.deleted || !IsAlive(entry_.timestamp, entry_.ttl, snapshot_->seconds)) return false;
  return true;
}

void Cursor::Impl::SeekToFirst() {
  Seek(range_.from);
}

void Cursor::Impl::Seek(std::string_view key) {
  Reset();
  if (status_ != kStatusOk) return;
  SeekSources(std::max(key, std::string_view(range_.from)), true, Direction::Forward);
  Settle();
}

void Cursor::Impl::SeekToLast() {
  Reset();
  if (status_ != kStatusOk) return;
  if (!range_.to.empty()) {
    SeekSources(range_.to, false, Direction::Backward);
  } else {
    direction_ = Direction::Backward;
    for (BlockPlace& place : blocks_) {
      place.position = place.end - 1;
      TakeBlock(place);
    }
    log_.isValid = false;
    if (snapshot_->log.copy != nullptr) {
      log_.position.SeekToLast();
      TakeLog(Direction::Backward);
    }
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
  SeekSources(key, true, Direction::Backward);
  Settle();
}

void Cursor::Impl::Next() {
  if (!Valid()) return;
  if (direction_ == Direction::Backward) {
    SeekSources(std::string(key_), false, Direction::Forward);
  } else {
    Step(current_);
  }
  Settle();
}

void Cursor::Impl::Prev() {
  if (!Valid()) return;
  if (direction_ == Direction::Forward) {
    SeekSources(std::string(key_), false, Direction::Backward);
  } else {
    Step(current_);
  }
  Settle();
}

uint32_t Cursor::Impl::Value(std::string_view* bytes) {
  if (!Valid()) return kStatusInvalid;
  if (current_ == logSource_) return snapshot_->ViewLogValue(key_, log_.position.Get(), bytes);
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

// Values lie side by side in the order of their keys: a walk reads larger and larger stretches at once. All blocks of the
// walk share kMaxAllStretches.
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
