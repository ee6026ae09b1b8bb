// bindings/c/store.cc: kestrun/c.h over the classes of kestrun/store.h.
//
// A handle is a small object that owns one of theirs. Arguments are judged here where C allows more than a
// string_view does: null, and sizes beyond what a key or a value may have.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "kestrun/c.h"
#include "kestrun/store.h"

struct kestrun_store {
  std::unique_ptr<Kestrun::Store> store;
};
struct kestrun_batch {
  Kestrun::WriteBatch batch;
};
struct kestrun_transaction {
  Kestrun::Transaction* transaction;  // not owned
};
struct kestrun_snapshot {
  std::unique_ptr<Kestrun::Snapshot> snapshot;
};
struct kestrun_cursor {
  std::unique_ptr<Kestrun::Cursor> cursor;
};

namespace {

using namespace Kestrun;

constexpr size_t kMaxKeySize = 65535;
constexpr uint64_t kMaxValueSize = 0xFFFFFFFF;

static_assert(KESTRUN_TTL_FOREVER == kTtlForever);
static_assert(KESTRUN_STATUS_OK == kStatusOk);
static_assert(KESTRUN_STATUS_INVALID == kStatusInvalid);
static_assert(KESTRUN_STATUS_OPEN_FAILED == kStatusOpenFailed);
static_assert(KESTRUN_STATUS_NOT_A_STORE == kStatusNotAStore);
static_assert(KESTRUN_STATUS_STORE_MISSING == kStatusStoreMissing);
static_assert(KESTRUN_STATUS_STORE_EXISTS == kStatusStoreExists);
static_assert(KESTRUN_STATUS_NO_PERMISSION == kStatusNoPermission);
static_assert(KESTRUN_STATUS_MANIFEST_UNREADABLE == kStatusManifestUnreadable);
static_assert(KESTRUN_STATUS_BLOCK_SHORT_READ == kStatusBlockShortRead);
static_assert(KESTRUN_STATUS_RECORD_TYPE_UNKNOWN == kStatusRecordTypeUnknown);
static_assert(KESTRUN_STATUS_WAL_OPEN_FAILED == kStatusWalOpenFailed);
static_assert(KESTRUN_STATUS_CREATE_FAILED == kStatusCreateFailed);
static_assert(KESTRUN_STATUS_SYNC_FAILED == kStatusSyncFailed);
static_assert(KESTRUN_STATUS_MANIFEST_WRITE_FAILED == kStatusManifestWriteFailed);
static_assert(KESTRUN_STATUS_STAT_FAILED == kStatusStatFailed);
static_assert(KESTRUN_STATUS_BLOCK_WRITE_FAILED == kStatusBlockWriteFailed);
static_assert(KESTRUN_STATUS_WAL_CHECKSUM == kStatusWalChecksum);
static_assert(KESTRUN_STATUS_BLOCK_CORRUPT == kStatusBlockCorrupt);
static_assert(KESTRUN_STATUS_NO_MEMORY == kStatusNoMemory);
static_assert(KESTRUN_STATUS_WAL_FULL == kStatusWalFull);
static_assert(KESTRUN_STATUS_BAD_MAGIC == kStatusBadMagic);
static_assert(KESTRUN_STATUS_MANIFEST_CHECKSUM == kStatusManifestChecksum);
static_assert(KESTRUN_STATUS_LOCK_FAILED == kStatusLockFailed);
static_assert(KESTRUN_STATUS_EXPIRED == kStatusExpired);
static_assert(KESTRUN_STATUS_DIRECTORY_FAILED == kStatusDirectoryFailed);
static_assert(KESTRUN_STATUS_MAP_FAILED == kStatusMapFailed);
static_assert(KESTRUN_STATUS_TRUNCATE_FAILED == kStatusTruncateFailed);
static_assert(KESTRUN_STATUS_SEEK_FAILED == kStatusSeekFailed);

// Runs `call` so that no exception reaches C: those of ours are std::bad_alloc, a
// transaction's body may throw others.
template <typename Call>
uint32_t WithoutExceptions(const Call& call) {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    return kStatusNoMemory;
  } catch (...) {
    return kStatusInvalid;
  }
}

