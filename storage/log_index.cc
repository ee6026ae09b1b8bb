#include "storage/log_index.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace Kestrun {
namespace {

constexpr size_t kMinChunk = 64 * 1024;
constexpr size_t kMaxChunk = 1024 * 1024;
constexpr size_t kNodeAlignment = 8;

uint64_t LoadBigEndian(const char* bytes) {
  uint64_t word = 0;
  std::memcpy(&word, bytes, sizeof(word));
  return __builtin_bswap64(word);
}

}  // namespace

KeyPrefix KeyPrefix::Of(std::string_view key) {
  constexpr size_t kHalf = sizeof(uint64_t);
  if (key.size() >= 2 * kHalf) return {LoadBigEndian(key.data()), LoadBigEndian(key.data() + kHalf)};
  // Byte by byte: a copy of a length that is not known costs a call.
  char padded[2 * kHalf] = {};
  for (size_t i = 0; i < key.size(); ++i) padded[i] = key[i];
  return {LoadBigEndian(padded), LoadBigEndian(padded + kHalf)};
}

// What a search looks at stands side by side. The payload and the key's bytes follow the `height` links.
struct LogIndex::Node {
  struct Payload {
    uint64_t timestamp;
    uint32_t valueOffset;
    uint32_t valueSize;
    uint32_t ttl;
  };

  KeyPrefix prefix;
  uint32_t offset;
  uint16_t keySize;
  uint8_t height;
  bool deleted;
  std::atomic<Node*> links[1];

  Node* Next(int level) const { return links[level].load(std::memory_order_acquire); }
  // The same, and has the processor fetch what follows on the level below, where a search goes if it does not go on here.
  Node* NextAhead(int level) const {
    if (level > 0) __builtin_prefetch(links[level - 1].load(std::memory_order_relaxed));
    return Next(level);
  }
  Payload* AfterLinks() { return reinterpret_cast<Payload*>(&links[height]); }
  const Payload* AfterLinks() const { return reinterpret_cast<const Payload*>(&links[height]); }
  Version ToVersion() const {
    const Payload& payload = *AfterLinks();
    return {offset, {payload.valueOffset, payload.valueSize, deleted, payload.timestamp, payload.ttl}};
  }
};

namespace {

// Older versions that Find passes by one by one before it searches.
constexpr int kMaxPassed = 4;

constexpr size_t kMinSlots = 1024;

uint64_t Mix(uint64_t hash, uint64_t word) {
  hash = (hash ^ word) * 0x9E3779B97F4A7C15;
  return hash ^ (hash >> 29);
}

constexpr size_t AlignedSize(size_t size) {
  return (size + kNodeAlignment - 1) / kNodeAlignment * kNodeAlignment;
}

}  // namespace

// A slot holds the address of a node, whose lowest bits are zero, and in these some bits of the hash; 0 is a free slot.
struct LogIndex::Table {
  explicit Table(size_t slotCount) : mask(slotCount - 1), slots(new std::atomic<uintptr_t>[slotCount]) {
    Clear();
  }
  void Clear() {
    for (size_t i = 0; i <= mask; ++i) slots[i].store(0, std::memory_order_relaxed);
  }

  size_t mask;
  std::unique_ptr<std::atomic<uintptr_t>[]> slots;
};

// Chunks that are too small for what comes next are passed over until the arena is cleared.
void LogIndex::Arena::Reserve(size_t size) {
  if (!chunks_.empty() && chunks_[current_].size - used_ >= size) return;
  size_t next = chunks_.empty() ? 0 : current_ + 1;
  while (next < chunks_.size() && chunks_[next].size < size) ++next;
  if (next == chunks_.size()) {
    const size_t doubled = kMinChunk << std::min<size_t>(chunks_.size(), 4);
    const size_t chunk = std::max(size, std::min(doubled, kMaxChunk));
    chunks_.reserve(chunks_.size() + 1);
    chunks_.push_back({std::unique_ptr<uint8_t[]>(new uint8_t[chunk]), chunk});
  }
  current_ = next;
  used_ = 0;
}

void* LogIndex::Arena::Allocate(size_t size) {
  size = AlignedSize(size);
  Reserve(size);
  void* memory = chunks_[current_].bytes.get() + used_;
  used_ += size;
  return memory;
}

void LogIndex::Arena::Clear() {
  current_ = 0;
  used_ = 0;
}

LogIndex::Target::Target(std::string_view wanted) : key(wanted), prefix(KeyPrefix::Of(wanted)) {}

LogIndex::LogIndex() {
  MakeHead();
}

void LogIndex::MakeHead() {
  head_ =
      static_cast<Node*>(arena_.Allocate(offsetof(Node, links) + kMaxHeight * sizeof(std::atomic<Node*>)));
  for (int level = 0; level < kMaxHeight; ++level) {
    new (&head_->links[level]) std::atomic<Node*>(nullptr);
    last_[level] = head_;
  }
  head_->height = kMaxHeight;
}

