// The skip list of a log's index, and walks over it.
#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <mutex>
#include <new>

#include "storage/log_index_node.h"

namespace Kestrun {
namespace {

// Orders two keys that have the same prefix.
int CompareRests(std::string_view left, std::string_view right) {
  constexpr size_t kPrefix = sizeof(KeyPrefix);
  if (left.size() <= kPrefix || right.size() <= kPrefix) {
    return left.size() < right.size() ? -1 : static_cast<int>(left.size() > right.size());
  }
  return left.substr(kPrefix).compare(right.substr(kPrefix));
}

}  // namespace

// Whether `node` stands before the version `offset` of the key: a smaller key, or a newer
// version of the same one.
inline bool LogIndex::IsBefore(const Node& node, const Target& target, uint32_t offset) {
  if (node.prefix.high != target.prefix.high) return node.prefix.high < target.prefix.high;
  if (node.prefix.low != target.prefix.low) return node.prefix.low < target.prefix.low;
  const int order = CompareRests(KeyOf(node), target.key);
  return order != 0 ? order < 0 : node.offset > offset;
}

const LogIndex::Node* LogIndex::FirstNotBefore(const Target& target, uint32_t offset) const {
  const Node* node = head_;
  const Node* passed = nullptr;  // known not to be before, from the level above
  for (int level = height_.load(std::memory_order_relaxed) - 1;; --level) {
    const Node* next = node->NextAhead(level);
    while (next != nullptr && next != passed && IsBefore(*next, target, offset)) {
      node = next;
      next = node->NextAhead(level);
    }
    if (level == 0) return next;
    passed = next;
  }
}

const LogIndex::Node* LogIndex::LastBefore(const Target& target, uint32_t offset) const {
  const Node* node = head_;
  for (int level = height_.load(std::memory_order_relaxed) - 1; level >= 0; --level) {
    const Node* next = node->NextAhead(level);
    while (next != nullptr && IsBefore(*next, target, offset)) {
      node = next;
      next = node->NextAhead(level);
    }
  }
  return node == head_ ? nullptr : node;
}

namespace {

constexpr ptrdiff_t kFetchedAhead = 8;

// One for the lists of all indexes, which nobody completes for long. A fork waits for whoever does: the child would
// have half a list, and nobody to unlock the mutex.
std::mutex& OrderMutex() {
  static std::mutex mutex;
  static const int registered =
      pthread_atfork([] { mutex.lock(); }, [] { mutex.unlock(); }, [] { mutex.unlock(); });
  static_cast<void>(registered);  // without memory for it a fork is what it was
  return mutex;
}

}  // namespace

// Puts what was inserted since the last call into the list. Others may walk it meanwhile.
void LogIndex::Order() const {
  const size_t inserted = inserted_.load(std::memory_order_acquire);
  if (ordered_.load(std::memory_order_acquire) >= inserted) return;
  const std::lock_guard<std::mutex> lock(OrderMutex());
  Node* const newest = unordered_.exchange(nullptr, std::memory_order_acquire);
  if (newest != nullptr) OrderAll(newest);
}

// A version, with what its place in the list is mostly decided by.
struct LogIndex::Unordered {
  KeyPrefix prefix;
  Node* node;

