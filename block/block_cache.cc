#include "block/block_cache.h"

#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "kestrun/status.h"

namespace Kestrun {
namespace {

// A file that is gone is no other file: the block that was loaded from it lives on.
bool IsAnotherFile(const Block& block, const std::string& path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 && !(InodeIdOf(info) == block.FileId());
}

int64_t ToNanoseconds(const timespec& time) {
  return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

}  // namespace

bool BlockCache::FileStamp::operator==(const FileStamp& other) const {
  return size >= 0 && id == other.id && size == other.size && changed == other.changed &&
         modified == other.modified;
}

BlockCache::FileStamp BlockCache::StampOf(const std::string& path) {
  struct stat info = {};
  if (stat(path.c_str(), &info) != 0) return {};
  return {InodeIdOf(info), int64_t{info.st_size}, ToNanoseconds(info.st_ctim), ToNanoseconds(info.st_mtim)};
}

template <typename Item>
Item* BlockCache::BoundedList<Item>::Find(const std::string& name) {
  const auto found = index_.find(name);
  if (found == index_.end()) return nullptr;
  entries_.splice(entries_.begin(), entries_, found->second);
  return &entries_.front().item;
}

template <typename Item>
void BlockCache::BoundedList<Item>::Insert(Item item, size_t bytes, size_t maxBytes) {
  Erase(item.name);
  if (bytes > maxBytes) return;
  std::list<Entry> node;
  node.push_front({std::move(item), bytes});
  index_.emplace(node.front().item.name, node.begin());
  entries_.splice(entries_.begin(), node);
  bytes_ += bytes;
  while (bytes_ > maxBytes) Erase(std::string(entries_.back().item.name));
}

template <typename Item>
void BlockCache::BoundedList<Item>::Erase(const std::string& name) {
  const auto found = index_.find(name);
  if (found == index_.end()) return;
  bytes_ -= found->second->bytes;
  entries_.erase(found->second);
  index_.erase(found);
}

template <typename Item>
void BlockCache::BoundedList<Item>::Clear() {
  index_.clear();
  entries_.clear();
  bytes_ = 0;
}

std::shared_ptr<Block> BlockCache::GetOrLoad(const std::string& name, const std::string& path,
                                             uint32_t* failure, const std::shared_ptr<const void>& owner,
                                             bool firstUse) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (failure != nullptr) *failure = kStatusOk;
  if (std::shared_ptr<Block> cached = FindLocked(name, path, owner);
      cached != nullptr && (firstUse || !cached->IsCold())) {
    return cached;
  }
  // The stamp comes before the bytes: a change that is missed by them shows in the next stamp.
  const FileStamp stamp = StampOf(path);
  if (std::shared_ptr<Block> block = Reopen(name, path, stamp); block != nullptr) {
    Insert({name, block, owner, stamp});
    return block;
  }
  return Load({name, nullptr, owner, stamp}, path, firstUse, failure);
}

std::shared_ptr<Block> BlockCache::Load(Cached cached, const std::string& path, bool firstUse,
                                        uint32_t* failure) {
  BlockLoading loading;
  loading.maxIndexed = firstUse ? std::min(kMaxLoadedAtOnce, maxIndexed_) : maxIndexed_;
  loading.learns = !firstUse;
  std::shared_ptr<const BlockFilter> filter;
  Block* loaded = nullptr;
  if (const uint32_t status = Block::Load(path, loading, &loaded, 0, &filter); status != kStatusOk) {
    if (failure != nullptr) *failure = status;
    return nullptr;
  }
  cached.block.reset(loaded);
  if (filter != nullptr) Remember(cached, std::move(filter));
  Insert(cached);
  return cached.block;
}

// An evicted block whose file has not changed since it was read.
std::shared_ptr<Block> BlockCache::Reopen(const std::string& name, const std::string& path,
                                          const FileStamp& stamp) {
  const Evicted* evicted = evicted_.Find(name);
  if (evicted == nullptr) return nullptr;
  std::shared_ptr<Block> block;
  std::shared_ptr<OsFile> file;
  if (evicted->stamp == stamp && OsFile::Open(path, kOpenReadOnly, &file) == kStatusOk &&
      file->Id() == stamp.id) {
    block = std::make_shared<Block>(std::move(file), evicted->index);
  }
  evicted_.Erase(name);
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

std::shared_ptr<Block> BlockCache::FindOwned(const std::string& name,
                                             const std::shared_ptr<const void>& owner) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = index_.find(name);
  if (found == index_.end() || found->second->owner != owner) return nullptr;
  blocks_.splice(blocks_.begin(), blocks_, found->second);
  return found->second->block;
}

std::optional<bool> BlockCache::AskFilter(const std::string& name, const BlockFilter::Probe& probe,
                                          const std::shared_ptr<const void>& owner) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const Filtered* filtered = filters_.Find(name);
  if (filtered == nullptr) return true;
  if (filtered->owner != owner) return std::nullopt;
  return filtered->filter->MayContain(probe);
}

