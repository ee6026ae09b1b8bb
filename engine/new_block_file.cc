#include "engine/new_block_file.h"

#include <cstdio>

#include "block/block_format.h"
#include "kestrun/status.h"
#include "storage/block_name.h"
#include "storage/file_birth.h"
#include "storage/os_file.h"

namespace Kestrun {

namespace {

// Far more than can be taken by chance; a host whose rand is constant must not stop here for ever.
constexpr int kDraws = 1000;

}  // namespace

// Processes that start in the same second draw the same names.
uint32_t NewBlockFile::Claim(const std::string& directory, bool shared) {
  for (int draw = 0; draw < kDraws; ++draw) {
    name_ = MakeBlockFileName();
    if (shared) name_ = SetApart(name_);
    path_ = directory + "/" + name_ + kBlockFileSuffix;
    if (ClaimFileName(path_)) {
      kept_ = false;
      return kStatusOk;
    }
  }
  return kStatusOpenFailed;
}

NewBlockFile::~NewBlockFile() {
  if (!kept_) IgnoreStatus(std::remove(path_.c_str()));  // Clear removes what stays
}

}  // namespace Kestrun
