// block/block_cache.h
// BlockCache keeps the most recently used blocks of one store loaded, so that a block's key index is built
// once and the number of open block files stays bounded.
//
// Ownership: blocks are shared; an evicted block lives on while a caller holds it.
// Threads:   safe. One mutex is held for the whole of every call, loading included.
// Failure:   an empty pointer means "not available"; a corrupt file is deleted. May throw std::bad_alloc.
// Units:     the capacity counts blocks, not bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "block/block.h"

namespace Kestrun {

inline constexpr size_t kBlockCacheCapacity = 16;

class BlockCache {
 public:
  // Returns the block `name`, loaded from `path` on a miss, and makes it the most recent one. A failed load
  // caches nothing, so the next call tries again. `*failure`, when asked for, is the status of a load that
  // may succeed later, and kStatusOk otherwise: also when the file is gone, or was corrupt and is gone now.
  //
  // `owner` is what the name was found through. A block found through another one is loaded again when the
  // file at `path` is not the one that it was loaded from: a name comes back when a process draws it after a
  // compaction of another process has removed its file.
  std::shared_ptr<Block> GetOrLoad(const std::string& name, const std::string& path,
                                   uint32_t* failure = nullptr,
                                   const std::shared_ptr<const void>& owner = nullptr);
  // The block `name` if GetOrLoad would not have to load it, or null.
  std::shared_ptr<Block> Find(const std::string& name, const std::string& path,
                              const std::shared_ptr<const void>& owner);
  // Looks whether a block can be read from `path`, and deletes a corrupt file as GetOrLoad does, without
  // loading it. `*failure` as above.
  bool Check(const std::string& path, uint32_t* failure);
  // Makes `block` the most recent one, in the place of any other of that name, and evicts the one used
  // longest ago when there are more than the capacity. `owner` as above.
  void Put(const std::string& name, const std::shared_ptr<Block>& block,
           const std::shared_ptr<const void>& owner = nullptr);
  // Forgets the block `name`, if it is there.
  void Erase(const std::string& name);
  // Forgets every block.
  void Clear();

 private:
  struct Cached {
    std::string name;
    std::shared_ptr<Block> block;
    std::shared_ptr<const void> owner;  // what the block is known to belong to
  };
  using Blocks = std::list<Cached>;

  std::shared_ptr<Block> FindLocked(const std::string& name, const std::string& path,
                                    const std::shared_ptr<const void>& owner);
  void Insert(Cached cached);

  std::mutex mutex_;
  Blocks blocks_;  // guarded by mutex_; the most recent one is in front
  std::unordered_map<std::string, Blocks::iterator> index_;  // guarded by mutex_
};

}  // namespace Kestrun