bool BlockCache::MayContain(const std::string& name, const std::string& path, const BlockFilter::Probe& probe,
                            const std::shared_ptr<const void>& owner) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const BlockFilter* filter = FindFilter(name, path, owner);
  return filter == nullptr || filter->MayContain(probe);
}

bool BlockCache::FilterKnows(const std::string& name, const std::string& path,
                             const BlockFilter::Probe& probe, const std::shared_ptr<const void>& owner) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const BlockFilter* filter = FindFilter(name, path, owner);
  return filter != nullptr && filter->MayContain(probe);
}

const BlockFilter* BlockCache::FindFilter(const std::string& name, const std::string& path,
                                          const std::shared_ptr<const void>& owner) {
  Filtered* filtered = filters_.Find(name);
  if (filtered == nullptr) return nullptr;
  if (owner == nullptr || filtered->owner != owner) {
    if (!(filtered->stamp == StampOf(path))) {
      filters_.Erase(name);
      return nullptr;
    }
    filtered->owner = owner;
  }
  return filtered->filter.get();
}

void BlockCache::Put(const std::string& name, const std::shared_ptr<Block>& block,
                     const std::shared_ptr<const void>& owner, std::shared_ptr<const BlockFilter> filter) {
  const Cached cached = {name, block, owner, StampOf(block->File()->Path())};
  if (block->Index() != nullptr) filter = std::make_shared<BlockFilter>(*block->Index());
  const std::lock_guard<std::mutex> lock(mutex_);
  if (filter != nullptr) Remember(cached, std::move(filter));
  Insert(cached);
}

// Only what was surely read from the stamped file.
void BlockCache::Remember(const Cached& cached, std::shared_ptr<const BlockFilter> filter) {
  filters_.Erase(cached.name);
  if (!(cached.stamp.id == cached.block->FileId())) return;
  const size_t bytes = filter->MemoryUsed();
  filters_.Insert({cached.name, std::move(filter), cached.owner, cached.stamp}, bytes, kMaxBlockFilterBytes);
}

void BlockCache::Insert(Cached cached) {
  evicted_.Erase(cached.name);
  Blocks node;
  node.push_front(std::move(cached));
  const auto [entry, isNew] = index_.try_emplace(node.front().name, node.begin());
  if (!isNew) {
    blocks_.erase(entry->second);
    entry->second = node.begin();
  }
  blocks_.splice(blocks_.begin(), node);
  while (index_.size() > capacity_) {
    const Cached& last = blocks_.back();
    if (last.block->Index() != nullptr && last.stamp.id == last.block->FileId()) {
      const size_t bytes = last.block->Index()->MemoryUsed();
      evicted_.Insert({last.name, last.block->Index(), last.stamp}, bytes, kMaxEvictedIndexBytes);
    }
    index_.erase(last.name);
    blocks_.pop_back();
  }
}

void BlockCache::Erase(const std::string& name) {
  const std::lock_guard<std::mutex> lock(mutex_);
  evicted_.Erase(name);
  filters_.Erase(name);
  const auto found = index_.find(name);
  if (found == index_.end()) return;
  blocks_.erase(found->second);
  index_.erase(found);
}

void BlockCache::Clear() {
  const std::lock_guard<std::mutex> lock(mutex_);
  evicted_.Clear();
  filters_.Clear();
  index_.clear();
  blocks_.clear();
}

}  // namespace Kestrun