  bool operator<(const Unordered& other) const {
    if (!(prefix == other.prefix)) return prefix < other.prefix;
    return IsBefore(*node, Target(*other.node), other.node->offset);
  }
};

// Those that are sorted find their places from each other; where there is no memory to sort
// them, each is looked for.
void LogIndex::OrderAll(Node* newest) const {
  size_t count = 0;
  for (const Node* node = newest; node != nullptr; node = node->Next(0)) ++count;
  const std::unique_ptr<Unordered[]> sorted(count > 1 ? new (std::nothrow) Unordered[count] : nullptr);
  if (sorted != nullptr) {
    // Keys that come in ascending order are sorted then.
    Unordered* place = sorted.get() + count;
    for (Node* node = newest; node != nullptr; node = node->Next(0)) *--place = {node->prefix, node};
    if (!std::is_sorted(place, place + count)) std::sort(place, place + count);
    const Unordered* const end = sorted.get() + count;
    for (; place != end; ++place) {
      if (end - place > kFetchedAhead) __builtin_prefetch(place[kFetchedAhead].node, 1);
      Link(place->node);
    }
  } else {
    for (Node* node = newest; node != nullptr;) {
      Node* const next = node->Next(0);
      Link(node);
      node = next;
    }
  }
  ordered_.store(ordered_.load(std::memory_order_relaxed) + count, std::memory_order_release);
}

// Sets the finger to the node after which the version belongs, on each level. Forward from where the finger
// is, it goes up as far as there is something to pass by.
void LogIndex::FindPlace(const Target& target, uint32_t offset) const {
  const int height = height_.load(std::memory_order_relaxed);
  int level = 0;
  if (finger_[0] == head_ || !IsBefore(*finger_[0], target, offset)) {
    std::fill(finger_, finger_ + kMaxHeight, head_);
    level = height - 1;
  } else {
    for (; level + 1 < height; ++level) {
      const Node* next = finger_[level]->Next(level);
      if (next == nullptr || !IsBefore(*next, target, offset)) break;
    }
  }
  Node* node = finger_[level];
  const Node* passed = nullptr;
  for (; level >= 0; --level) {
    Node* next = node->NextAhead(level);
    while (next != nullptr && next != passed && IsBefore(*next, target, offset)) {
      node = next;
      next = node->NextAhead(level);
    }
    finger_[level] = node;
    passed = next;
  }
}

void LogIndex::Link(Node* node) const {
  FindPlace(Target(*node), node->offset);
  const int height = node->height;
  for (int level = 0; level < height; ++level) {
    node->links[level].store(finger_[level]->Next(level), std::memory_order_relaxed);
  }
  if (height > height_.load(std::memory_order_relaxed)) height_.store(height, std::memory_order_relaxed);
  // From the bottom up: a reader that finds the node on one level finds it on those below.
  for (int level = 0; level < height; ++level) {
    finger_[level]->links[level].store(node, std::memory_order_release);
    finger_[level] = node;
  }
}

LogIndex::Iterator::Iterator(const LogIndex& index, uint32_t limit) : index_(&index), limit_(limit) {
  index.Order();
}

// Versions from the limit on are newer than what is looked at: they stand before the one that counts, and a
// key may have none that does.
void LogIndex::Iterator::SkipHidden() {
  while (node_ != nullptr && node_->offset >= limit_) node_ = node_->Next(0);
}

// Stands on the newest version before the limit of the key that `node`, itself before the limit, belongs to.
void LogIndex::Iterator::TakeKeyOf(const Node* node) {
  node_ = index_->FirstNotBefore(Target(KeyOf(*node)), limit_ - 1);
}

void LogIndex::Iterator::SeekToFirst() {
  OrderNew();
  node_ = index_->head_->Next(0);
  SkipHidden();
}

void LogIndex::Iterator::Seek(std::string_view key) {
  OrderNew();
  node_ = index_->FirstNotBefore(Target(key), kNoLimit);
  SkipHidden();
}

void LogIndex::Iterator::Next() {
  OrderNew();
  const Node* key = node_;
  do {
    node_ = node_->Next(0);
    SkipHidden();
  } while (node_ != nullptr && node_->prefix == key->prefix && KeyOf(*node_) == KeyOf(*key));
}

void LogIndex::Iterator::Prev() {
  OrderNew();
  // Before the newest version of this key stands the oldest one of the key before it.
  const Node* node = index_->LastBefore(Target(KeyOf(*node_)), kNoLimit);
  while (node != nullptr && node->offset >= limit_) {
    node = index_->LastBefore(Target(KeyOf(*node)), node->offset);
  }
  node_ = nullptr;
  if (node != nullptr) TakeKeyOf(node);
}

void LogIndex::Iterator::SeekToLast() {
  OrderNew();
  const Node* node = index_->head_;
  for (int level = index_->height_.load(std::memory_order_relaxed) - 1; level >= 0; --level) {
    while (const Node* next = node->Next(level)) node = next;
  }
  if (node == index_->head_) node = nullptr;
  while (node != nullptr && node->offset >= limit_) {
    node = index_->LastBefore(Target(KeyOf(*node)), node->offset);
  }
  node_ = nullptr;
  if (node != nullptr) TakeKeyOf(node);
}

void LogIndex::Iterator::SeekForPrev(std::string_view key) {
  OrderNew();
  // Offset 0 belongs to no record: everything of this key stands before it.
  const Node* node = index_->LastBefore(Target(key), 0);
  while (node != nullptr && node->offset >= limit_) {
    node = index_->LastBefore(Target(KeyOf(*node)), node->offset);
  }
  node_ = nullptr;
  if (node != nullptr) TakeKeyOf(node);
}

uint32_t LogIndex::Iterator::FollowingOffset() const {
  const Node* next = node_->Next(0);
  if (next == nullptr) return 0;
  __builtin_prefetch(next->links[0].load(std::memory_order_relaxed));
  return next->offset;
}

std::string_view LogIndex::Iterator::Key() const {
  return KeyOf(*node_);
}

LogIndex::Version LogIndex::Iterator::Get() const {
  return node_->ToVersion();
}

}  // namespace Kestrun
