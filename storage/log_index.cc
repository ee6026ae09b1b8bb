#include "storage/log_index.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "storage/log_index_node.h"

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

namespace {

// Older versions that Find passes by one by one before it searches.
constexpr int kMaxPassed = 4;

constexpr size_t kMinSlots = 1024;
constexpr size_t kTableGrowth = 4;

uint64_t Mix(uint64_t hash, uint64_t word) {
  hash = (hash ^ word) * 0x9E3779B97F4A7C15;
  return hash ^ (hash >> 29);
}

constexpr size_t AlignedSize(size_t size) {
  return (size + kNodeAlignment - 1) / kNodeAlignment * kNodeAlignment;
}

}  // namespace

// A slot holds the address of a node, whose lowest bits are zero, and in these some bits of the hash;
// 0 is a free slot.
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

LogIndex::LogIndex() {
  MakeHead();
}

void LogIndex::MakeHead() {
  head_ =
      static_cast<Node*>(arena_.Allocate(offsetof(Node, links) + kMaxHeight * sizeof(std::atomic<Node*>)));
  for (int level = 0; level < kMaxHeight; ++level) {
    new (&head_->links[level]) std::atomic<Node*>(nullptr);
    finger_[level] = head_;
  }
  head_->height = kMaxHeight;
}

void LogIndex::Clear() {
  arena_.Clear();
  if (tables_.size() > 1) tables_.erase(tables_.begin(), tables_.end() - 1);
  if (!tables_.empty()) tables_.back()->Clear();
  height_.store(1, std::memory_order_relaxed);
  keyCount_.store(0, std::memory_order_relaxed);
  inserted_.store(0, std::memory_order_relaxed);
  unordered_.store(nullptr, std::memory_order_relaxed);
  ordered_.store(0, std::memory_order_relaxed);
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

LogIndex::Node* LogIndex::Untagged(uintptr_t tagged) {
  return reinterpret_cast<Node*>(tagged & ~uintptr_t{kNodeAlignment - 1});
}

// Puts `node` into the slot of `replaced`, which has the same key, or into a free one.
void LogIndex::PutInto(Table& table, uint64_t hash, const Node* node, const Node* replaced) {
  const uintptr_t old = replaced == nullptr ? 0 : Tagged(replaced, hash);
  size_t slot = hash & table.mask;
  while (table.slots[slot].load(std::memory_order_relaxed) != old) slot = (slot + 1) & table.mask;
  table.slots[slot].store(Tagged(node, hash), std::memory_order_release);
}

LogIndex::Node* LogIndex::NewestOf(const Target& target, uint64_t hash) const {
  const Table* const table = table_.load(std::memory_order_acquire);
  if (table == nullptr) return nullptr;
  for (size_t slot = hash & table->mask;; slot = (slot + 1) & table->mask) {
    const uintptr_t tagged = table->slots[slot].load(std::memory_order_acquire);
    if (tagged == 0) return nullptr;
    if ((tagged & (kNodeAlignment - 1)) != hash >> 61) continue;
    Node* const node = Untagged(tagged);
    if (IsOfKey(node, target)) return node;
  }
}

void LogIndex::ReserveTable(size_t keys) {
  Table* const old = table_.load(std::memory_order_relaxed);
  size_t slots = old == nullptr ? kMinSlots : old->mask + 1;
  while (slots < keys * 2) slots *= kTableGrowth;
  if (old != nullptr && slots == old->mask + 1) return;
  auto table = std::make_unique<Table>(slots);
  if (old != nullptr) {
    for (size_t i = 0; i <= old->mask; ++i) {
      const uintptr_t tagged = old->slots[i].load(std::memory_order_relaxed);
      if (tagged == 0) continue;
      const Node* const node = Untagged(tagged);
      PutInto(*table, HashOf(Target(*node)), node, nullptr);
    }
  }
  tables_.push_back(std::move(table));
  table_.store(tables_.back().get(), std::memory_order_release);
}

LogIndex::~LogIndex() = default;

// One node in four has a second level, one in sixteen a third.
int LogIndex::DrawHeight() {
  random_ ^= random_ << 13;
  random_ ^= random_ >> 17;
  random_ ^= random_ << 5;
  return std::min(1 + __builtin_ctz(random_ | (1u << 24)) / 2, kMaxHeight);
}

LogIndex::Node* LogIndex::MakeNode(const Target& target, const Version& version) {
  const int height = DrawHeight();
  auto* node = static_cast<Node*>(arena_.Allocate(offsetof(Node, links) +
                                                  static_cast<size_t>(height) * sizeof(std::atomic<Node*>) +
                                                  sizeof(Node::Payload) + target.key.size()));
  node->prefix = target.prefix;
  node->offset = version.offset;
  node->keySize = static_cast<uint16_t>(target.key.size());
  node->height = static_cast<uint8_t>(height);
  node->deleted = version.entry.deleted;
  new (&node->older) std::atomic<Node*>(nullptr);
  for (int level = 0; level < height; ++level) new (&node->links[level]) std::atomic<Node*>(nullptr);
  *node->AfterLinks() = {version.entry.timestamp, version.entry.valueOffset, version.entry.valueSize,
                         version.entry.ttl};
  std::memcpy(static_cast<void*>(node->AfterLinks() + 1), target.key.data(), target.key.size());
  return node;
}

void LogIndex::Insert(std::string_view key, const Version& version) {
  const Target target(key);
  const uint64_t hash = HashOf(target);
  Node* const newest = NewestOf(target, hash);
  // As a rule the newest one there is becomes the one before; but an older version may come late.
  Node* newer = nullptr;
  Node* older = newest;
  while (older != nullptr && older->offset > version.offset) {
    newer = older;
    older = older->older.load(std::memory_order_relaxed);
  }
  if (older != nullptr && older->offset == version.offset) return;
  if (newest == nullptr) ReserveTable(KeyCount() + 1);
  Node* const node = MakeNode(target, version);
  node->older.store(older, std::memory_order_relaxed);

  // Counted first, and put where walks look before the table has it. A fork in between leaves the child with
  // a count that is too high, or with a version that is inserted once more when its record is replayed; and
  // not with one that walks never meet.
  inserted_.store(inserted_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  Node* next = unordered_.load(std::memory_order_relaxed);
  do {
    node->links[0].store(next, std::memory_order_relaxed);
  } while (
      !unordered_.compare_exchange_weak(next, node, std::memory_order_release, std::memory_order_relaxed));
  if (newer != nullptr) {
    newer->older.store(node, std::memory_order_release);
  } else {
    PutInto(*table_.load(std::memory_order_relaxed), hash, node, newest);
  }
  if (newest == nullptr) keyCount_.fetch_add(1, std::memory_order_relaxed);
}

bool LogIndex::Find(std::string_view key, uint32_t limit, Version* version) const {
  if (limit == 0) return false;
  const Target target(key);
  const Node* node = NewestOf(target, HashOf(target));
  for (int passed = 0; node != nullptr && node->offset >= limit; ++passed) {
    if (passed == kMaxPassed) {
      Order();
      node = FirstNotBefore(target, limit - 1);
      if (!IsOfKey(node, target)) return false;
      break;
    }
    node = node->older.load(std::memory_order_acquire);
  }
  if (node == nullptr) return false;
  *version = node->ToVersion();
  return true;
}

}  // namespace Kestrun
