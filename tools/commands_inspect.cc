#include <sys/stat.h>

#include <chrono>
#include <ctime>
#include <thread>

#include "inspect/escape.h"
#include "inspect/store_stat.h"
#include "inspect/store_verify.h"
#include "kestrun/status.h"
#include "tools/commands.h"
#include "tools/dump_output.h"
#include "tools/failure.h"
#include "tools/json_bytes.h"
#include "tools/stat_output.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

uint64_t Now() {
  return static_cast<uint64_t>(std::time(nullptr));
}

[[noreturn]] void NoStore(const CommonOptions& options, const std::string& why) {
  throw StoreFailure(kStatusOpenFailed, Inspect::Printable(options.store) + ": no store there (" + why + ")",
                     "Check the path.");
}

int Stat(const CommonOptions& options) {
  Inspect::StoreStat stat;
  std::string why;
  if (!Inspect::CollectStat(options.store, options.PageSize(), Now(), &stat, &why)) NoStore(options, why);
  if (options.json) {
    WriteJsonLine(JsonOfStat(options.store, stat));
  } else {
    WriteStat(options.store, stat);
  }
  return kExitDone;
}

// A store that somebody writes to while it is read can look damaged, so damage is looked for again until it
// stands in files that were still meanwhile.
Inspect::VerifyReport VerifyQuiet(const CommonOptions& options, bool* quiet) {
  constexpr int kMaxTries = 4;
  constexpr auto kPause = std::chrono::milliseconds(20);
  for (int i = 1;; ++i) {
    const std::string before = Inspect::StoreFingerprint(options.store);
    Inspect::VerifyReport report;
    std::string why;
    if (!Inspect::VerifyStore(options.store, options.PageSize(), Now(), &report, &why)) NoStore(options, why);
    if (report.Sound()) {
      *quiet = true;
      return report;
    }
    std::this_thread::sleep_for(kPause);
    *quiet = Inspect::StoreFingerprint(options.store) == before;
    if (*quiet || i == kMaxTries) return report;
  }
}

int Verify(const CommonOptions& options) {
  bool quiet = true;
  const Inspect::VerifyReport report = VerifyQuiet(options, &quiet);
  if (options.json) {
    WriteJsonLine(JsonOfReport(report));
  } else {
    WriteReport(report);
  }
  if (!quiet)
    PrintMessage("kestrun: the store was written to meanwhile; verify it again when it is not in use");
  return report.Sound() ? kExitDone : kExitNotFound;
}

int Dump(const CommonOptions& options) {
  struct stat status = {};
  if (::stat(options.store.c_str(), &status) != 0) NoStore(options, "there is no such file or directory");
  if (S_ISDIR(status.st_mode)) {
    std::string why;
    if (!DumpStore(options.store, options.PageSize(), options.json, &why)) NoStore(options, why);
  } else {
    DumpOneFile(options.store, options.PageSize(), options.json);
  }
  return kExitDone;
}

}  // namespace

void AddInspectCommands(const Program& program) {
  const auto stat = std::make_shared<CommonOptions>();
  AddPageSize(AddCommand(program.app, "stat", "tell what a store holds", stat.get(), program.chosen,
                         [stat] { return Stat(*stat); }),
              stat.get());

  const auto verify = std::make_shared<CommonOptions>();
  AddPageSize(AddCommand(program.app, "verify", "check every checksum, order and list of a store",
                         verify.get(), program.chosen, [verify] { return Verify(*verify); }),
              verify.get());

  const auto dump = std::make_shared<CommonOptions>();
  AddPageSize(AddCommand(program.app, "dump", "show a store, or one of its files, byte by byte", dump.get(),
                         program.chosen, [dump] { return Dump(*dump); }),
              dump.get());
}

}  // namespace Kestrun::Tools
