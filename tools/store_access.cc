#include "tools/store_access.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "format/wal_reader.h"
#include "inspect/escape.h"
#include "inspect/locate.h"
#include "inspect/read_only_file.h"
#include "inspect/store_directory.h"
#include "inspect/type_guess.h"
#include "kestrun/status.h"
#include "tools/bytes_text.h"
#include "tools/diagnostics.h"
#include "tools/failure.h"
#include "tools/quantities.h"

namespace Kestrun::Tools {
namespace {

constexpr uint64_t kRecordHeader = sizeof(WalRecord);

// The size of the log that is there; 0 without one.
uint64_t LogSizeOnDisk(const std::string& path) {
  std::string why;
  const auto file = Inspect::ReadOnlyFile::Open(Inspect::LogPath(path), &why);
  return file ? file->Size() : 0;
}

// With a status of ours where the file system alone decides.
[[noreturn]] void FailToOpen(uint32_t status, const std::string& path) {
  throw StoreFailure(status, ShownPath(path), path);
}

}  // namespace

std::string ShownPath(const std::string& path) {
  return Inspect::Printable(path);
}

void Require(uint32_t status, const std::string& what, const std::string& path) {
  if (status != kStatusOk) throw StoreFailure(status, what, path);
}

namespace {

Inspect::StoreDirectory List(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    const bool missing = errno == ENOENT;
    throw StoreFailure(missing ? kStatusStoreMissing : kStatusNoPermission,
                       ShownPath(path) + ": " + std::strerror(errno));
  }
  if (!S_ISDIR(status.st_mode)) throw StoreFailure(kStatusNotAStore, ShownPath(path) + " is no directory");
  std::string why;
  auto files = Inspect::ListStore(path, &why);
  if (!files) throw StoreFailure(kStatusNoPermission, ShownPath(path) + ": " + why);
  const bool empty = !files->HoldsPartOfStore() && files->blocks.empty() && files->others.empty() &&
                     files->legacy.empty() && !files->hasSchema;
  if (empty) throw StoreFailure(kStatusStoreMissing, ShownPath(path) + ": the directory is empty");
  return *files;
}

}  // namespace

void RequireStoreFiles(const std::string& path) {
  const Inspect::StoreDirectory files = List(path);
  if (files.HoldsStore()) return;
  throw StoreFailure(kStatusNotAStore,
                     ShownPath(path) + ": " +
                         (!files.HoldsPartOfStore() ? std::string("the directory holds no store")
                                                    : std::string("the store lacks its ") +
                                                          (files.hasLog ? kManifestFileName : kWalFileName)));
}

void RequirePartOfStore(const std::string& path) {
  if (List(path).HoldsPartOfStore()) return;
  throw StoreFailure(kStatusNotAStore,
                     ShownPath(path) + ": the directory holds neither a log nor a manifest");
}

void RequireAnyPartOfStore(const std::string& path) {
  const Inspect::StoreDirectory files = List(path);
  if (files.HoldsPartOfStore() || !files.blocks.empty()) return;
  throw StoreFailure(kStatusNotAStore, ShownPath(path) + ": the directory holds no part of a store");
}

std::unique_ptr<Snapshot> OpenSnapshot(const std::string& path) {
  std::unique_ptr<Snapshot> snapshot;
  if (const uint32_t status = Snapshot::Open(path, &snapshot); status != kStatusOk) {
    // A reader is not asked for space or permission to write.
    throw StoreFailure(status, ShownPath(path));
  }
  return snapshot;
}

void RequireWholeLog(const std::string& path, const std::string& what) {
  const std::string damage = TakeLogDamage();
  if (!damage.empty()) throw DamageFound(path, ShownPath(path) + ": " + what + ": " + damage);
}

std::unique_ptr<Cursor> OpenCursor(const Snapshot& snapshot, const Range& range) {
  std::unique_ptr<Cursor> cursor;
  Require(snapshot.NewCursor(range, &cursor), "reading the entries");
  return cursor;
}

void RequireTold(const Invocation& line, const std::string& key) {
  RequireWholeLog(line.Store(), "whether the key \"" + Inspect::Printable(key) + "\" is there can't be told");
}

void RequireNewest(const Invocation& line) {
  RequireWholeLog(line.Store(), "there may be a newer entry of the key");
}

