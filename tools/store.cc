#include "tools/store.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <optional>
#include <thread>
#include <vector>

#include "format/wal_reader.h"
#include "inspect/escape.h"
#include "inspect/read_only_file.h"
#include "inspect/store_directory.h"
#include "kestrun/status.h"
#include "tools/failure.h"
#include "tools/key_range.h"

namespace Kestrun::Tools {
namespace {

constexpr uint32_t kDefaultWalSize = 4 << 20;
constexpr uint64_t kMaxWal = 4294967295;
constexpr uint64_t kRecordHeader = 40;
constexpr auto kPatience = std::chrono::seconds(2);
constexpr auto kPause = std::chrono::milliseconds(2);

struct LogOnDisk {
  uint64_t size = 0;
  bool holdsRecords = true;  // or may hold some
};

// Empty when there is no log that a store would keep: without room for its header it is made anew.
std::optional<LogOnDisk> FindLog(const std::string& path) {
  std::string why;
  const std::optional<Inspect::ReadOnlyFile> file = Inspect::ReadOnlyFile::Open(Inspect::LogPath(path), &why);
  if (!file || file->Size() <= kWalFirstRecord) return std::nullopt;
  Inspect::FileSource source(*file);
  const WalHeaderView header = ReadWalHeader(source);
  return LogOnDisk{file->Size(), !header.Usable() || header.header.used != kWalFirstRecord};
}

std::unique_ptr<LSDBImpl> Open(const std::string& path, uint64_t walSize) {
  LSDBConfig config = {};
  config.walSize = static_cast<uint32_t>(std::min(walSize, kMaxWal));
  LSDBImpl* store = nullptr;
  MustSucceed(Inspect::Printable(path), [&] { return LSDBImpl::Open(path, config, &store); });
  return std::unique_ptr<LSDBImpl>(store);
}

// An entry that a flush would drop.
struct Unflushed {
  Key key;
  StoredValue value;
  uint64_t expiry;
};

std::vector<Unflushed> CollectUnflushed(LSDBImpl& store) {
  std::vector<Unflushed> entries;
  KeyRange range;
  range.from = Key::MaxKey();
  for (const Key& key : ListKeys(store, range)) {
    DataEntry entry = {};
    StoredValue value;
    if (FindEntry(store, key, &entry) == EntryState::Live &&
        ReadValue(store, key, &value) == EntryState::Live) {
      entries.push_back({key, std::move(value), entry.timestamp + entry.ttl});
    }
  }
  return entries;
}

void Restore(LSDBImpl& store, const std::vector<Unflushed>& entries) {
  for (const Unflushed& entry : entries) {
    const auto now = static_cast<uint64_t>(std::time(nullptr));
    DataEntry present = {};
    if (entry.expiry < now || FindEntry(store, entry.key, &present) != EntryState::Missing) continue;
    const auto ttl = static_cast<uint32_t>(std::min<uint64_t>(entry.expiry - now, kMaxTtl));
    const std::string_view value = entry.value.Bytes();
    MustSucceed("writing a key back after the flush", [&] {
      return store.Insert(entry.key, ttl, value.data(), static_cast<uint32_t>(value.size()));
    });
  }
}

// Opening a log with a larger size than its own makes it anew, so what it holds must leave it first.
std::unique_ptr<LSDBImpl> Grow(const std::string& path, uint64_t oldSize, uint64_t newSize) {
  std::vector<Unflushed> unflushed;
  {
    const std::unique_ptr<LSDBImpl> store = Open(path, oldSize);
    unflushed = CollectUnflushed(*store);
    MustSucceed("flushing the log before it grows", [&] { return store->ResetWal(); });
  }
  std::unique_ptr<LSDBImpl> store = Open(path, newSize);
  Restore(*store, unflushed);
  return store;
}

}  // namespace

void RequireStore(const std::string& path) {
  std::string why;
  const std::optional<Inspect::StoreDirectory> files = Inspect::ListStore(path, &why);
  const std::string shown = Inspect::Printable(path);
  const std::string advice = "Check the path; 'kestrun put', 'append' and 'import' make a new store.";
  if (!files) throw StoreFailure(kStatusOpenFailed, shown + ": no store there (" + why + ")", advice);
  if (!files->HoldsPartOfStore()) {
    throw StoreFailure(kStatusOpenFailed, shown + ": the directory holds no store", advice);
  }
  if (!files->HoldsStore()) {
    throw StoreFailure(kStatusOpenFailed,
                       shown + ": the store lacks its " + (files->hasLog ? "manifest_v5" : "wal_v5"),
                       "Run 'kestrun verify' on the store to see what is left of it.");
  }
  if (!FindLog(path)) {
    throw StoreFailure(kStatusWalOpenFailed, shown + ": the log wal_v5 is cut short or can't be read",
                       "Run 'kestrun verify' on the store to see what is left of it.");
  }
}

std::unique_ptr<LSDBImpl> OpenStore(const CommonOptions& options, Access access) {
  if (options.store.empty()) throw UsageError("STORE is the directory of a store and can't be empty");
  const std::optional<uint32_t> asked = options.WalSize();
  if (access == Access::Existing) RequireStore(options.store);
  const std::optional<LogOnDisk> log = FindLog(options.store);
  if (!log) return Open(options.store, asked.value_or(kDefaultWalSize));
  const uint64_t size = std::max<uint64_t>(log->size, asked.value_or(0));
  if (size > log->size && log->holdsRecords) return Grow(options.store, log->size, size);
  return Open(options.store, size);
}

std::unique_ptr<Series> OpenSeries(const CommonOptions& options) {
  // Grows the log where that is asked for.
  OpenStore(options, Access::Create).reset();
  SeriesConfig config = {};
  const std::optional<LogOnDisk> log = FindLog(options.store);
  config.walSize = static_cast<uint32_t>(std::min(log ? log->size : kDefaultWalSize, kMaxWal));
  Series* series = nullptr;
  MustSucceed(Inspect::Printable(options.store),
              [&] { return Series::Open(options.store, config, &series); });
  return std::unique_ptr<Series>(series);
}

uint64_t LogCapacity(const CommonOptions& options) {
  const std::optional<uint32_t> asked = options.WalSize();
  const std::optional<LogOnDisk> log = FindLog(options.store);
  const uint64_t size =
      log ? std::max<uint64_t>(log->size, asked.value_or(0)) : asked.value_or(kDefaultWalSize);
  return size - kWalFirstRecord;
}

void RequireRoom(const CommonOptions& options, uint64_t keySize, uint64_t valueSize) {
  const uint64_t needed = kRecordHeader + keySize + valueSize;
  const uint64_t capacity = LogCapacity(options);
  if (needed <= capacity) return;
  throw StoreFailure(kStatusWalFull,
                     "an entry of " + std::to_string(needed) +
                         " bytes does not fit into the log, which holds " + std::to_string(capacity),
                     "Give --wal-size " + std::to_string(needed + kWalFirstRecord) + " or more.");
}

Key ParseKey(const std::string& text, const std::string& what) {
  if (text.empty()) throw UsageError(what + " can't be empty: a key has 1 to 65535 bytes");
  if (text.size() > kMaxKey) {
    throw UsageError(what + " has " + std::to_string(text.size()) + " bytes; a key has at most 65535");
  }
  return Key(text);
}

uint32_t WithRetries(const std::function<uint32_t()>& operation) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  for (;;) {
    const uint32_t status = operation();
    if (status != kStatusLockFailed || std::chrono::steady_clock::now() >= end) return status;
    std::this_thread::sleep_for(kPause);
  }
}

