// storage/log_index.h: the index of one filling of the log: which record holds which key.
//
// A version is one record; its offset in the log is its version number, because a log only grows until it is
// reset. A reader who goes by the first `limit` bytes of the log finds the state of the moment when the log
// was that long. Nothing is ever taken out: a reset of the log begins a new index.
//
// A hash table leads to the newest version of each key, and from there to its older ones. Beside it stands a
// skip list of all versions, by key and then newest first. Putting a version into the list costs several
// times what the table costs, so it waits until somebody walks: what was inserted since the last walk is
// sorted then, and put in as a whole.
//
// Ownership: an index owns copies of its keys; nothing in it points into the log.
// Threads:   one thread at a time may call Insert. All else may run beside it, and from any number of
//            threads: a version becomes visible with the store of one pointer. Walks that begin wait for each
//            other while the list is completed.
// Failure:   Insert may throw std::bad_alloc and has changed nothing then. Nothing else fails.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "kestrun/data_entry.h"

namespace Kestrun {

// The first 16 bytes of a key as two numbers that order as the bytes do; missing bytes count as zero. Keys of
// up to 16 bytes with the same prefix differ in their size only.
struct KeyPrefix {
  uint64_t high;
  uint64_t low;

  static KeyPrefix Of(std::string_view key);
  bool operator==(const KeyPrefix& other) const { return high == other.high && low == other.low; }
  bool operator<(const KeyPrefix& other) const {
    return high != other.high ? high < other.high : low < other.low;
  }
};

class LogIndex {
 public:
  // One record of the log.
  struct Version {
    uint32_t offset;  // of the record; what its valueOffset says need not lie after it
    DataEntry entry;
  };

  // Every version, however the log grows.
  static constexpr uint32_t kNoLimit = 0xFFFFFFFF;

  LogIndex();
  ~LogIndex();
  LogIndex(const LogIndex&) = delete;
  LogIndex& operator=(const LogIndex&) = delete;

  // Makes room, so that the next calls of Insert for `count` keys of `keyBytes` bytes together can't fail.
  void Reserve(size_t count, size_t keyBytes);
  // Adds a record. One at an offset that the key has already replaces nothing and is not added again.
  void Insert(std::string_view key, const Version& version);
  // Empties the index and keeps its memory. Nobody else may be looking at it.
  void Clear();

  // The newest version of `key` before the offset `limit`; false when there is none.
  bool Find(std::string_view key, uint32_t limit, Version* version) const;

  // Puts what was inserted since the last walk into its place, as the next walk would
  // have to; from any thread.
  void Order() const;
  // How many versions that would be.
  size_t UnorderedCount() const {
    const size_t ordered = ordered_.load(std::memory_order_relaxed);
    const size_t inserted = inserted_.load(std::memory_order_relaxed);
    return inserted > ordered ? inserted - ordered : 0;
  }

  // The number of different keys.
  size_t KeyCount() const { return keyCount_.load(std::memory_order_relaxed); }

 private:
  static constexpr int kMaxHeight = 12;

  struct Node;
  // Memory that is handed out forward and taken back as a whole.
  class Arena {
   public:
    void Reserve(size_t size);
    void* Allocate(size_t size);
    void Clear();

   private:
    struct Chunk {
      std::unique_ptr<uint8_t[]> bytes;
      size_t size;
    };
    std::vector<Chunk> chunks_;
    size_t current_ = 0;  // the chunk that is handed out; those after it are empty
    size_t used_ = 0;     // bytes of it
  };
  // The newest version of each key, by the key's hash: open addressing. A table is replaced by a larger one
  // when it is half full; readers may still be in the old one, so it stays until the index is cleared.
  struct Table;

  // What a search looks for, taken apart once.
  struct Target {
    explicit Target(std::string_view key);
    explicit Target(const Node& node);
    std::string_view key;
    KeyPrefix prefix;
  };
  struct Unordered;

  static std::string_view KeyOf(const Node& node);
  static bool IsOfKey(const Node* node, const Target& target);
  int DrawHeight();
  Node* MakeNode(const Target& target, const Version& version);
  void MakeHead();
  static uint64_t HashOf(const Target& target);
  static uintptr_t Tagged(const Node* node, uint64_t hash);
  static Node* Untagged(uintptr_t tagged);
  static void PutInto(Table& table, uint64_t hash, const Node* node, const Node* replaced);
  Node* NewestOf(const Target& target, uint64_t hash) const;
  void ReserveTable(size_t keys);

  // The list.
  static bool IsBefore(const Node& node, const Target& target, uint32_t offset);
  const Node* FirstNotBefore(const Target& target, uint32_t offset) const;
  const Node* LastBefore(const Target& target, uint32_t offset) const;
  void OrderAll(Node* newest) const;
  void FindPlace(const Target& target, uint32_t offset) const;
  void Link(Node* node) const;

  Arena arena_;
  std::vector<std::unique_ptr<Table>> tables_;  // the last one is in use
  std::atomic<Table*> table_{nullptr};
  std::atomic<size_t> keyCount_{0};
  std::atomic<size_t> inserted_{0};  // versions
  uint32_t random_ = 0x2545F491;

  // The versions that are not in the list yet, newest first, linked where the list's lowest level will
  // be. The thread that takes them puts them into the list, holding a mutex, and counts them when
  // all of them are there.
  mutable std::atomic<Node*> unordered_{nullptr};
  mutable std::atomic<size_t> ordered_{0};

  Node* head_;
  mutable std::atomic<int> height_{1};
  // On each level the last node that is not after the version that was put in last: the next
  // search goes on from there.
  mutable Node* finger_[kMaxHeight];

 public:
  // Walks the keys in order, each at its newest version before `limit`. A walk without a limit also meets
  // what is inserted while it goes on. The index must outlive it.
  class Iterator {
   public:
    explicit Iterator(const LogIndex& index, uint32_t limit = kNoLimit);

    bool Valid() const { return node_ != nullptr; }
    void SeekToFirst();
    void SeekToLast();
    void Seek(std::string_view key);         // the first key that is not before `key`
    void SeekForPrev(std::string_view key);  // the last key that is not after `key`
    void Next();
    void Prev();
    std::string_view Key() const;
    Version Get() const;
    // The offset of the record that follows in the list, of whatever key; 0 at the end.
    uint32_t FollowingOffset() const;

   private:
    // Where all that counts may have grown since the walk began.
    void OrderNew() const {
      if (limit_ == kNoLimit) index_->Order();
    }
    void SkipHidden();
    void TakeKeyOf(const Node* node);

    const LogIndex* index_;
    uint32_t limit_;
    const Node* node_ = nullptr;
  };
};

}  // namespace Kestrun
