// tools/store_access.h: opens stores for the commands. Reading commands go through Snapshot::Open, which can
// change nothing; writing commands through Store::Open.
//
// Failure: throws StoreFailure.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "kestrun/record_store.h"
#include "kestrun/snapshot.h"
#include "kestrun/store.h"
#include "tools/command_spec.h"

namespace Kestrun::Tools {

// Throws StoreFailure with `what` unless the status is kStatusOk. `path` is where the system
// is asked for a reason.
void Require(uint32_t status, const std::string& what, const std::string& path = std::string());

// For commands that look at the files by themselves: throw StoreFailure where there is no directory, or where
// it holds no whole store, neither log nor manifest, or not even a block.
void RequireStoreFiles(const std::string& path);
void RequirePartOfStore(const std::string& path);
void RequireAnyPartOfStore(const std::string& path);

std::unique_ptr<Snapshot> OpenSnapshot(const std::string& path);
// Throws DamageFound where the snapshot that was opened last does not show all of the log's records. `what`
// says what that means for the command.
void RequireWholeLog(const std::string& path, const std::string& what);
std::unique_ptr<Cursor> OpenCursor(const Snapshot& snapshot, const Range& range);
// The same for a key that was not found, and after one that was shown.
void RequireTold(const Invocation& line, const std::string& key);
void RequireNewest(const Invocation& line);
// The value of a key; throws NotFound, which says how its entry ended, where it is not alive.
std::string ReadValue(const Invocation& line, const std::string& key);

enum class Access {
  Existing,  // the store must be there
  Create,    // it is made when it is not
};
StoreOptions OptionsOf(const Invocation& line, Access access);
std::unique_ptr<Store> OpenStore(const Invocation& line, Access access);
std::unique_ptr<RecordStore> OpenRecordStore(const Invocation& line, Access access);

// Whether an entry of this size fits into an empty log; throws StoreFailure with kStatusWalFull if not.
void RequireRoom(const Invocation& line, uint64_t keySize, uint64_t valueSize);
// The bytes for entries of the log that OpenStore would open or make.
uint64_t LogCapacity(const Invocation& line);

// "STORE" as it may be shown.
std::string ShownPath(const std::string& path);

}  // namespace Kestrun::Tools