std::string ReadValue(const Invocation& line, const std::string& key) {
  const auto snapshot = OpenSnapshot(line.Store());
  std::optional<std::string> value;
  Require(snapshot->Get(key, &value),
          ShownPath(line.Store()) + ": reading the key \"" + Inspect::Printable(key) + "\"");
  if (value) return *std::move(value);
  RequireTold(line, key);
  const auto place = Inspect::LocateKey(line.Store(), key);
  throw NotFound("key \"" + Inspect::Printable(key) + "\" " +
                 (!place           ? "is not in the store"
                  : place->deleted ? "is deleted"
                                   : "has expired"));
}

StoreOptions OptionsOf(const Invocation& line, Access access) {
  StoreOptions options;
  options.logSize = LogSizeOf(line).value_or(options.logSize);
  // A log that is there keeps its size, and is only extended where that is asked for.
  const uint64_t there = LogSizeOnDisk(line.Store());
  if (!line.Has("--log-size") && there > kWalFirstRecord) {
    options.logSize = static_cast<uint32_t>(std::min<uint64_t>(there, UINT32_MAX));
  }
  options.createIfMissing = access == Access::Create;
  options.autoCompact = false;  // the program is gone before that would pay
  return options;
}

std::unique_ptr<Store> OpenStore(const Invocation& line, Access access) {
  std::unique_ptr<Store> store;
  const uint32_t status = Store::Open(line.Store(), OptionsOf(line, access), &store);
  if (status != kStatusOk) FailToOpen(status, line.Store());
  return store;
}

namespace {

// A store that has lost the file of its record types would count their numbers from 1 again, and
// its older records would be read as something else. Without that file, some thousand values
// tell whether there were any.
void RequireRecordTypes(const std::string& path) {
  constexpr int kLookedAt = 4096;
  std::string damage;
  const auto known = Inspect::ReadRecordTypeTexts(path, &damage);
  const std::string name = ShownPath(path) + ": ";
  const std::string advice =
      "kestrun recover STORE NEW makes a store that has the record types as far as its values tell "
      "them.";
  if (!damage.empty()) {
    throw StoreFailure(kStatusRecordTypeUnknown, name + kSchemaFileName + " is damaged: " + damage, "",
                       advice);
  }
  if (!known.empty()) return;
  std::unique_ptr<Snapshot> snapshot;
  if (Snapshot::Open(path, &snapshot) != kStatusOk) return;  // a new store, or what opening it tells
  Inspect::TypeGuess guess({});
  const auto cursor = OpenCursor(*snapshot, Range::All());
  int looked = 0;
  for (cursor->SeekToFirst(); cursor->Valid() && looked < kLookedAt; cursor->Next(), ++looked) {
    std::string_view value;
    if (cursor->Value(&value) == kStatusOk) guess.Add(value);
  }
  for (const Inspect::GuessedType& type : guess.Guess()) {
    if (!guess.IsLikely(type)) continue;
    throw StoreFailure(kStatusRecordTypeUnknown,
                       name + "there are values that seem to be records of the type number " +
                           std::to_string(type.id) + ", but " + kSchemaFileName + " names no type",
                       "", advice);
  }
}

}  // namespace

std::unique_ptr<RecordStore> OpenRecordStore(const Invocation& line, Access access) {
  RequireRecordTypes(line.Store());
  std::unique_ptr<RecordStore> store;
  const uint32_t status = RecordStore::Open(line.Store(), OptionsOf(line, access), &store);
  if (status != kStatusOk) FailToOpen(status, line.Store());
  return store;
}

uint64_t LogCapacity(const Invocation& line) {
  const uint64_t size =
      std::max<uint64_t>(OptionsOf(line, Access::Create).logSize, LogSizeOnDisk(line.Store()));
  return size <= kWalFirstRecord ? 0 : size - kWalFirstRecord;
}

void RequireRoom(const Invocation& line, uint64_t keySize, uint64_t valueSize) {
  const uint64_t needed = kRecordHeader + keySize + valueSize;
  const uint64_t capacity = LogCapacity(line);
  if (needed <= capacity) return;
  throw StoreFailure(kStatusWalFull,
                     "an entry of " + std::to_string(needed) +
                         " bytes does not fit into the log, which holds " + std::to_string(capacity),
                     "", "Give --log-size " + std::to_string(needed + kWalFirstRecord) + " or more.");
}

}  // namespace Kestrun::Tools
