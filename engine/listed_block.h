// engine/listed_block.h: how the manifest lists a block.
#pragma once

#include <memory>
#include <string>

#include "storage/manifest.h"

namespace Kestrun {

// The entry of the block `name`, or null. The caller holds the manifest's lock. May throw std::bad_alloc.
std::shared_ptr<const BlockEntry> FindListedBlock(Manifest& manifest, const std::string& name);

}  // namespace Kestrun
