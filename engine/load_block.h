// engine/load_block.h: loads blocks for the older face, which passes over what is gone or corrupt.
//
// Threads: safe.
// Failure: statuses; may throw std::bad_alloc.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "block/block_cache.h"

namespace Kestrun {

// What a caller does about a load that failed with `status`. kStatusOk: pass over the block, because its file
// is gone, or was corrupt and is deleted here. `status` otherwise: a later load may succeed.
// Compat: corrupt-block-deleted, missing-block-passed-over
uint32_t ClassifyLoadFailure(uint32_t status, const std::string& path);

// BlockCache::GetOrLoad; null when loading fails, with what ClassifyLoadFailure makes of it as `*failure`.
std::shared_ptr<Block> LoadBlock(BlockCache& cache, const std::string& name, const std::string& path,
                                 const std::shared_ptr<const void>& owner, uint32_t* failure);

}  // namespace Kestrun