void LogIndex::Clear() {
  arena_.Clear();
  if (tables_.size() > 1) tables_.erase(tables_.begin(), tables_.end() - 1);
  if (!tables_.empty()) tables_.back()->Clear();
  height_.store(1, std::memory_order_relaxed);
  keyCount_.store(0, std::memory_order_relaxed);
  MakeHead();
}

void LogIndex::Reserve(size_t count, size_t keyBytes) {
  const size_t largest = offsetof(Node, links) + kMaxHeight * sizeof(std::atomic<Node*>) +
                         sizeof(Node::Payload) + kNodeAlignment;
  arena_.Reserve(count * largest + keyBytes);
  ReserveTable(KeyCount() + count);
}

uint64_t LogIndex::HashOf(const Target& target) {
  constexpr size_t kPrefix = sizeof(KeyPrefix);
  uint64_t hash = Mix(Mix(target.key.size(), target.prefix.high), target.prefix.low);
  if (target.key.size() > kPrefix) {
    std::string_view rest = target.key.substr(kPrefix);
    uint64_t word = 0;
    for (; rest.size() >= sizeof(word); rest.remove_prefix(sizeof(word))) {
      std::memcpy(&word, rest.data(), sizeof(word));
      hash = Mix(hash, word);
    }
    word = 0;
    if (!rest.empty()) std::memcpy(&word, rest.data(), rest.size());
    hash = Mix(hash, word);
  }
  return Mix(hash, hash >> 32);
}

uintptr_t LogIndex::Tagged(const Node* node, uint64_t hash) {
  return reinterpret_cast<uintptr_t>(node) | (hash >> 61);
}

// Puts `node` into the slot of `replaced`, which has the same key, or into a free one.
void LogIndex::PutInto(Table& table, uint64_t hash, const Node* node, const Node* replaced) {
  const uintptr_t old = replaced == nullptr ? 0 : Tagged(replaced, hash);
  size_t slot = hash & table.mask;
  while (table.slots[slot].load(std::memory_order_relaxed) != old) slot = (slot + 1) & table.mask;
  table.slots[slot].store(Tagged(node, hash), std::memory_order_release);
}

const LogIndex::Node* LogIndex::NewestOf(const Target& target) const {
  const Table* const table = table_.load(std::memory_order_acquire);
  if (table == nullptr) return nullptr;
  const uint64_t hash = HashOf(target);
  for (size_t slot = hash & table->mask;; slot = (slot + 1) & table->mask) {
    const uintptr_t tagged = table->slots[slot].load(std::memory_order_acquire);
    if (tagged == 0) return nullptr;
    if ((tagged & (kNodeAlignment - 1)) != hash >> 61) continue;
    const auto* node = reinterpret_cast<const Node*>(tagged & ~uintptr_t{kNodeAlignment - 1});
    if (node->prefix == target.prefix && KeyOf(*node) == target.key) return node;
  }
}

void LogIndex::ReserveTable(size_t keys) {
  Table* const old = table_.load(std::memory_order_relaxed);
  size_t slots = old == nullptr ? kMinSlots : old->mask + 1;
  while (slots < keys * 2) slots *= 2;
  if (old != nullptr && slots == old->mask + 1) return;
  auto table = std::make_unique<Table>(slots);
  if (old != nullptr) {
    for (size_t i = 0; i <= old->mask; ++i) {
      const uintptr_t tagged = old->slots[i].load(std::memory_order_relaxed);
      if (tagged == 0) continue;
      const auto* node = reinterpret_cast<const Node*>(tagged & ~uintptr_t{kNodeAlignment - 1});
      PutInto(*table, HashOf(Target(KeyOf(*node))), node, nullptr);
    }
  }
  tables_.push_back(std::move(table));
  table_.store(tables_.back().get(), std::memory_order_release);
}

LogIndex::~LogIndex() = default;

std::string_view LogIndex::KeyOf(const Node& node) {
  return {reinterpret_cast<const char*>(node.AfterLinks() + 1), node.keySize};
}

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

// Whether `node` stands before the version `offset` of the key: a smaller key, or a newer version of the same one.
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

// Fills `before` with the node after which the version belongs, on each level.
void LogIndex::FindPlace(const Target& target, uint32_t offset, Node** before) const {
  const int height = height_.load(std::memory_order_relaxed);
  for (int level = height; level < kMaxHeight; ++level) before[level] = head_;
  if (last_[0] != head_ && IsBefore(*last_[0], target, offset)) {
    std::copy(last_, last_ + height, before);
    return;
  }
  Node* node = head_;
  const Node* passed = nullptr;
  for (int level = height - 1; level >= 0; --level) {
    Node* next = node->NextAhead(level);
    while (next != nullptr && next != passed && IsBefore(*next, target, offset)) {
      node = next;
      next = node->NextAhead(level);
    }
    before[level] = node;
    passed = next;
  }
}

