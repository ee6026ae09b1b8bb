// kestrun/c.h: the store of kestrun/store.h in plain C (C99), so that any language can bind it.
//
//   kestrun_store* store = NULL;
//   uint32_t status = kestrun_open("/data/settings", NULL, &store);
//   status = kestrun_put(store, "colour", 6, KESTRUN_TTL_FOREVER, "green", 5);
//   void* value = NULL;
//   size_t size = 0;
//   status = kestrun_get(store, "colour", 6, &value, &size);
//   kestrun_free(value);
//   kestrun_close(store);
//
// Ownership: what a function hands out through an out-pointer belongs to the caller. Each handle has
//            one function that gives it back, a value is given back by kestrun_free; all of them take
//            null and then do nothing. Snapshots and cursors may outlive the store that they came
//            from. Arguments are copied.
// Threads:   a store and a snapshot may be used from any number of threads at once, a batch and a cursor from
//            one at a time, a transaction from the thread of its body. Giving back a handle that another
//            thread is using is the caller's error.
// Failure:   a uint32_t status; 0 is success, and a failed call leaves its out-pointers as they were. Null
//            where a handle, an out-pointer, a path or bytes are needed is KESTRUN_STATUS_INVALID. No
//            exception leaves a function.
// Units:     sizes are bytes, times to live seconds, busy_timeout milliseconds.
// Keys:      1 to 65,535 bytes of any value, ordered as unsigned bytes; the first byte is not 0xFF.
// Values:    fewer than 4 GiB, of any bytes. One of size 0 is a value; its address may be null.
//
// The statuses of each function are those of the function of the same name in kestrun/store.h,
// kestrun/write_batch.h, kestrun/transaction.h, kestrun/snapshot.h and kestrun/cursor.h.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kestrun/export.h"

#define KESTRUN_TTL_FOREVER 4294967295u  // about 136 years

// The statuses of kestrun/status.h, which says what each means.
#define KESTRUN_STATUS_OK 0u
#define KESTRUN_STATUS_INVALID 2u
#define KESTRUN_STATUS_OPEN_FAILED 3u
#define KESTRUN_STATUS_NOT_A_STORE 4u
#define KESTRUN_STATUS_STORE_MISSING 5u
#define KESTRUN_STATUS_STORE_EXISTS 6u
#define KESTRUN_STATUS_NO_PERMISSION 7u
#define KESTRUN_STATUS_MANIFEST_UNREADABLE 258u
#define KESTRUN_STATUS_BLOCK_SHORT_READ 259u
#define KESTRUN_STATUS_RECORD_TYPE_UNKNOWN 514u
#define KESTRUN_STATUS_WAL_OPEN_FAILED 770u
#define KESTRUN_STATUS_CREATE_FAILED 771u
#define KESTRUN_STATUS_SYNC_FAILED 1027u
#define KESTRUN_STATUS_MANIFEST_WRITE_FAILED 1282u
#define KESTRUN_STATUS_STAT_FAILED 1795u
#define KESTRUN_STATUS_BLOCK_WRITE_FAILED 2050u
#define KESTRUN_STATUS_WAL_CHECKSUM 2818u
#define KESTRUN_STATUS_BLOCK_CORRUPT 3074u
#define KESTRUN_STATUS_NO_MEMORY 3075u
#define KESTRUN_STATUS_WAL_FULL 3330u
#define KESTRUN_STATUS_BAD_MAGIC 3586u
#define KESTRUN_STATUS_MANIFEST_CHECKSUM 3842u
#define KESTRUN_STATUS_LOCK_FAILED 3843u
#define KESTRUN_STATUS_EXPIRED 4098u
#define KESTRUN_STATUS_DIRECTORY_FAILED 4355u
#define KESTRUN_STATUS_MAP_FAILED 4611u
#define KESTRUN_STATUS_TRUNCATE_FAILED 4867u
#define KESTRUN_STATUS_SEEK_FAILED 5123u

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kestrun_store kestrun_store;
typedef struct kestrun_batch kestrun_batch;
typedef struct kestrun_transaction kestrun_transaction;
typedef struct kestrun_snapshot kestrun_snapshot;
typedef struct kestrun_cursor kestrun_cursor;

