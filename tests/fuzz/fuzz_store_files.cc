#include "tests/fuzz/fuzz_store_files.h"

#include "kestrun/lsdb.h"
#include "kestrun/status.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_operations.h"

namespace Kestrun::Fuzzing {

// A log and a manifest that are made anew begin with nothing known about them.
void StoreFiles::StartOver() {
  directory_.RemoveMadeBlocks();
  directory_.Remove("manifest_v5.next");
  PutLog(std::string());
  PutManifest(std::string());
  Testing::FuzzCheck(LSDBImpl::Open(Path(), {kFuzzWalSize, 0}, nullptr) == kStatusOk, "an empty store");
}

void StoreFiles::PutSideFile(const std::string& bytes) {
  if (bytes.empty()) {
    directory_.Remove("manifest_v5.next");
  } else {
    directory_.Put("manifest_v5.next", bytes);
  }
}

}  // namespace Kestrun::Fuzzing
