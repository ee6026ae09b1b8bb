#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <iostream>

#include "inspect/escape.h"
#include "inspect/store_directory.h"
#include "inspect/store_stat.h"
#include "kestrun/status.h"
#include "tools/commands.h"
#include "tools/failure.h"
#include "tools/json_bytes.h"
#include "tools/store.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

struct RemoveOptions : CommonOptions {
  bool yes = false;
};

Inspect::StoreStat StatOf(const CommonOptions& options) {
  Inspect::StoreStat stat;
  std::string why;
  if (!Inspect::CollectStat(options.store, options.PageSize(), static_cast<uint64_t>(std::time(nullptr)),
                            &stat, &why)) {
    throw StoreFailure(kStatusOpenFailed, Inspect::Printable(options.store) + ": " + why);
  }
  return stat;
}

// An empty log is left alone: flushing it would make a block without entries.
int Flush(const CommonOptions& options) {
  const auto store = OpenStore(options, Access::Existing);
  const uint64_t records = StatOf(options).log.counts.entries;
  if (records != 0) FlushLog(*store);
  if (options.json) {
    WriteJsonLine({{"flushed", records}});
  } else {
    WriteLine(records == 0 ? "the log is empty"
                           : "flushed " + std::to_string(records) + (records == 1 ? " record" : " records"));
  }
  return kExitDone;
}

Json JsonOfBlocks(const Inspect::StoreStat& stat) {
  return {{"blocks", stat.ListedBlocks()}, {"bytes", stat.ListedBlockBytes()}};
}

std::string TextOfBlocks(const Inspect::StoreStat& stat) {
  const uint64_t blocks = stat.ListedBlocks();
  return std::to_string(blocks) + (blocks == 1 ? " block, " : " blocks, ") +
         std::to_string(stat.ListedBlockBytes()) + " bytes";
}

int Compact(const CommonOptions& options) {
  constexpr uint64_t kMinBlocks = 4;
  const auto store = OpenStore(options, Access::Existing);
  const Inspect::StoreStat before = StatOf(options);
  MustSucceed("merging the blocks", [&] { return store->ForceCompact(); });
  const Inspect::StoreStat after = StatOf(options);
  if (before.ListedBlocks() < kMinBlocks) {
    PrintMessage("kestrun: fewer than 4 blocks are not merged");
  }
  if (options.json) {
    WriteJsonLine({{"before", JsonOfBlocks(before)}, {"after", JsonOfBlocks(after)}});
  } else {
    WriteLine("before: " + TextOfBlocks(before));
    WriteLine("after:  " + TextOfBlocks(after));
  }
  return kExitDone;
}

int Clear(const CommonOptions& options) {
  const auto store = OpenStore(options, Access::Existing);
  MustSucceed("emptying the store", [&] { return store->Clear(); });
  if (options.json) WriteJsonLine({{"cleared", true}});
  return kExitDone;
}

bool Confirm(const std::string& question) {
  PrintMessage(question + " [y/N]");
  std::string answer;
  std::getline(std::cin, answer);
  return answer == "y" || answer == "Y" || answer == "yes" || answer == "Yes" || answer == "YES";
}

// Refuses what holds no store: the library would delete any directory.
int Remove(const RemoveOptions& options) {
  const std::string shown = Inspect::Printable(options.store);
  std::string why;
  const auto files = Inspect::ListStore(options.store, &why);
  if (!files) throw StoreFailure(kStatusOpenFailed, shown + ": no store there (" + why + ")");
  if (!files->HoldsPartOfStore()) {
    throw StoreFailure(kStatusOpenFailed, shown + ": the directory holds no store", "Nothing was removed.");
  }
  if (!options.yes) {
    if (isatty(STDIN_FILENO) != 1) {
      throw UsageError("remove asks on a terminal only; give --yes to remove " + shown +
                       " without being asked");
    }
    std::string others;
    if (!files->others.empty()) {
      others = ", and " + std::to_string(files->others.size()) +
               " files or directories in it that are not the store's";
    }
    if (!Confirm("Remove the store " + shown + others + "?")) {
      PrintMessage("kestrun: nothing was removed");
      return kExitUsage;
    }
  }
  MustSucceed("removing " + shown, [&] { return LSDBImpl::Remove(options.store); });
  if (options.json) WriteJsonLine({{"removed", true}});
  return kExitDone;
}

}  // namespace

void AddMaintenanceCommands(const Program& program) {
  const auto flush = std::make_shared<CommonOptions>();
  CLI::App* command = AddCommand(program.app, "flush", "move the entries of the log into a block",
                                 flush.get(), program.chosen, [flush] { return Flush(*flush); });
  AddWalSize(command, flush.get());

  const auto compact = std::make_shared<CommonOptions>();
  command = AddCommand(program.app, "compact", "merge the blocks and drop what is deleted or expired",
                       compact.get(), program.chosen, [compact] { return Compact(*compact); });
  AddWalSize(command, compact.get());

  const auto clear = std::make_shared<CommonOptions>();
  command = AddCommand(program.app, "clear", "empty a store; its record types stay", clear.get(),
                       program.chosen, [clear] { return Clear(*clear); });
  AddWalSize(command, clear.get());

  const auto remove = std::make_shared<RemoveOptions>();
  command = AddCommand(program.app, "remove", "delete the directory of a store with all that is in it",
                       remove.get(), program.chosen, [remove] { return Remove(*remove); });
  command->add_flag("--yes", remove->yes, "do not ask");
}

}  // namespace Kestrun::Tools