// How a store is opened; see StoreOptions in kestrun/store.h. Flags are off when 0. Start from
// kestrun_default_options.
typedef struct {
  uint32_t log_size;  // bytes, more than 128; the largest entry or batch takes log_size - 128
  int create_if_missing, error_if_exists, auto_compact;
  unsigned int busy_timeout;  // milliseconds that a lock is tried for
} kestrun_options;

// 4 MiB, created when missing, compacted by a thread of the store, 5000 ms.
KESTRUN_EXPORT kestrun_options kestrun_default_options(void);

// Opens the store in the directory `path`. Null options are the defaults.
KESTRUN_EXPORT uint32_t kestrun_open(const char* path, const kestrun_options* options, kestrun_store** out);
// Closes the store and waits for its thread. Nothing is flushed: the next kestrun_open reads the log again.
KESTRUN_EXPORT void kestrun_close(kestrun_store* store);

// Stores a value that lives for `ttl` seconds; 0 is KESTRUN_STATUS_INVALID.
KESTRUN_EXPORT uint32_t kestrun_put(kestrun_store* store, const void* key, size_t key_size, uint32_t ttl,
                                    const void* value, size_t value_size);
// Deletes a key, whether or not it exists.
KESTRUN_EXPORT uint32_t kestrun_delete(kestrun_store* store, const void* key, size_t key_size);
// A copy of the value, which kestrun_free gives back. *value is null when the key is not alive: absent,
// deleted and expired look the same. An empty value is not null and has size 0.
KESTRUN_EXPORT uint32_t kestrun_get(kestrun_store* store, const void* key, size_t key_size, void** value,
                                    size_t* value_size);

// Writes the log's entries to a new block and empties the log.
KESTRUN_EXPORT uint32_t kestrun_flush(kestrun_store* store);
// Merges log and blocks into one block; what is deleted or expired goes.
KESTRUN_EXPORT uint32_t kestrun_compact(kestrun_store* store);
// Empties the store, for every process.
KESTRUN_EXPORT uint32_t kestrun_clear(kestrun_store* store);
// Brings everything acknowledged so far to the disk.
KESTRUN_EXPORT uint32_t kestrun_sync(kestrun_store* store);
// Makes a consistent copy, which opens as a store, in the new directory `directory`.
KESTRUN_EXPORT uint32_t kestrun_checkpoint(kestrun_store* store, const char* directory);

// Writes that take effect together. A batch is bound to no store. Null when memory ran out.
KESTRUN_EXPORT kestrun_batch* kestrun_batch_create(void);
KESTRUN_EXPORT void kestrun_batch_destroy(kestrun_batch* batch);
KESTRUN_EXPORT void kestrun_batch_clear(kestrun_batch* batch);
// Add an operation, which wins over earlier ones on the same key. A failed call adds nothing.
KESTRUN_EXPORT uint32_t kestrun_batch_put(kestrun_batch* batch, const void* key, size_t key_size,
                                          uint32_t ttl, const void* value, size_t value_size);
KESTRUN_EXPORT uint32_t kestrun_batch_delete(kestrun_batch* batch, const void* key, size_t key_size);
// Writes all of the batch or nothing, for every reader and after every kill. The batch stays as it is.
KESTRUN_EXPORT uint32_t kestrun_write(kestrun_store* store, const kestrun_batch* batch);

// What kestrun_transact calls. It must return: by longjmp or the end of its thread the
// store's locks would stay held.
typedef uint32_t (*kestrun_body)(kestrun_transaction* transaction, void* context);
// Runs `body` once while no other thread or process can write. When it returns 0, what it put and deleted is
// written like a batch; any other number is returned and nothing is written. Calls that take the store itself
// are KESTRUN_STATUS_INVALID inside the body. An exception that a C++ body throws ends here, with nothing
// written: KESTRUN_STATUS_NO_MEMORY for std::bad_alloc, else KESTRUN_STATUS_INVALID.
KESTRUN_EXPORT uint32_t kestrun_transact(kestrun_store* store, kestrun_body body, void* context);
// As kestrun_get; what the transaction has put and deleted counts.
KESTRUN_EXPORT uint32_t kestrun_transaction_get(kestrun_transaction* transaction, const void* key,
                                                size_t key_size, void** value, size_t* value_size);
