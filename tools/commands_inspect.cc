// stat, verify, dump.
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <optional>
#include <thread>

#include "inspect/store_directory.h"
#include "inspect/store_verify.h"
#include "kestrun/status.h"
#include "tools/bytes_text.h"
#include "tools/dump_output.h"
#include "tools/failure.h"
#include "tools/output_file.h"
#include "tools/progress.h"
#include "tools/quantities.h"
#include "tools/stat_output.h"
#include "tools/store_access.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

uint64_t Now() {
  return static_cast<uint64_t>(std::time(nullptr));
}

// A store that somebody writes to while it is read can look damaged, so damage is looked for again until it
// stands in files that were still meanwhile.
Inspect::VerifyReport VerifyQuiet(const Invocation& line, bool* quiet) {
  const Waiting waiting("verifying");
  constexpr int kMaxTries = 4;
  constexpr auto kPause = std::chrono::milliseconds(20);
  for (int i = 1;; ++i) {
    const std::string before = Inspect::StoreFingerprint(line.Store());
    Inspect::VerifyReport report;
    std::string why;
    if (!Inspect::VerifyStore(line.Store(), PageSizeOf(line).value_or(0), Now(), &report, &why)) {
      throw StoreFailure(kStatusNotAStore, ShownPath(line.Store()) + ": " + why);
    }
    if (!report.denied.empty()) {
      throw StoreFailure(kStatusNoPermission, ShownPath(line.Store()) + "/" + report.denied);
    }
    if (report.Sound()) {
      *quiet = true;
      return report;
    }
    std::this_thread::sleep_for(kPause);
    *quiet = Inspect::StoreFingerprint(line.Store()) == before;
    if (*quiet || i == kMaxTries) return report;
  }
}

}  // namespace

int RunStat(const Invocation& line) {
  PageSizeOf(line);
  RequirePartOfStore(line.Store());
  if (const std::string* path = line.Find("--html")) RequireOutside(line.Store(), *path);
  StatReport report;
  report.store = line.Store();
  report.now = Now();
  const uint64_t pageSize = PageSizeOf(line).value_or(0);
  std::string why;
  std::optional<Waiting> waiting("looking into the store");
  if (!Inspect::CollectStat(line.Store(), pageSize, report.now, &report.files, &why) ||
      !Inspect::CollectSpace(line.Store(), pageSize, report.now, &report.space, &why)) {
    throw StoreFailure(kStatusNotAStore, ShownPath(line.Store()) + ": " + why);
  }
  waiting.reset();
  if (const std::string* path = line.Find("--html")) {
    OutputFile file(*path);
    file.Write(StatPage(report));
    file.Commit();
    PrintAccount("wrote " + ShownPath(*path));
    if (!IsJson(line)) return kExitDone;
  }
  if (IsJson(line)) {
    WriteStatJson(report);
  } else {
    WriteStatText(report);
  }
  return kExitDone;
}

int RunVerify(const Invocation& line) {
  PageSizeOf(line);
  RequirePartOfStore(line.Store());
  bool quiet = true;
  const Inspect::VerifyReport report = VerifyQuiet(line, &quiet);
  if (IsJson(line)) {
    WriteVerifyJson(report);
  } else {
    WriteVerifyText(report);
  }
  if (!quiet) {
    PrintAccount("kestrun verify: the store was written to meanwhile; verify it again when it is not in use");
  }
  if (!report.Sound()) {
    PrintAccount("kestrun verify: 'kestrun recover " + ShownPath(line.Store()) +
                 " NEW' makes a new store of what can be read");
  }
  return report.Sound() ? kExitDone : kExitNotFound;
}

int RunDump(const Invocation& line) {
  const uint64_t pageSize = PageSizeOf(line).value_or(0);
  struct stat status = {};
  if (::stat(line.Store().c_str(), &status) != 0) {
    throw StoreFailure(errno == EACCES ? kStatusNoPermission : kStatusStoreMissing,
                       ShownPath(line.Store()) + ": " + std::strerror(errno), "", "Check the path.");
  }
  if (!S_ISDIR(status.st_mode)) {
    DumpOneFile(line.Store(), pageSize, IsJson(line));
    return kExitDone;
  }
  RequirePartOfStore(line.Store());
  std::string why;
  if (!DumpStore(line.Store(), pageSize, IsJson(line), &why)) {
    throw StoreFailure(kStatusNotAStore, ShownPath(line.Store()) + ": " + why);
  }
  return kExitDone;
}

}  // namespace Kestrun::Tools
