#include "engine/load_block.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "kestrun/status.h"

namespace Kestrun {

uint32_t ClassifyLoadFailure(uint32_t status, const std::string& path) {
  if (status == kStatusBlockCorrupt) {
    IgnoreStatus(std::remove(path.c_str()));  // the block is lost either way
    return kStatusOk;
  }
  const bool gone = status == kStatusOpenFailed && access(path.c_str(), F_OK) != 0 && errno == ENOENT;
  return gone ? kStatusOk : status;
}

std::shared_ptr<Block> LoadBlock(BlockCache& cache, const std::string& name, const std::string& path,
                                 const std::shared_ptr<const void>& owner, uint32_t* failure) {
  uint32_t status = kStatusOk;
  std::shared_ptr<Block> block = cache.GetOrLoad(name, path, &status, owner);
  *failure = status == kStatusOk ? kStatusOk : ClassifyLoadFailure(status, path);
  return block;
}

}  // namespace Kestrun
