#include "store/damaged_log.h"

#include <algorithm>
#include <cerrno>
#include <string>

#include "kestrun/status.h"
#include "storage/directory.h"
#include "storage/file_creation.h"
#include "store/store_impl.h"

namespace Kestrun {
namespace {

constexpr int kMaxCopies = 1000;
constexpr char kCopySuffix[] = ".damaged-";

}  // namespace

uint32_t SaveUnreachable(const Core& core, uint32_t begin, uint32_t end) {
  const LogBytes log = core.wal.Bytes();
  end = std::min(end, log.capacity);
  if (std::all_of(log.base + begin, log.base + end, [](uint8_t byte) { return byte == 0; })) return kStatusOk;

  for (int number = 1; number <= kMaxCopies; ++number) {
    const std::string path = core.path + "/" + kWalFileName + kCopySuffix + std::to_string(number);
    errno = 0;
    if (!CreateExclusive(path)) continue;
    std::shared_ptr<OsFile> file;
    const auto size = static_cast<ssize_t>(end - begin);
    if (OsFile::Open(path, kOpenReadWrite, &file) != kStatusOk ||
        file->PWriteFully(log.base + begin, end - begin, 0) != size) {
      TellReason(core.diagnostics, "Failed to save the unreadable end of the log to", path, errno);
      IgnoreStatus(std::remove(path.c_str()));  // an incomplete copy helps nobody
      return kStatusCreateFailed;
    }
    if (file->Sync() != 0 || !SyncDirectory(core.path)) return kStatusSyncFailed;
    core.diagnostics.Printf("The log is damaged at byte %u; what follows was saved in %s\n", begin,
                            path.c_str());
    return kStatusOk;
  }
  return kStatusCreateFailed;
}

}  // namespace Kestrun
