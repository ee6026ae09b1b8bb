#include "engine/pending_block_file.h"

#include <cstdio>

#include "format/block_format.h"
#include "kestrun/status.h"
#include "storage/block_name.h"
#include "storage/file_creation.h"
#include "storage/os_file.h"

namespace Kestrun {

namespace {

// Far more than can be taken by chance; a host whose rand is constant must not stop here for ever.
constexpr int kMaxNameAttempts = 1000;

}  // namespace

// Processes that start in the same second draw the same names.
uint32_t PendingBlockFile::Create(const std::string& directory, bool shared) {
  for (int draw = 0; draw < kMaxNameAttempts; ++draw) {
    name_ = MakeBlockFileName();
    if (shared) name_ = MakeUniqueAcrossProcesses(name_);
    path_ = directory + "/" + name_ + kBlockFileSuffix;
    if (CreateExclusive(path_)) {
      committed_ = false;
      return kStatusOk;
    }
  }
  return kStatusOpenFailed;
}

PendingBlockFile::~PendingBlockFile() {
  if (!committed_) IgnoreStatus(std::remove(path_.c_str()));  // Clear removes what stays
}

}  // namespace Kestrun
