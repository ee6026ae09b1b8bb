// flush, compact, clear, remove, backup.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "format/manifest_reader.h"
#include "inspect/escape.h"
#include "inspect/store_directory.h"
#include "kestrun/status.h"
#include "tools/bytes_text.h"
#include "tools/diagnostics.h"
#include "tools/failure.h"
#include "tools/json_writer.h"
#include "tools/output_file.h"
#include "tools/progress.h"
#include "tools/quantities.h"
#include "tools/store_access.h"
#include "tools/streams.h"

namespace Kestrun::Tools {
namespace {

StoreStats StatsOf(Store& store, const Invocation& line) {
  StoreStats stats;
  Require(store.GetStats(&stats), ShownPath(line.Store()) + ": counting");
  return stats;
}

void AddBlocks(const StoreStats& stats, JsonWriter* json) {
  json->BeginObject().Name("blocks").Number(stats.blocks).Name("bytes").Number(stats.blockBytes).EndObject();
}

std::string TextOfBlocks(const StoreStats& stats) {
  return Counted(stats.blocks, "block, ", "blocks, ") + std::to_string(stats.blockBytes) + " bytes";
}

// The keys that are alive.
uint64_t CountAlive(const Snapshot& snapshot) {
  const auto cursor = OpenCursor(snapshot, Range::All());
  Progress progress("counting", 0, "entries");
  uint64_t keys = 0;
  for (cursor->SeekToFirst(); cursor->Valid(); cursor->Next()) progress.Update(0, ++keys);
  Require(cursor->Status(), "counting the entries");
  return keys;
}

// What a store put aside of a damaged log is not part of it any more, and may be all that is left of entries.
void TellPutAside(const Invocation& line, const char* fate) {
  std::string why;
  const auto files = Inspect::ListStore(line.Store(), &why);
  if (!files) return;
  for (const std::string& name : files->damagedLogs) {
    PrintMessage(std::string("kestrun ") + line.command->name + ": " + Inspect::Printable(name) +
                 ", which was put aside of a damaged log, " + fate);
  }
}

// Deletes the files of the store that `files` lists; the log goes last, so that what a killed removal leaves
// is still known as part of a store.
uint64_t RemoveFiles(const std::string& store, const Inspect::StoreDirectory& files) {
  std::vector<std::string> names;
  for (const std::string& block : files.blocks) {
    if (IsBlockName(block)) names.push_back(block + kBlockFileSuffix);
  }
  names.insert(names.end(), files.damagedLogs.begin(), files.damagedLogs.end());
  names.insert(names.end(), files.legacy.begin(), files.legacy.end());
  if (files.hasSchema) names.emplace_back(kSchemaFileName);
  if (files.hasUnfinishedManifest) names.push_back(std::string(kManifestFileName) + kManifestJournalSuffix);
  if (files.hasManifest) names.emplace_back(kManifestFileName);
  if (files.hasLog) names.emplace_back(kWalFileName);
  for (const std::string& name : names) {
    if (unlink((store + "/" + name).c_str()) != 0 && errno != ENOENT) {
      throw StoreFailure(
          errno == EACCES || errno == EPERM || errno == EROFS ? kStatusNoPermission : kStatusOpenFailed,
          ShownPath(store) + ": " + Inspect::Printable(name) + " can't be removed: " + std::strerror(errno));
    }
  }
  return names.size();
}

}  // namespace

int RunFlush(const Invocation& line) {
  const auto store = OpenStore(line, Access::Existing);
  const uint64_t entries = StatsOf(*store, line).logEntries;
  Require(store->Flush(), ShownPath(line.Store()) + ": flushing the log", line.Store());
  JsonWriter json;
  if (IsJson(line)) WriteJsonLine(json.BeginObject().Name("flushed").Number(entries).EndObject());
  PrintAccount(entries == 0 ? "the log is empty" : "flushed " + Counted(entries, "entry", "entries"));
  return kExitDone;
}

int RunCompact(const Invocation& line) {
  StoreStats before;
  StoreStats after;
  {
    const Waiting waiting("compacting");
    const auto store = OpenStore(line, Access::Existing);
    before = StatsOf(*store, line);
    Require(store->Compact(), ShownPath(line.Store()) + ": merging log and blocks", line.Store());
    after = StatsOf(*store, line);
  }
  if (IsJson(line)) {
    JsonWriter json;
    json.BeginObject().Name("before");
    AddBlocks(before, &json);
    json.Name("after");
    AddBlocks(after, &json);
    WriteJsonLine(json.EndObject());
  }
  PrintAccount("before: " + TextOfBlocks(before) + ", " + Counted(before.logEntries, "entry", "entries") +
               " in the log");
  PrintAccount("after:  " + TextOfBlocks(after));
  return kExitDone;
}

int RunClear(const Invocation& line) {
  const uint64_t keys =
      line.Has("--dry-run") || !line.Has("--yes") ? CountAlive(*OpenSnapshot(line.Store())) : 0;
  if (line.Has("--dry-run")) {
    JsonWriter json;
    if (IsJson(line)) WriteJsonLine(json.BeginObject().Name("wouldClear").Number(keys).EndObject());
    PrintAccount("would delete " + Counted(keys, "entry", "entries"));
    RequireWholeLog(line.Store(), "there may be more");
    return kExitDone;
  }
  if (const std::string damage = TakeLogDamage(); !damage.empty()) {
    PrintMessage("kestrun clear: there may be more entries, which go, too: " + damage);
  }
  Confirm("delete all " + Counted(keys, "entry", "entries") + " of " + ShownPath(line.Store()),
          "nothing was deleted", line.Has("--yes"));
  const auto store = OpenStore(line, Access::Existing);
  Require(store->Clear(), ShownPath(line.Store()) + ": emptying the store", line.Store());
  JsonWriter json;
  if (IsJson(line)) WriteJsonLine(json.BeginObject().Name("cleared").Bool(true).EndObject());
  PrintAccount("emptied " + ShownPath(line.Store()));
  TellPutAside(line, "stays");
  return kExitDone;
}

// Looks at the path itself before anything else: a symbolic link is somebody's pointer to another place.
int RunRemove(const Invocation& line) {
  const std::string shown = ShownPath(line.Store());
  std::string path = line.Store();
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0) {
    throw StoreFailure(errno == ENOENT ? kStatusStoreMissing : kStatusNoPermission,
                       shown + ": " + std::strerror(errno));
  }
  if (S_ISLNK(status.st_mode)) {
    throw StoreFailure(kStatusNotAStore, shown + " is a symbolic link", "",
                       "Nothing was removed; give the directory itself.");
  }
  if (!S_ISDIR(status.st_mode)) throw StoreFailure(kStatusNotAStore, shown + " is no directory");
  std::string why;
  const auto files = Inspect::ListStore(path, &why);
  if (!files) throw StoreFailure(kStatusNoPermission, shown + ": " + why);
  if (!files->HoldsPartOfStore()) {
    const bool empty =
        files->blocks.empty() && files->legacy.empty() && files->others.empty() && !files->hasSchema;
    throw StoreFailure(empty ? kStatusStoreMissing : kStatusNotAStore,
                       shown + ": the directory holds no store", "", "Nothing was removed.");
  }
  if (!files->HoldsStore() && !line.Has("--incomplete")) {
    throw StoreFailure(
        kStatusNotAStore,
        shown + ": the store lacks its " + (files->hasLog ? kManifestFileName : kWalFileName) + " and has " +
            Counted(files->blocks.size(), "block", "blocks"),
        "",
        "Nothing was removed; 'kestrun recover " + shown +
            " NEW' makes a new store of what can be read. Give --incomplete to remove it all the same.");
  }
  Confirm("remove the store " + shown, "nothing was removed", line.Has("--yes"));
  const uint64_t removed = RemoveFiles(path, *files);
  const bool gone = rmdir(path.c_str()) == 0;
  JsonWriter json;
  if (IsJson(line)) {
    WriteJsonLine(
        json.BeginObject().Name("removed").Bool(true).Name("directoryRemoved").Bool(gone).EndObject());
  }
  PrintAccount("removed " + Counted(removed, "file", "files") +
               (gone ? " and the directory" : "; the directory holds others and stays"));
  return kExitDone;
}

int RunBackup(const Invocation& line) {
  const std::string& target = line.positionals[1];
  if (target.empty()) throw UsageError("NEW is the directory of the copy and can't be empty");
  RequireOutside(line.Store(), target);
  {
    const Waiting waiting("copying");
    OpenSnapshot(line.Store());  // alone for what it tells about the log
    const auto store = OpenStore(line, Access::Existing);
    Require(store->Checkpoint(target), ShownPath(target) + ": copying " + ShownPath(line.Store()), target);
  }
  JsonWriter json;
  if (IsJson(line)) WriteJsonLine(json.BeginObject().Name("store").Bytes(target).EndObject());
  PrintAccount("copied " + ShownPath(line.Store()) + " to " + ShownPath(target));
  TellPutAside(line, "is not copied");
  RequireWholeLog(line.Store(), "the copy lacks what can't be read");
  return kExitDone;
}

}  // namespace Kestrun::Tools