KESTRUN_EXPORT uint32_t kestrun_transaction_put(kestrun_transaction* transaction, const void* key,
                                                size_t key_size, uint32_t ttl, const void* value,
                                                size_t value_size);
KESTRUN_EXPORT uint32_t kestrun_transaction_delete(kestrun_transaction* transaction, const void* key,
                                                   size_t key_size);

// The state of this moment, which later writes do not change. Reading it takes no lock.
KESTRUN_EXPORT uint32_t kestrun_snapshot_take(kestrun_store* store, kestrun_snapshot** out);
// The state of the store in the directory `path`, without opening it: changes nothing on
// disk, works on read-only media.
KESTRUN_EXPORT uint32_t kestrun_snapshot_open(const char* path, kestrun_snapshot** out);
KESTRUN_EXPORT void kestrun_snapshot_release(kestrun_snapshot* snapshot);
// As kestrun_get.
KESTRUN_EXPORT uint32_t kestrun_snapshot_get(const kestrun_snapshot* snapshot, const void* key,
                                             size_t key_size, void** value, size_t* value_size);

// Walks the keys from `from` up to and not including `to` that were alive, each once, in order. Size 0 means
// from the beginning, or to the end. The cursor stands nowhere until it is sought.
KESTRUN_EXPORT uint32_t kestrun_cursor_create(const kestrun_snapshot* snapshot, const void* from,
                                              size_t from_size, const void* to, size_t to_size,
                                              kestrun_cursor** out);
KESTRUN_EXPORT void kestrun_cursor_destroy(kestrun_cursor* cursor);
KESTRUN_EXPORT void kestrun_cursor_seek_to_first(kestrun_cursor* cursor);
KESTRUN_EXPORT void kestrun_cursor_seek_to_last(kestrun_cursor* cursor);
// The first key that is not before `key`. Size 0 is before every key; a null key
// of another size does nothing.
KESTRUN_EXPORT void kestrun_cursor_seek(kestrun_cursor* cursor, const void* key, size_t key_size);
// The last key that is not after `key`.
KESTRUN_EXPORT void kestrun_cursor_seek_for_prev(kestrun_cursor* cursor, const void* key, size_t key_size);
// One key on or back; without effect unless the cursor is valid.
KESTRUN_EXPORT void kestrun_cursor_next(kestrun_cursor* cursor);
KESTRUN_EXPORT void kestrun_cursor_prev(kestrun_cursor* cursor);
// 1 while the cursor stands on a key; 0 before the first seek, past either end, after a failure, and of null.
KESTRUN_EXPORT int kestrun_cursor_valid(const kestrun_cursor* cursor);
// KESTRUN_STATUS_OK while valid and at an end; else what ended the walk.
KESTRUN_EXPORT uint32_t kestrun_cursor_status(const kestrun_cursor* cursor);
// The key that the cursor stands on. The bytes belong to the cursor and stay until it moves. Null, and size
// 0, unless the cursor is valid. Null when `size` is null.
KESTRUN_EXPORT const void* kestrun_cursor_key(const kestrun_cursor* cursor, size_t* size);
// The value of that key; read on demand. The bytes belong to the cursor and stay until it moves; those of an
// empty value are not null.
KESTRUN_EXPORT uint32_t kestrun_cursor_value(kestrun_cursor* cursor, const void** value, size_t* size);

// The name, such as "kStatusWalFull", and the meaning of a status; see kestrun/status.h. Never null; the text
// lives until the process ends.
KESTRUN_EXPORT const char* kestrun_status_name(uint32_t status);
KESTRUN_EXPORT const char* kestrun_status_text(uint32_t status);

// Gives back a value.
KESTRUN_EXPORT void kestrun_free(void* value);

#ifdef __cplusplus
}
#endif
