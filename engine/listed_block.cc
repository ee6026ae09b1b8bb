#include "engine/listed_block.h"

namespace Kestrun {

std::shared_ptr<const BlockEntry> FindListedBlock(Manifest& manifest, const std::string& name) {
  for (const std::shared_ptr<BlockEntry>& entry : manifest.Entries()) {
    if (entry->name == name) return entry;
  }
  return nullptr;
}

}  // namespace Kestrun
