// block/block_cache.h
// BlockCache keeps the most recently used blocks of one store loaded, so that a block's index is built once
// and the number of open block files stays bounded.
//
// Beyond the blocks themselves it remembers, within bounds of memory, the filters of the blocks that it has
// seen and the indexes of those that it has evicted. A filter tells that a block lacks a key without loading
// it; an index makes loading an unchanged file as cheap as opening it.
//
// Ownership: blocks are shared; an evicted block lives on while a caller holds it.
// Threads:   safe. One mutex is held for the whole of every call, loading included.
// Failure:   an empty pointer means "not available"; no file is touched. May throw std::bad_alloc.
// Units:     the capacity counts blocks; the other bounds count bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "block/block.h"
#include "block/block_filter.h"

namespace Kestrun {

inline constexpr size_t kBlockCacheCapacity = 16;
// A block of at most so many entries is loaded at its first use.
inline constexpr uint32_t kMaxLoadedAtOnce = 4096;

inline constexpr size_t kMaxEvictedIndexBytes = 48 * 1024 * 1024;
inline constexpr size_t kMaxBlockFilterBytes = 32 * 1024 * 1024;

class BlockCache {
 public:
  // A cache of at most `capacity` blocks. Those with more than `maxIndexed` entries have learned
  // tables instead of an index.
  explicit BlockCache(size_t capacity = kBlockCacheCapacity, uint32_t maxIndexed = UINT32_MAX)
      : capacity_(capacity), maxIndexed_(maxIndexed) {}

  // Returns the block `name`, loaded from `path` on a miss, and makes it the most recent one. A failed load
  // caches nothing, so the next call tries again. `*failure`, when asked for, is the status of Block::Load,
  // kStatusOk for a block that is returned.
  //
  // `firstUse`: of a large block only the headers are read, unless it is known already: see Block::IsCold.
  // Without it a cold block is loaded anew.
  //
  // `owner` is what the name was found through. A block found through another one is loaded again when the
  // file at `path` is not the one that it was loaded from: a name comes back when a process draws it after a
  // compaction of another process has removed its file.
  std::shared_ptr<Block> GetOrLoad(const std::string& name, const std::string& path,
                                   uint32_t* failure = nullptr,
                                   const std::shared_ptr<const void>& owner = nullptr, bool firstUse = false);
  // The block `name` if GetOrLoad would not have to look at its file, or null. It may be cold.
  std::shared_ptr<Block> Find(const std::string& name, const std::string& path,
                              const std::shared_ptr<const void>& owner);
  // The same if that is known without looking at any path: the block was found
  // through the same `owner` before.
  std::shared_ptr<Block> FindOwned(const std::string& name, const std::shared_ptr<const void>& owner);
  // What MayContain would answer, if that is known without looking at any path.
  std::optional<bool> AskFilter(const std::string& name, const BlockFilter::Probe& probe,
                                const std::shared_ptr<const void>& owner);
  // False when the block `name` is known to have no entry for a key. A block that the cache has never had may
  // contain anything. `path` and `owner` as above.
  bool MayContain(const std::string& name, const std::string& path, const BlockFilter::Probe& probe,
                  const std::shared_ptr<const void>& owner = nullptr);
  // The same, but a block that the cache has never had contains nothing.
  bool FilterKnows(const std::string& name, const std::string& path, const BlockFilter::Probe& probe,
                   const std::shared_ptr<const void>& owner = nullptr);
  // Makes `block` the most recent one, in the place of any other of that name, and evicts the one used
  // longest ago when there are more than the capacity. `owner` as above. `filter` is that of a block without
  // an index; may be null.
  void Put(const std::string& name, const std::shared_ptr<Block>& block,
           const std::shared_ptr<const void>& owner = nullptr,
           std::shared_ptr<const BlockFilter> filter = nullptr);
  // Forgets the block `name`, if it is there.
  void Erase(const std::string& name);
  // Forgets every block.
  void Clear();

 private:
  // Tells a file apart from every other, and from itself after a change.
  struct FileStamp {
    InodeId id = {};
    int64_t size = -1;    // -1: none
    int64_t changed = 0;  // nanoseconds
    int64_t modified = 0;

    bool operator==(const FileStamp& other) const;
  };
  struct Cached {
    std::string name;
    std::shared_ptr<Block> block;
    std::shared_ptr<const void> owner;  // what the block is known to belong to
    FileStamp stamp;                    // of the file before it was read
  };
  struct Evicted {
    std::string name;
    std::shared_ptr<const BlockIndex> index;
    FileStamp stamp;
  };
  struct Filtered {
    std::string name;
    std::shared_ptr<const BlockFilter> filter;
    std::shared_ptr<const void> owner;
    FileStamp stamp;
  };
  // Items by name, the most recent one in front, within a bound of bytes.
  template <typename Item>
  class BoundedList {
   public:
    Item* Find(const std::string& name);
    void Insert(Item item, size_t bytes, size_t maxBytes);
    void Erase(const std::string& name);
    void Clear();

   private:
    struct Entry {
      Item item;
      size_t bytes;
    };
    std::list<Entry> entries_;
    std::unordered_map<std::string, typename std::list<Entry>::iterator> index_;
    size_t bytes_ = 0;
  };
  using Blocks = std::list<Cached>;

  const BlockFilter* FindFilter(const std::string& name, const std::string& path,
                                const std::shared_ptr<const void>& owner);
  static FileStamp StampOf(const std::string& path);
  std::shared_ptr<Block> Load(Cached cached, const std::string& path, bool firstUse, uint32_t* failure);
  std::shared_ptr<Block> FindLocked(const std::string& name, const std::string& path,
                                    const std::shared_ptr<const void>& owner);
  std::shared_ptr<Block> Reopen(const std::string& name, const std::string& path, const FileStamp& stamp);
  void Insert(Cached cached);
  void Remember(const Cached& cached, std::shared_ptr<const BlockFilter> filter);

  std::mutex mutex_;
  const size_t capacity_;
  const uint32_t maxIndexed_;
  // Guarded by mutex_.
  Blocks blocks_;  // the most recent one is in front
  std::unordered_map<std::string, Blocks::iterator> index_;
  BoundedList<Evicted> evicted_;
  BoundedList<Filtered> filters_;
};

}  // namespace Kestrun
