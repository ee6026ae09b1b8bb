// engine/manifest_filter.h: the key filter that the manifest keeps for a block.
#pragma once

#include <cstdint>
#include <vector>

#include "block/block.h"

namespace Kestrun {

// A filter over the keys of `block` in [MinKey, MaxKey) and over the primary of each key that has one of its
// own, so that a search for a primary finds the blocks that hold any of its keys. A primary counts once for
// each of its keys. Fails only for a block with a table, with a status of
// BlockPages::Load. May throw std::bad_alloc.
uint32_t BuildManifestFilter(const Block& block, std::vector<uint8_t>* filter);

}  // namespace Kestrun
