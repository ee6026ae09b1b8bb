// block/block_index.h: the keys and entries of one block in memory, sorted as the file has them.
//
// An entry costs 40 bytes and those of its key: no allocation belongs to one key. A search looks at an array
// of 8-byte prefixes, taken after the bytes that all keys of the block have in common.
//
// Ownership: an index owns its memory.
// Threads:   any number may read a finished index; one thread at a time builds it.
// Failure:   Read returns a status. Reserve, Append, Finish and Read may throw std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "format/block_reader.h"
#include "format/byte_source.h"
#include "kestrun/data_entry.h"

namespace Kestrun {

// An array that grows without being written to first.
template <typename T>
class HeapArray {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  HeapArray() = default;
  ~HeapArray() { std::free(data_); }
  HeapArray(HeapArray&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)),
        size_(std::exchange(other.size_, 0)),
        capacity_(std::exchange(other.capacity_, 0)) {}
  HeapArray& operator=(HeapArray&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
    return *this;
  }

  void Reserve(size_t capacity) {
    if (capacity > capacity_) Reallocate(capacity);
  }
  // Space for `count` more at the end, which belong to the array from now on.
  T* Extend(size_t count) {
    if (count > capacity_ - size_) Reallocate(size_ + count + capacity_ / 2);
    size_ += count;
    return data_ + (size_ - count);
  }
  void Truncate(size_t size) { size_ = size; }
  // Gives up what is not in use.
  void Trim() {
    if (size_ != 0 && size_ != capacity_) Reallocate(size_);
  }
  size_t Size() const { return size_; }
  T* Data() { return data_; }
  const T* Data() const { return data_; }
  T& operator[](size_t index) { return data_[index]; }
  const T& operator[](size_t index) const { return data_[index]; }

 private:
  void Reallocate(size_t capacity) {
    void* grown = std::realloc(data_, capacity * sizeof(T));
    if (grown == nullptr) throw std::bad_alloc();
    data_ = static_cast<T*>(grown);
    capacity_ = capacity;
  }

  T* data_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

class BlockIndex {
 public:
  struct Record {
    uint32_t valueOffset;  // from the start of the file that holds the value
    uint32_t valueSize;
    uint64_t timestamp;
    uint32_t ttl;
    uint32_t checksum;   // of key and value; means something only with hasChecksum
    uint32_t keyOffset;  // within the index's keys
    uint16_t keySize;
    bool deleted;
    bool hasChecksum;
  };
  static_assert(sizeof(Record) == 32);

  // Reads the tables of a block file that was written with `pageSize`.
  //
  // kStatusBlockCorrupt, kStatusMapFailed, kStatusBlockShortRead, kStatusStatFailed  as
  //                         ReadBlockSections; also
  // kStatusBlockCorrupt when an entry fails its checksum or its key lies outside the key table
  static uint32_t Read(ByteSource& source, uint64_t pageSize, std::shared_ptr<const BlockIndex>* out);

  // Fills this index with the entries [first, first + count) of a file, all of which must be there, in place
  // of what it holds. Its memory is used again. Statuses as Read.
  uint32_t ReadPart(ByteSource& source, const BlockSections& sections, uint32_t first, uint32_t count);

  BlockIndex() = default;
  BlockIndex(const BlockIndex&) = delete;
  BlockIndex& operator=(const BlockIndex&) = delete;

  // Building: entries in the order of the file, then Finish.
  void Reserve(size_t count, size_t keyBytes);
  void Append(std::string_view key, const DataEntry& entry, std::optional<uint32_t> checksum);
  // Moves entry `from` to `to`, which is not after it; every entry up to `to` must have been moved before.
  void Move(uint32_t from, uint32_t to);
  // Drops the entries from `count` on.
  void Truncate(uint32_t count);
  Record& RecordAt(uint32_t index) { return records_[index]; }
  void Finish();

  uint32_t Count() const { return static_cast<uint32_t>(records_.Size()); }
  const Record& RecordAt(uint32_t index) const { return records_[index]; }
  std::string_view KeyAt(uint32_t index) const {
    const Record& record = records_[index];
    return {keys_.Data() + record.keyOffset, record.keySize};
  }
  DataEntry EntryAt(uint32_t index) const;
  // The bytes of all keys, one after the other, unless the index was read from a file.
  std::string_view KeyBytes() const { return {keys_.Data(), keys_.Size()}; }
  // Whether each key is greater than the one before it. Only damage makes a file where this is not so.
  bool IsOrdered() const { return ordered_; }
  // The first entry whose key is not less than `key`; Count() when there is none.
  uint32_t LowerBound(std::string_view key) const;
  // The entry with this key; Count() when there is none.
  uint32_t Find(std::string_view key) const;
  // Bytes of memory, about.
  size_t MemoryUsed() const;

 private:
  uint32_t ReadEntries(ByteSource& source, const BlockSections& sections, uint64_t first, uint64_t count);
  uint32_t ReadKeys(ByteSource& source, uint64_t keyTableOffset);
  void FindOrder();
  bool BuildPrefixes(size_t common);
  // Compares the key of an entry with `key`, which goes on with `prefix` after what all keys have in common.
  int Compare(uint32_t index, uint64_t prefix, std::string_view key) const;
  uint32_t LowerBoundOfPrefix(uint64_t prefix) const;
  uint32_t UpperBoundOfPrefix(uint64_t prefix) const;
  uint32_t FindUnordered(std::string_view key) const;
  int CompareCommon(std::string_view key) const;

  HeapArray<Record> records_;
  HeapArray<char> keys_;
  HeapArray<uint64_t>
      prefixes_;       // of the keys without `common_` bytes, as numbers that compare as the bytes do
  size_t common_ = 0;  // bytes that all keys begin with; 0 unless the keys are in order
  bool ordered_ = true;
};

}  // namespace Kestrun
