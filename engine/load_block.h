// engine/load_block.h: how the older face takes what can't be loaded.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "block/block_cache.h"

namespace Kestrun {

// What a load that failed with `status` means for later ones: kStatusOk when trying again is of no use, because the
// file is gone, or was corrupt and is removed here; `status` otherwise. Compat: corrupt-block-deleted
uint32_t ClassifyLoadFailure(uint32_t status, const std::string& path);

// BlockCache::GetOrLoad; `*failure` is what ClassifyLoadFailure makes of it.
std::shared_ptr<Block> LoadBlock(BlockCache& cache, const std::string& name, const std::string& path,
                                 const std::shared_ptr<const void>& owner, uint32_t* failure);

}  // namespace Kestrun