// Whether `data` and `size` name bytes: only nothing at all may lie at a null address.
bool IsBytes(const void* data, size_t size) {
  return data != nullptr || size == 0;
}

// Whether `data` and `size` may name a key. That it is not empty and begins with no 0xFF
// is left to the store.
bool IsKey(const void* data, size_t size) {
  return IsBytes(data, size) && size <= kMaxKeySize;
}

bool IsValue(const void* data, size_t size) {
  return IsBytes(data, size) && size <= kMaxValueSize;
}

std::string_view View(const void* data, size_t size) {
  return size == 0 ? std::string_view("", 0) : std::string_view(static_cast<const char*>(data), size);
}

// Hands out a copy of `found` that free() gives back. One byte more than the value has, so that an empty
// value has an address too, whatever malloc(0) answers.
uint32_t HandOut(const std::optional<std::string>& found, void** value, size_t* valueSize) {
  if (!found.has_value()) {
    *value = nullptr;
    *valueSize = 0;
    return kStatusOk;
  }
  void* copy = std::malloc(found->size() + 1);
  if (copy == nullptr) return kStatusNoMemory;
  std::memcpy(copy, found->data(), found->size());
  *value = copy;
  *valueSize = found->size();
  return kStatusOk;
}

// Reads `key` from a store, a snapshot or a transaction.
template <typename Source>
uint32_t GetFrom(Source* source, const void* key, size_t keySize, void** value, size_t* valueSize) {
  if (!IsKey(key, keySize) || value == nullptr || valueSize == nullptr) return kStatusInvalid;
  return WithoutExceptions([&] {
    std::optional<std::string> found;
    if (const uint32_t status = source->Get(View(key, keySize), &found); status != kStatusOk) return status;
    return HandOut(found, value, valueSize);
  });
}

template <typename Target>
uint32_t PutInto(Target* target, const void* key, size_t keySize, uint32_t ttl, const void* value,
                 size_t valueSize) {
  if (!IsKey(key, keySize) || !IsValue(value, valueSize)) return kStatusInvalid;
  return WithoutExceptions([&] { return target->Put(View(key, keySize), View(value, valueSize), ttl); });
}

template <typename Target>
uint32_t DeleteFrom(Target* target, const void* key, size_t keySize) {
  if (!IsKey(key, keySize)) return kStatusInvalid;
  return WithoutExceptions([&] { return target->Delete(View(key, keySize)); });
}

// Wraps what `make(unique_ptr*)` hands out in a handle of type `Handle`.
template <typename Handle, typename Object, typename Make>
uint32_t HandOutHandle(Handle** out, const Make& make) {
  return WithoutExceptions([&] {
    std::unique_ptr<Object> object;
    if (const uint32_t status = make(&object); status != kStatusOk) return status;
    *out = new Handle{std::move(object)};
    return kStatusOk;
  });
}

StoreOptions ToStoreOptions(const kestrun_options* options) {
  StoreOptions converted;
  if (options == nullptr) return converted;
  converted.logSize = options->log_size;
  converted.createIfMissing = options->create_if_missing != 0;
  converted.errorIfExists = options->error_if_exists != 0;
  converted.autoCompact = options->auto_compact != 0;
  converted.busyTimeout = options->busy_timeout;
  return converted;
}

}  // namespace

