#include "tests/support/merge_step.h"

#include <atomic>
#include <memory>

#include "base/catch_bad_alloc.h"
#include "format/manifest_format.h"
#include "format/wal_format.h"
#include "kestrun/status.h"
#include "store/store_impl.h"

namespace Kestrun::Testing {
namespace {

constexpr uint32_t kUnit = 2048;  // what is taken for the size of one flush

int mergesDone = 0;

}  // namespace

uint32_t MergeOnce(const std::string& path) {
  return CatchBadAlloc([&]() -> uint32_t {
    const Diagnostics& diagnostics = Diagnostics::HandlerOnly();
    Manifest* manifest = nullptr;
    uint32_t status = Manifest::Open(path + "/" + kManifestFileName, &manifest, diagnostics);
    if (status != kStatusOk) return status;
    std::unique_ptr<Manifest> openManifest(manifest);
    Wal* log = nullptr;
    status = Wal::Open(path + "/" + kWalFileName, {kUnit, 0}, &log, diagnostics, ShortLog::Keep);
    if (status != kStatusOk) return status;
    if (log == nullptr) return kStatusWalOpenFailed;
    std::unique_ptr<Wal> openLog(log);

    StoreOptions options;
    options.logSize = kUnit;
    options.busyTimeout = 0;
    Store::Impl store(path, options, std::move(openLog), std::move(openManifest));
    const std::atomic<bool> stop{false};
    bool done = false;
    status = store.MergeNext(&stop, &done);
    if (done) ++mergesDone;
    return status;
  });
}

int MergesDone() {
  return mergesDone;
}

}  // namespace Kestrun::Testing