void MustSucceed(const std::string& what, const std::function<uint32_t()>& operation) {
  const uint32_t status = WithRetries(operation);
  if (status != kStatusOk) throw StoreFailure(status, what);
}

EntryState FindEntry(LSDBImpl& store, const Key& key, DataEntry* entry) {
  // No entry lies at offset 0 of a file: an untouched entry is a missing one.
  *entry = DataEntry();
  MustSucceed("looking for the key", [&] { return store.GetDataEntry(key, *entry); });
  if (entry->valueOffset == 0) return EntryState::Missing;
  if (entry->deleted) return EntryState::Deleted;
  const bool alive = entry->timestamp + entry->ttl >= static_cast<uint64_t>(std::time(nullptr));
  return alive ? EntryState::Live : EntryState::Expired;
}

EntryState ReadValue(LSDBImpl& store, const Key& key, StoredValue* value) {
  constexpr int kMaxTries = 10;
  for (int i = 1;; ++i) {
    DataEntry entry;
    const EntryState state = FindEntry(store, key, &entry);
    // An expired entry is not asked for, since the library would report it.
    if (state != EntryState::Live) return state;

    const void* bytes = nullptr;
    unsigned int size = 0;
    const uint32_t status = WithRetries([&] { return store.Get(key, &bytes, &size); });
    *value = StoredValue(bytes, bytes == nullptr ? 0 : size);
    if (status == kStatusOk && (bytes != nullptr || entry.valueSize == 0)) return EntryState::Live;
    // The entry may have expired, or somebody may have written the key, between the two calls.
    const bool again = status == kStatusOk || status == kStatusExpired || status == kStatusInvalid;
    if (!again || i == kMaxTries) throw StoreFailure(status, "reading the value");
  }
}

bool IsDroppedByFlush(std::string_view key) {
  return !key.empty() && key.front() == '\xFF';
}

void FlushLog(LSDBImpl& store) {
  const std::vector<Unflushed> unflushed = CollectUnflushed(store);
  MustSucceed("flushing the log", [&] { return store.ResetWal(); });
  Restore(store, unflushed);
}

}  // namespace Kestrun::Tools