extern "C" {

kestrun_options kestrun_default_options(void) {
  const StoreOptions defaults;
  return {defaults.logSize, defaults.createIfMissing, defaults.errorIfExists, defaults.autoCompact,
          defaults.busyTimeout};
}

uint32_t kestrun_open(const char* path, const kestrun_options* options, kestrun_store** out) {
  if (path == nullptr || out == nullptr) return kStatusInvalid;
  return HandOutHandle<kestrun_store, Store>(
      out, [&](std::unique_ptr<Store>* store) { return Store::Open(path, ToStoreOptions(options), store); });
}

void kestrun_close(kestrun_store* store) {
  delete store;
}

uint32_t kestrun_put(kestrun_store* store, const void* key, size_t key_size, uint32_t ttl, const void* value,
                     size_t value_size) {
  if (store == nullptr) return kStatusInvalid;
  return PutInto(store->store.get(), key, key_size, ttl, value, value_size);
}

uint32_t kestrun_delete(kestrun_store* store, const void* key, size_t key_size) {
  if (store == nullptr) return kStatusInvalid;
  return DeleteFrom(store->store.get(), key, key_size);
}

uint32_t kestrun_get(kestrun_store* store, const void* key, size_t key_size, void** value,
                     size_t* value_size) {
  if (store == nullptr) return kStatusInvalid;
  return GetFrom(store->store.get(), key, key_size, value, value_size);
}

uint32_t kestrun_flush(kestrun_store* store) {
  if (store == nullptr) return kStatusInvalid;
  return WithoutExceptions([&] { return store->store->Flush(); });
}

uint32_t kestrun_compact(kestrun_store* store) {
  if (store == nullptr) return kStatusInvalid;
  return WithoutExceptions([&] { return store->store->Compact(); });
}

uint32_t kestrun_clear(kestrun_store* store) {
  if (store == nullptr) return kStatusInvalid;
  return WithoutExceptions([&] { return store->store->Clear(); });
}

uint32_t kestrun_sync(kestrun_store* store) {
  if (store == nullptr) return kStatusInvalid;
  return WithoutExceptions([&] { return store->store->Sync(); });
}

uint32_t kestrun_checkpoint(kestrun_store* store, const char* directory) {
  if (store == nullptr || directory == nullptr) return kStatusInvalid;
  return WithoutExceptions([&] { return store->store->Checkpoint(directory); });
}

kestrun_batch* kestrun_batch_create(void) {
  kestrun_batch* batch = nullptr;
  const uint32_t status = WithoutExceptions([&] {
    batch = new kestrun_batch;
    return kStatusOk;
  });
  return status == kStatusOk ? batch : nullptr;
}

void kestrun_batch_destroy(kestrun_batch* batch) {
  delete batch;
}

void kestrun_batch_clear(kestrun_batch* batch) {
  if (batch != nullptr) batch->batch.Clear();
}

uint32_t kestrun_batch_put(kestrun_batch* batch, const void* key, size_t key_size, uint32_t ttl,
                           const void* value, size_t value_size) {
  if (batch == nullptr) return kStatusInvalid;
  return PutInto(&batch->batch, key, key_size, ttl, value, value_size);
}

uint32_t kestrun_batch_delete(kestrun_batch* batch, const void* key, size_t key_size) {
  if (batch == nullptr) return kStatusInvalid;
  return DeleteFrom(&batch->batch, key, key_size);
}

uint32_t kestrun_write(kestrun_store* store, const kestrun_batch* batch) {
  if (store == nullptr || batch == nullptr) return kStatusInvalid;
  return WithoutExceptions([&] { return store->store->Write(batch->batch); });
}

uint32_t kestrun_transact(kestrun_store* store, kestrun_body body, void* context) {
  if (store == nullptr || body == nullptr) return kStatusInvalid;
  return WithoutExceptions([&] {
    return store->store->Transact([body, context](Transaction& transaction) {
      kestrun_transaction handle{&transaction};
      return body(&handle, context);
    });
  });
}

uint32_t kestrun_transaction_get(kestrun_transaction* transaction, const void* key, size_t key_size,
                                 void** value, size_t* value_size) {
  if (transaction == nullptr) return kStatusInvalid;
  return GetFrom(transaction->transaction, key, key_size, value, value_size);
}

uint32_t kestrun_transaction_put(kestrun_transaction* transaction, const void* key, size_t key_size,
                                 uint32_t ttl, const void* value, size_t value_size) {
  if (transaction == nullptr) return kStatusInvalid;
  return PutInto(transaction->transaction, key, key_size, ttl, value, value_size);
}

uint32_t kestrun_transaction_delete(kestrun_transaction* transaction, const void* key, size_t key_size) {
  if (transaction == nullptr) return kStatusInvalid;
  return DeleteFrom(transaction->transaction, key, key_size);
}

uint32_t kestrun_snapshot_take(kestrun_store* store, kestrun_snapshot** out) {
  if (store == nullptr || out == nullptr) return kStatusInvalid;
  return HandOutHandle<kestrun_snapshot, Snapshot>(
      out, [&](std::unique_ptr<Snapshot>* snapshot) { return store->store->TakeSnapshot(snapshot); });
}

uint32_t kestrun_snapshot_open(const char* path, kestrun_snapshot** out) {
  if (path == nullptr || out == nullptr) return kStatusInvalid;
  return HandOutHandle<kestrun_snapshot, Snapshot>(
      out, [&](std::unique_ptr<Snapshot>* snapshot) { return Snapshot::Open(path, snapshot); });
}

void kestrun_snapshot_release(kestrun_snapshot* snapshot) {
  delete snapshot;
}

uint32_t kestrun_snapshot_get(const kestrun_snapshot* snapshot, const void* key, size_t key_size,
                              void** value, size_t* value_size) {
  if (snapshot == nullptr) return kStatusInvalid;
  return GetFrom(snapshot->snapshot.get(), key, key_size, value, value_size);
}

uint32_t kestrun_cursor_create(const kestrun_snapshot* snapshot, const void* from, size_t from_size,
                               const void* to, size_t to_size, kestrun_cursor** out) {
  if (snapshot == nullptr || !IsKey(from, from_size) || !IsKey(to, to_size) || out == nullptr)
    return kStatusInvalid;
  return HandOutHandle<kestrun_cursor, Cursor>(out, [&](std::unique_ptr<Cursor>* cursor) {
    const Range range{std::string(View(from, from_size)), std::string(View(to, to_size))};
    return snapshot->snapshot->NewCursor(range, cursor);
  });
}

void kestrun_cursor_destroy(kestrun_cursor* cursor) {
  delete cursor;
}

void kestrun_cursor_seek_to_first(kestrun_cursor* cursor) {
  if (cursor != nullptr) cursor->cursor->SeekToFirst();
}

void kestrun_cursor_seek_to_last(kestrun_cursor* cursor) {
  if (cursor != nullptr) cursor->cursor->SeekToLast();
}

void kestrun_cursor_seek(kestrun_cursor* cursor, const void* key, size_t key_size) {
  if (cursor != nullptr && IsBytes(key, key_size)) cursor->cursor->Seek(View(key, key_size));
}

void kestrun_cursor_seek_for_prev(kestrun_cursor* cursor, const void* key, size_t key_size) {
  if (cursor != nullptr && IsBytes(key, key_size)) cursor->cursor->SeekForPrev(View(key, key_size));
}

void kestrun_cursor_next(kestrun_cursor* cursor) {
  if (cursor != nullptr) cursor->cursor->Next();
}

void kestrun_cursor_prev(kestrun_cursor* cursor) {
  if (cursor != nullptr) cursor->cursor->Prev();
}

int kestrun_cursor_valid(const kestrun_cursor* cursor) {
  return cursor != nullptr && cursor->cursor->Valid() ? 1 : 0;
}

uint32_t kestrun_cursor_status(const kestrun_cursor* cursor) {
  return cursor == nullptr ? kStatusInvalid : cursor->cursor->Status();
}

const void* kestrun_cursor_key(const kestrun_cursor* cursor, size_t* size) {
  if (size == nullptr) return nullptr;
  if (kestrun_cursor_valid(cursor) == 0) {
    *size = 0;
    return nullptr;
  }
  const std::string_view key = cursor->cursor->Key();
  *size = key.size();
  return key.data();
}

uint32_t kestrun_cursor_value(kestrun_cursor* cursor, const void** value, size_t* size) {
  if (cursor == nullptr || value == nullptr || size == nullptr) return kStatusInvalid;
  return WithoutExceptions([&] {
    std::string_view bytes;
    if (const uint32_t status = cursor->cursor->Value(&bytes); status != kStatusOk) return status;
    *value = bytes.empty() ? "" : bytes.data();
    *size = bytes.size();
    return kStatusOk;
  });
}

const char* kestrun_status_name(uint32_t status) {
  return StatusName(status);
}

const char* kestrun_status_text(uint32_t status) {
  return StatusText(status);
}

void kestrun_free(void* value) {
  std::free(value);
}

}  // extern "C"
