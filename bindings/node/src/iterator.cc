#include "iterator.h"

#include <kestrun/status.h>

#include <utility>

#include "key_escape.h"

namespace Kestrun::Script {

namespace {

constexpr size_t kTombstoneSize = 40;  // in the log, without its key

// Bounds and targets of script may be longer than any key. A store is asked for what it can have only.
std::string_view Clipped(std::string_view key) {
  return key.substr(0, kMaxStoredKeySize);
}

// What the walk can stay within by itself; the rest is compared here.
Range RangeOf(const IteratorOptions& options) {
  Range range;
  if (options.lower.has_value() && options.lower->key.size() <= kMaxStoredKeySize)
    range.from = options.lower->key;
  if (options.upper.has_value() && options.upper->key.size() < kMaxStoredKeySize) {
    range.to = options.upper->key;
    if (options.upper->inclusive) range.to.push_back('\0');
  }
  return range;
}

}  // namespace

uint32_t Iterator::Create(std::shared_ptr<Database> database, const Snapshot& snapshot,
                          IteratorOptions options, std::shared_ptr<Iterator>* out) {
  std::shared_ptr<Iterator> iterator(new Iterator(std::move(database), std::move(options)));
  const uint32_t status = snapshot.NewCursor(RangeOf(iterator->options_), &iterator->cursor_);
  if (status == kStatusOk) *out = std::move(iterator);
  return status;
}

void Iterator::Seek(std::string target) {
  target_ = std::move(target);
  begun_ = false;
}

bool Iterator::IsWithinLower(std::string_view key) const {
  if (!options_.lower.has_value()) return true;
  return options_.lower->inclusive ? key >= options_.lower->key : key > options_.lower->key;
}

bool Iterator::IsWithinUpper(std::string_view key) const {
  if (!options_.upper.has_value()) return true;
  return options_.upper->inclusive ? key <= options_.upper->key : key < options_.upper->key;
}

void Iterator::SeekNotBefore(std::string_view key) {
  cursor_->Seek(Clipped(key));
  // What a long key was clipped to is before it.
  if (cursor_->Valid() && cursor_->Key() < key) cursor_->Next();
}

void Iterator::SeekNotAfter(std::string_view key) {
  cursor_->SeekForPrev(Clipped(key));
}

// Stands on the first entry in the direction of the walk, or on the sought one.
void Iterator::Begin() {
  const bool sought = target_.has_value();
  const std::string_view target = sought ? std::string_view(*target_) : std::string_view();
  if (options_.reverse) {
    if (sought) {
      SeekNotAfter(target);
    } else if (options_.upper.has_value()) {
      SeekNotAfter(options_.upper->key);
      if (cursor_->Valid() && !IsWithinUpper(cursor_->Key())) cursor_->Prev();
    } else {
      cursor_->SeekToLast();
    }
  } else {
    if (sought) {
      SeekNotBefore(target);
    } else if (options_.lower.has_value()) {
      SeekNotBefore(options_.lower->key);
      if (cursor_->Valid() && !IsWithinLower(cursor_->Key())) cursor_->Next();
    } else {
      cursor_->SeekToFirst();
    }
  }
}

// Moves to the next entry of the range that script has a name for and sets `*key` to that name. False at the
// end, with kStatusOk, and after a failure.
bool Iterator::Advance(std::string_view* key, uint32_t* status) {
  *status = kStatusOk;
  if (!begun_ && target_.has_value() && (!IsWithinLower(*target_) || !IsWithinUpper(*target_))) return false;
  while (true) {
    if (!begun_) {
      Begin();
      begun_ = true;
    } else if (options_.reverse) {
      cursor_->Prev();
    } else {
      cursor_->Next();
    }
    if (!cursor_->Valid()) {
      *status = cursor_->Status();
      return false;
    }
    const std::string_view stored = cursor_->Key();
    if (options_.reverse ? !IsWithinLower(stored) : !IsWithinUpper(stored)) return false;
    *key = stored;
    if (database_->Seen() == Face::Plain || UnescapeKey(stored, key)) return true;
  }
}

uint32_t Iterator::Read(size_t count, size_t maxBytes, Entries* out) {
  if (cursor_ == nullptr) return kStatusInvalid;
  if (failure_ != kStatusOk) return std::exchange(failure_, kStatusOk);

  size_t bytes = 0;
  uint32_t status = kStatusOk;
  while (out->entries.size() < count && bytes < maxBytes && !aborted_) {
    std::string_view key, value;
    if (!Advance(&key, &status)) {
      out->ended = status == kStatusOk;
      break;
    }
    if (options_.values != Form::None) {
      status = cursor_->Value(&value);
      if (status != kStatusOk) break;
    }
    Entry& entry = out->entries.emplace_back();
    if (options_.keys != Form::None) entry.key.assign(key);
    entry.value.assign(value);
    bytes += entry.key.size() + entry.value.size();
  }
  if (status != kStatusOk && !out->entries.empty()) failure_ = std::exchange(status, kStatusOk);
  return status;
}

uint32_t Iterator::DeleteFrom(Store& store, uint64_t limit, size_t maxBatchSize) {
  WriteBatch batch;
  std::string_view key;
  uint32_t status = kStatusOk;
  for (; limit > 0 && Advance(&key, &status); --limit) {
    const std::string_view stored = cursor_->Key();
    if (batch.Count() > 0 && batch.ByteSize() + kTombstoneSize + stored.size() > maxBatchSize) {
      if (status = store.Write(batch); status != kStatusOk) return status;
      batch.Clear();
    }
    if (status = batch.Delete(stored); status != kStatusOk) return status;
  }
  return status == kStatusOk && batch.Count() > 0 ? store.Write(batch) : status;
}

}  // namespace Kestrun::Script
