#include "block/block_cache.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "kestrun/status.h"

namespace Kestrun {
namespace {

// What a load that failed with `status` means for later ones; a corrupt file is deleted.
uint32_t ClassifyLoadFailure(uint32_t status, const std::string& path) {
  if (status == kStatusBlockCorrupt) {
    IgnoreStatus(std::remove(path.c_str()));  // the block is lost either way
    return kStatusOk;
  }
  const bool gone = status == kStatusOpenFailed && access(path.c_str(), F_OK) != 0 && errno == ENOENT;
  return gone ? kStatusOk : status;
}

// A file that is gone is no other file: the block that was loaded from it lives on.
bool IsAnotherFile(const Block& block, const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 && !(InodeIdOf(info) == block.FileId());
}

}  // namespace

std::shared_ptr<Block> BlockCache::GetOrLoad(const std::string& name, const std::string& path,
                                             uint32_t* failure, const std::shared_ptr<const void>& owner) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (failure != nullptr) *failure = kStatusOk;
  if (std::shared_ptr<Block> cached = FindLocked(name, path, owner); cached != nullptr) return cached;
  Block* loaded = nullptr;
  if (const uint32_t status = Block::Load(path, &loaded); status != kStatusOk) {
    const uint32_t lasting = ClassifyLoadFailure(status, path);
    if (failure != nullptr) *failure = lasting;
    return nullptr;
  }
  const std::shared_ptr<Block> block(loaded);
  Insert({name, block, owner});
  return block;
}

std::shared_ptr<Block> BlockCache::Find(const std::string& name, const std::string& path,
                                        const std::shared_ptr<const void>& owner) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return FindLocked(name, path, owner);
}

std::shared_ptr<Block> BlockCache::FindLocked(const std::string& name, const std::string& path,
                                              const std::shared_ptr<const void>& owner) {
  const auto found = index_.find(name);
  if (found == index_.end()) return nullptr;
  Cached& cached = *found->second;
  if (cached.owner != owner && IsAnotherFile(*cached.block, path)) return nullptr;
  cached.owner = owner;
  blocks_.splice(blocks_.begin(), blocks_, found->second);
  return cached.block;
}

bool BlockCache::Check(const std::string& path, uint32_t* failure) {
  const std::lock_guard<std::mutex> lock(mutex_);
  *failure = kStatusOk;
  const uint32_t status = Block::Verify(path);
  if (status == kStatusOk) return true;
  *failure = ClassifyLoadFailure(status, path);
  return false;
}

void BlockCache::Put(const std::string& name, const std::shared_ptr<Block>& block,
                     const std::shared_ptr<const void>& owner) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Insert({name, block, owner});
}

void BlockCache::Insert(Cached cached) {
  Blocks node;
  node.push_front(std::move(cached));
  const auto [entry, isNew] = index_.try_emplace(node.front().name, node.begin());
  if (!isNew) {
    blocks_.erase(entry->second);
    entry->second = node.begin();
  }
  blocks_.splice(blocks_.begin(), node);
  while (index_.size() > kBlockCacheCapacity) {
    index_.erase(blocks_.back().name);
    blocks_.pop_back();
  }
}

void BlockCache::Erase(const std::string& name) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = index_.find(name);
  if (found == index_.end()) return;
  blocks_.erase(found->second);
  index_.erase(found);
}

void BlockCache::Clear() {
  const std::lock_guard<std::mutex> lock(mutex_);
  index_.clear();
  blocks_.clear();
}

}  // namespace Kestrun
