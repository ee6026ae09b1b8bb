// tools/store.h: opens stores for the commands and reads their entries.
//
// Every call that another process's lock refuses is tried again for about two seconds.
//
// Failure: throws UsageError and StoreFailure.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "kestrun/lsdb.h"
#include "kestrun/series.h"
#include "tools/options.h"

namespace Kestrun::Tools {

enum class Access {
  Existing,  // the store must be there
  Create,    // it is made when it is not
};

std::unique_ptr<LSDBImpl> OpenStore(const CommonOptions& options, Access access);
// Creates the store when it is not there.
std::unique_ptr<Series> OpenSeries(const CommonOptions& options);

// Throws unless there is a store that can be opened without making it anew.
void RequireStore(const std::string& path);

// The bytes that the log which OpenStore would open, or make, leaves for entries.
uint64_t LogCapacity(const CommonOptions& options);

// The key of an argument; `what` names the argument. A key is 1 to 65,535 bytes.
Key ParseKey(const std::string& text, const std::string& what);

// Calls `operation` until its status is none of a lock or time is up.
uint32_t WithRetries(const std::function<uint32_t()>& operation);
// The same; throws StoreFailure unless the status is kStatusOk. `what` names what was tried.
void MustSucceed(const std::string& what, const std::function<uint32_t()>& operation);

// Whether an entry of this size fits into an empty log; throws StoreFailure with kStatusWalFull if not.
void RequireRoom(const CommonOptions& options, uint64_t keySize, uint64_t valueSize);

enum class EntryState { Missing, Deleted, Expired, Live };

// A key that is deleted in the log is told as Missing: the store does not keep the two apart.
EntryState FindEntry(LSDBImpl& store, const Key& key, DataEntry* entry);

// The bytes of a value.
class StoredValue {
 public:
  StoredValue() = default;
  StoredValue(const void* bytes, uint32_t size) : bytes_(bytes), size_(size) {}

  std::string_view Bytes() const { return {static_cast<const char*>(bytes_.get()), size_}; }
  // A malloc buffer that the caller frees; null for an empty value.
  void* Release() { return const_cast<void*>(bytes_.release()); }

 private:
  struct Free {
    void operator()(const void* bytes) const { std::free(const_cast<void*>(bytes)); }
  };
  std::unique_ptr<const void, Free> bytes_;
  uint32_t size_ = 0;
};

// `*value` is set when the result is Live.
EntryState ReadValue(LSDBImpl& store, const Key& key, StoredValue* value);

// Keys that begin with the byte 0xFF have no place in a block: a flush drops them.
bool IsDroppedByFlush(std::string_view key);

// Flushes the log and keeps the entries that a flush drops.
void FlushLog(LSDBImpl& store);

}  // namespace Kestrun::Tools
