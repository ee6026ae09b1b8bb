// record/record_meta_index.h: a hash map to record types that can be read while it grows.
//
// The schema's lookups run in any number of threads without a lock, while another thread adds record types
// under the lock of the schema's file. Every change becomes visible with the store of one pointer, so a
// reader, or a process forked in the middle of a change, finds a whole map with or without it.
//
// Ownership: record types are not owned. Entries and tables live as long as the map, since a reader may be
//            looking at any of them; a table has twice the slots of the one it replaces.
// Threads:   Find from any thread at any time; everything else from one thread at a time.
// Failure:   Assign may throw std::bad_alloc and then has changed nothing.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <utility>

#include "kestrun/record_meta.h"

namespace Kestrun {

template <typename Key>
class RecordMetaIndex {
 public:
  RecordMetaIndex() : table_(new Table(kFirstCapacity, nullptr)) {}
  ~RecordMetaIndex() {
    std::unique_ptr<Table> table(table_.load(std::memory_order_relaxed));
    for (size_t i = 0; i < table->capacity; ++i) delete table->slots[i].load(std::memory_order_relaxed);
    while (table != nullptr) table.reset(table->replaced);
  }
  RecordMetaIndex(const RecordMetaIndex&) = delete;
  RecordMetaIndex& operator=(const RecordMetaIndex&) = delete;

  // The record type of `key`, or null.
  RecordMeta* Find(const Key& key) const {
    const Entry* entry = Search(*table_.load(std::memory_order_acquire), key).entry;
    return entry == nullptr ? nullptr : entry->meta.load(std::memory_order_acquire);
  }

  // Makes `meta` the record type of `key`, in place of the one it had.
  void Assign(const Key& key, RecordMeta* meta) {
    Table* table = table_.load(std::memory_order_relaxed);
    if (Entry* known = Search(*table, key).entry; known != nullptr) {
      known->meta.store(meta, std::memory_order_release);
      return;
    }
    auto entry = std::make_unique<Entry>(key, meta);
    // Half of the slots stay empty: that ends every search.
    if ((table->used + 1) * 2 > table->capacity) table = Grow(table);
    Search(*table, key).slot->store(entry.release(), std::memory_order_release);
    ++table->used;
  }

  // Calls `visit` with each key and its record type, in no order. Only the thread that may call Assign.
  template <typename Visit>
  void ForEach(Visit visit) const {
    const Table& table = *table_.load(std::memory_order_relaxed);
    for (size_t i = 0; i < table.capacity; ++i) {
      const Entry* entry = table.slots[i].load(std::memory_order_relaxed);
      if (entry != nullptr) visit(entry->key, entry->meta.load(std::memory_order_relaxed));
    }
  }

  // The number of keys.
  size_t Count() const { return CountEntries(*table_.load(std::memory_order_relaxed)); }

 private:
  static constexpr size_t kFirstCapacity = 16;  // a power of two, and so are all others

  struct Entry {
    Entry(const Key& key, RecordMeta* meta) : key(key), meta(meta) {}
    const Key key;
    std::atomic<RecordMeta*> meta;
  };
  using Slot = std::atomic<Entry*>;

  struct Table {
    Table(size_t capacity, Table* replaced)
        : capacity(capacity), slots(new Slot[capacity]()), replaced(replaced) {}
    const size_t capacity;
    const std::unique_ptr<Slot[]> slots;
    Table* const replaced;  // the table before this one
    size_t used = 0;        // for the writer
  };

  struct Place {
    Slot* slot;
    Entry* entry;  // what the slot held when it was looked at; a reader must not look twice
  };

  // The slot that holds `key`, or the empty one where it belongs. Entries never move and never go.
  static Place Search(const Table& table, const Key& key) {
    // Standard hashes of numbers are the numbers: spread them over the table.
    size_t i = (std::hash<Key>()(key) * 0x9E3779B97F4A7C15u) >> 32;
    for (;; ++i) {
      Slot& slot = table.slots[i & (table.capacity - 1)];
      Entry* entry = slot.load(std::memory_order_acquire);
      if (entry == nullptr || entry->key == key) return {&slot, entry};
    }
  }

  // Counted from the slots: whatever a fork interrupted, an entry is either in its slot or not.
  static size_t CountEntries(const Table& table) {
    size_t count = 0;
    for (size_t i = 0; i < table.capacity; ++i) {
      if (table.slots[i].load(std::memory_order_relaxed) != nullptr) ++count;
    }
    return count;
  }

  Table* Grow(Table* table) {
    auto grown = std::make_unique<Table>(table->capacity * 2, table);
    for (size_t i = 0; i < table->capacity; ++i) {
      Entry* entry = table->slots[i].load(std::memory_order_relaxed);
      if (entry == nullptr) continue;
      Search(*grown, entry->key).slot->store(entry, std::memory_order_relaxed);
      ++grown->used;
    }
    table_.store(grown.get(), std::memory_order_release);
    return grown.release();
  }

  std::atomic<Table*> table_;
};

}  // namespace Kestrun
