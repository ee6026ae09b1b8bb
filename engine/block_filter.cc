#include "engine/block_filter.h"

#include "format/key_filter.h"

namespace Kestrun {

std::vector<uint8_t> BuildBlockFilter(const Block& block) {
  std::vector<uint32_t> hashes;
  block.ForEachInRange(Key::MinKey(), Key::MaxKey(), [&hashes](const Key& key) {
    hashes.push_back(KeyHash(key));
    const Key primary = key.GetPrimary();
    if (key != primary) hashes.push_back(KeyHash(primary));
    return false;
  });
  return BuildKeyFilter(hashes);
}

}  // namespace Kestrun