// One node in four has a second level, one in sixteen a third.
int LogIndex::DrawHeight() {
  random_ ^= random_ << 13;
  random_ ^= random_ >> 17;
  random_ ^= random_ << 5;
  return std::min(1 + __builtin_ctz(random_ | (1u << 24)) / 2, kMaxHeight);
}

void LogIndex::Insert(std::string_view key, const Version& version) {
  const Target target(key);
  Node* before[kMaxHeight];
  FindPlace(target, version.offset, before);
  const Node* older = before[0]->Next(0);
  const bool isKnownKey = older != nullptr && older->prefix == target.prefix && KeyOf(*older) == key;
  if (isKnownKey && older->offset == version.offset) return;
  const bool hasNewer = before[0] != head_ && before[0]->prefix == target.prefix && KeyOf(*before[0]) == key;
  const bool isNewKey = !isKnownKey && !hasNewer;
  if (isNewKey) ReserveTable(KeyCount() + 1);
  const int height = DrawHeight();
  auto* node = static_cast<Node*>(arena_.Allocate(offsetof(Node, links) +
                                                  static_cast<size_t>(height) * sizeof(std::atomic<Node*>) +
                                                  sizeof(Node::Payload) + key.size()));
  node->prefix = target.prefix;
  node->offset = version.offset;
  node->keySize = static_cast<uint16_t>(key.size());
  node->height = static_cast<uint8_t>(height);
  node->deleted = version.entry.deleted;
  *node->AfterLinks() = {version.entry.timestamp, version.entry.valueOffset, version.entry.valueSize,
                         version.entry.ttl};
  for (int level = 0; level < height; ++level) {
    new (&node->links[level]) std::atomic<Node*>(before[level]->Next(level));
  }
  std::memcpy(static_cast<void*>(node->AfterLinks() + 1), key.data(), key.size());

  if (height > height_.load(std::memory_order_relaxed)) height_.store(height, std::memory_order_relaxed);
  // From the bottom up: a reader that finds the node on one level finds it on those below.
  for (int level = 0; level < height; ++level) {
    before[level]->links[level].store(node, std::memory_order_release);
    if (before[level] == last_[level]) last_[level] = node;
  }
  if (!hasNewer) {
    PutInto(*table_.load(std::memory_order_relaxed), HashOf(target), node, isKnownKey ? older : nullptr);
  }
  if (isNewKey) keyCount_.fetch_add(1, std::memory_order_relaxed);
}

bool LogIndex::Find(std::string_view key, uint32_t limit, Version* version) const {
  if (limit == 0) return false;
  const Target target(key);
  const auto isOfKey = [&](const Node* node) {
    return node != nullptr && node->prefix == target.prefix && KeyOf(*node) == key;
  };
  // Older versions follow the newest one.
  const Node* node = NewestOf(target);
  for (int i = 0; isOfKey(node) && node->offset >= limit; ++i) {
    node = i < kMaxPassed ? node->Next(0) : FirstNotBefore(target, limit - 1);
  }
  if (!isOfKey(node)) return false;
  *version = node->ToVersion();
  return true;
}

// Versions from the limit on are newer than what is looked at: they stand before the one that counts, and a key may
// have none that does.
void LogIndex::Iterator::SkipHidden() {
  while (node_ != nullptr && node_->offset >= limit_) node_ = node_->Next(0);
}

// Stands on the newest version before the limit of the key that `node`, itself before the limit, belongs to.
void LogIndex::Iterator::TakeKeyOf(const Node* node) {
  node_ = index_->FirstNotBefore(Target(KeyOf(*node)), limit_ - 1);
}

void LogIndex::Iterator::SeekToFirst() {
  node_ = index_->head_->Next(0);
  SkipHidden();
}

void LogIndex::Iterator::Seek(std::string_view key) {
  node_ = index_->FirstNotBefore(Target(key), kNoLimit);
  SkipHidden();
}

void LogIndex::Iterator::Next() {
  const Node* key = node_;
  do {
    node_ = node_->Next(0);
    SkipHidden();
  } while (node_ != nullptr && node_->prefix == key->prefix && KeyOf(*node_) == KeyOf(*key));
}

void LogIndex::Iterator::Prev() {
  // Before the newest version of this key stands the oldest one of the key before it.
  const Node* node = index_->LastBefore(Target(KeyOf(*node_)), kNoLimit);
  while (node != nullptr && node->offset >= limit_) {
    node = index_->LastBefore(Target(KeyOf(*node)), node->offset);
  }
  node_ = nullptr;
  if (node != nullptr) TakeKeyOf(node);
}

void LogIndex::Iterator::SeekToLast() {
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
