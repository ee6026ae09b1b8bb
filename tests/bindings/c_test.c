/* kestrun/c.h as a C program sees it. Compiled as C99, pedantic, with warnings as errors.

     c_test DIRECTORY      an empty directory to work in

   Prints a line for every expectation that fails and ends with status 1 if there was one. */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kestrun/c.h"

static int failures = 0;

static void ExpectNumber(uintmax_t actual, uintmax_t expected, const char* what, int line) {
  if (actual == expected) return;
  printf("%s:%d: %s is %" PRIuMAX ", expected %" PRIuMAX "\n", __FILE__, line, what, actual, expected);
  ++failures;
}

#define EXPECT_EQ(actual, expected) ExpectNumber((uintmax_t)(actual), (uintmax_t)(expected), #actual, __LINE__)
#define EXPECT_OK(actual) EXPECT_EQ(actual, KESTRUN_STATUS_OK)
#define EXPECT_INVALID(actual) EXPECT_EQ(actual, KESTRUN_STATUS_INVALID)

/* Whether `size` bytes at `bytes` are the text `expected`; null expects null. */
static int IsText(const void* bytes, size_t size, const char* expected) {
  if (expected == NULL || bytes == NULL) return bytes == NULL && expected == NULL && size == 0;
  return size == strlen(expected) && memcmp(bytes, expected, size) == 0;
}

static uint32_t Put(kestrun_store* store, const char* key, const char* value) {
  return kestrun_put(store, key, strlen(key), KESTRUN_TTL_FOREVER, value, strlen(value));
}

/* Whether the store has `expected` under `key`; null expects nothing. */
static int Has(kestrun_store* store, const char* key, const char* expected) {
  void* value = &failures;
  size_t size = 77;
  int same;
  if (kestrun_get(store, key, strlen(key), &value, &size) != KESTRUN_STATUS_OK) return 0;
  same = IsText(value, size, expected);
  kestrun_free(value);
  return same;
}

static char path[4096];

/* A path below the directory of this run; the next call overwrites it. */
static const char* PathOf(const char* directory, const char* name) {
  snprintf(path, sizeof path, "%s/%s", directory, name);
  return path;
}

static kestrun_store* OpenStore(const char* directory, const char* name) {
  kestrun_store* store = NULL;
  kestrun_options options = kestrun_default_options();
  options.log_size = 1024 * 1024;
  EXPECT_OK(kestrun_open(PathOf(directory, name), &options, &store));
  if (store == NULL) exit(1);
  return store;
}

static void TestOpenAnswersWithStatuses(const char* directory) {
  kestrun_store* const untouched = (kestrun_store*)(void*)&failures;
  kestrun_store* store = untouched;
  kestrun_options options = kestrun_default_options();
  EXPECT_EQ(options.log_size, 4 * 1024 * 1024);
  EXPECT_EQ(options.create_if_missing, 1);
  EXPECT_EQ(options.error_if_exists, 0);
  EXPECT_EQ(options.auto_compact, 1);
  EXPECT_EQ(options.busy_timeout, 5000);

  EXPECT_INVALID(kestrun_open(NULL, NULL, &store));
  EXPECT_INVALID(kestrun_open(PathOf(directory, "open"), NULL, NULL));
  options.create_if_missing = 0;
  EXPECT_EQ(kestrun_open(PathOf(directory, "open"), &options, &store), KESTRUN_STATUS_STORE_MISSING);
  EXPECT_EQ(kestrun_open(PathOf(directory, "no/parent"), NULL, &store), KESTRUN_STATUS_DIRECTORY_FAILED);
  options = kestrun_default_options();
  options.log_size = 128;
  EXPECT_INVALID(kestrun_open(PathOf(directory, "open"), &options, &store));
  EXPECT_EQ(store == untouched, 1);

  EXPECT_OK(kestrun_open(PathOf(directory, "open"), NULL, &store));
  EXPECT_EQ(store == untouched, 0);
  kestrun_close(store);
  store = untouched;
  options = kestrun_default_options();
  options.error_if_exists = 1;
  EXPECT_EQ(kestrun_open(PathOf(directory, "open"), &options, &store), KESTRUN_STATUS_STORE_EXISTS);
  EXPECT_EQ(store == untouched, 1);
}

static void TestPutGetDelete(const char* directory) {
  kestrun_store* store = OpenStore(directory, "point");
  void* value = NULL;
  size_t size = 0;
  EXPECT_EQ(Has(store, "colour", NULL), 1);
  EXPECT_OK(Put(store, "colour", "green"));
  EXPECT_EQ(Has(store, "colour", "green"), 1);
  EXPECT_OK(kestrun_put(store, "nul\0key", 7, KESTRUN_TTL_FOREVER, "nul\0value", 9));
  EXPECT_OK(kestrun_get(store, "nul\0key", 7, &value, &size));
  EXPECT_EQ(size, 9);
  EXPECT_EQ(size == 9 && memcmp(value, "nul\0value", 9) == 0, 1);
  kestrun_free(value);

  /* An empty value has an address, a missing one has none. */
  EXPECT_OK(kestrun_put(store, "empty", 5, KESTRUN_TTL_FOREVER, NULL, 0));
  value = NULL;
  size = 77;
  EXPECT_OK(kestrun_get(store, "empty", 5, &value, &size));
  EXPECT_EQ(value != NULL, 1);
  EXPECT_EQ(size, 0);
  kestrun_free(value);

  EXPECT_OK(kestrun_delete(store, "colour", 6));
  EXPECT_OK(kestrun_delete(store, "never there", 11));
  EXPECT_EQ(Has(store, "colour", NULL), 1);

  EXPECT_OK(Put(store, "colour", "blue"));
  EXPECT_OK(kestrun_flush(store));
  EXPECT_OK(kestrun_compact(store));
  EXPECT_OK(kestrun_sync(store));
  kestrun_close(store);
  store = OpenStore(directory, "point");
  EXPECT_EQ(Has(store, "colour", "blue"), 1);
  EXPECT_EQ(Has(store, "empty", ""), 1);
  EXPECT_OK(kestrun_clear(store));
  EXPECT_EQ(Has(store, "colour", NULL), 1);
  kestrun_close(store);
}

static void TestOddArgumentsOfPointOperations(const char* directory) {
  kestrun_store* store = OpenStore(directory, "odd");
  char* longKey = (char*)malloc(65536);
  void* value = &failures;
  size_t size = 77;
  if (longKey == NULL) exit(1);
  memset(longKey, 'k', 65536);

  EXPECT_INVALID(kestrun_put(NULL, "k", 1, 1, "v", 1));
  EXPECT_INVALID(kestrun_put(store, NULL, 1, 1, "v", 1));
  EXPECT_INVALID(kestrun_put(store, NULL, 0, 1, "v", 1));
  EXPECT_INVALID(kestrun_put(store, "", 0, 1, "v", 1));
  EXPECT_INVALID(kestrun_put(store, "\xFF", 1, 1, "v", 1));
  EXPECT_INVALID(kestrun_put(store, "k", 1, 1, NULL, 1));
  EXPECT_INVALID(kestrun_put(store, "k", 1, 0, "v", 1));
  EXPECT_INVALID(kestrun_put(store, longKey, 65536, 1, "v", 1));
  EXPECT_INVALID(kestrun_put(store, longKey, SIZE_MAX, 1, "v", 1));
  /* The size alone is refused: no byte of such a value is read. */
  EXPECT_INVALID(kestrun_put(store, "k", 1, 1, "v", (size_t)4294967296u));
  EXPECT_INVALID(kestrun_put(store, "k", 1, 1, "v", SIZE_MAX));
  EXPECT_OK(kestrun_put(store, longKey, 65535, KESTRUN_TTL_FOREVER, "v", 1));

  EXPECT_INVALID(kestrun_delete(NULL, "k", 1));
  EXPECT_INVALID(kestrun_delete(store, NULL, 1));
  EXPECT_INVALID(kestrun_delete(store, "", 0));
  EXPECT_INVALID(kestrun_delete(store, longKey, 65536));

  EXPECT_INVALID(kestrun_get(NULL, "k", 1, &value, &size));
  EXPECT_INVALID(kestrun_get(store, NULL, 1, &value, &size));
  EXPECT_INVALID(kestrun_get(store, "", 0, &value, &size));
  EXPECT_INVALID(kestrun_get(store, longKey, 65536, &value, &size));
  EXPECT_INVALID(kestrun_get(store, "k", 1, NULL, &size));
  EXPECT_INVALID(kestrun_get(store, "k", 1, &value, NULL));
  EXPECT_EQ(value == (void*)&failures, 1);
  EXPECT_EQ(size, 77);
  EXPECT_OK(kestrun_get(store, longKey, 65535, &value, &size));
  EXPECT_EQ(IsText(value, size, "v"), 1);
  kestrun_free(value);

  EXPECT_INVALID(kestrun_flush(NULL));
  EXPECT_INVALID(kestrun_compact(NULL));
  EXPECT_INVALID(kestrun_clear(NULL));
  EXPECT_INVALID(kestrun_sync(NULL));
  EXPECT_INVALID(kestrun_checkpoint(NULL, PathOf(directory, "copy")));
  EXPECT_INVALID(kestrun_checkpoint(store, NULL));
  kestrun_free(NULL);
  kestrun_close(NULL);
  kestrun_close(store);
  free(longKey);
}

static void TestValueBeyondTheLogIsRefusedAndNothingIsLost(const char* directory) {
  kestrun_store* store = OpenStore(directory, "large");
  char* value = (char*)calloc(1, 1024 * 1024);
  if (value == NULL) exit(1);
  EXPECT_OK(Put(store, "small", "stays"));
  EXPECT_EQ(kestrun_put(store, "large", 5, KESTRUN_TTL_FOREVER, value, 1024 * 1024), KESTRUN_STATUS_WAL_FULL);
  EXPECT_EQ(Has(store, "small", "stays"), 1);
  EXPECT_EQ(Has(store, "large", NULL), 1);
  kestrun_close(store);
  free(value);
}

static void TestBatch(const char* directory) {
  kestrun_store* store = OpenStore(directory, "batch");
  kestrun_batch* batch = kestrun_batch_create();
  EXPECT_EQ(batch != NULL, 1);
  EXPECT_OK(Put(store, "gone", "soon"));
  EXPECT_OK(kestrun_batch_put(batch, "from", 4, KESTRUN_TTL_FOREVER, "60", 2));
  EXPECT_OK(kestrun_batch_put(batch, "to", 2, KESTRUN_TTL_FOREVER, "40", 2));
  EXPECT_OK(kestrun_batch_put(batch, "to", 2, KESTRUN_TTL_FOREVER, "41", 2));
  EXPECT_OK(kestrun_batch_delete(batch, "gone", 4));

  EXPECT_INVALID(kestrun_batch_put(NULL, "k", 1, 1, "v", 1));
  EXPECT_INVALID(kestrun_batch_put(batch, NULL, 1, 1, "v", 1));
  EXPECT_INVALID(kestrun_batch_put(batch, "k", 1, 1, NULL, 1));
  EXPECT_INVALID(kestrun_batch_put(batch, "k", 1, 0, "v", 1));
  EXPECT_INVALID(kestrun_batch_put(batch, "k", 1, 1, "v", (size_t)4294967296u));
  EXPECT_INVALID(kestrun_batch_put(batch, "k", 65536, 1, "v", 1));
  EXPECT_INVALID(kestrun_batch_delete(NULL, "k", 1));
  EXPECT_INVALID(kestrun_batch_delete(batch, NULL, 1));
  EXPECT_INVALID(kestrun_batch_delete(batch, "", 0));
  EXPECT_INVALID(kestrun_write(NULL, batch));
  EXPECT_INVALID(kestrun_write(store, NULL));

  EXPECT_EQ(Has(store, "from", NULL), 1);
  EXPECT_OK(kestrun_write(store, batch));
  EXPECT_EQ(Has(store, "from", "60"), 1);
  EXPECT_EQ(Has(store, "to", "41"), 1);
  EXPECT_EQ(Has(store, "gone", NULL), 1);
  EXPECT_EQ(Has(store, "k", NULL), 1);

  EXPECT_OK(kestrun_delete(store, "to", 2));
  EXPECT_OK(kestrun_write(store, batch));
  EXPECT_EQ(Has(store, "to", "41"), 1);
  EXPECT_OK(kestrun_delete(store, "to", 2));
  kestrun_batch_clear(batch);
  EXPECT_OK(kestrun_write(store, batch));
  EXPECT_EQ(Has(store, "to", NULL), 1);
  kestrun_batch_clear(NULL);
  kestrun_batch_destroy(NULL);
  kestrun_batch_destroy(batch);
  kestrun_close(store);
}

typedef struct {
  kestrun_store* store;
  uint32_t answer;
  int calls;
} BodyContext;

static uint32_t MoveTen(kestrun_transaction* transaction, void* context) {
  BodyContext* body = (BodyContext*)context;
  void* value = NULL;
  size_t size = 0;
  ++body->calls;
  EXPECT_OK(kestrun_transaction_get(transaction, "from", 4, &value, &size));
  EXPECT_EQ(IsText(value, size, "60"), 1);
  kestrun_free(value);
  EXPECT_OK(kestrun_transaction_put(transaction, "from", 4, KESTRUN_TTL_FOREVER, "50", 2));
  EXPECT_OK(kestrun_transaction_delete(transaction, "to", 2));
  EXPECT_OK(kestrun_transaction_get(transaction, "from", 4, &value, &size));
  EXPECT_EQ(IsText(value, size, "50"), 1);
  kestrun_free(value);
  EXPECT_OK(kestrun_transaction_get(transaction, "to", 2, &value, &size));
  EXPECT_EQ(value == NULL, 1);

  EXPECT_INVALID(kestrun_transaction_get(NULL, "k", 1, &value, &size));
  EXPECT_INVALID(kestrun_transaction_get(transaction, "k", 1, NULL, &size));
  EXPECT_INVALID(kestrun_transaction_get(transaction, "k", 1, &value, NULL));
  EXPECT_INVALID(kestrun_transaction_put(NULL, "k", 1, 1, "v", 1));
  EXPECT_INVALID(kestrun_transaction_put(transaction, "k", 1, 0, "v", 1));
  EXPECT_INVALID(kestrun_transaction_put(transaction, NULL, 1, 1, "v", 1));
  EXPECT_INVALID(kestrun_transaction_delete(NULL, "k", 1));
  EXPECT_INVALID(kestrun_transaction_delete(transaction, NULL, 1));

  /* The store itself is closed to the body. */
  EXPECT_INVALID(Put(body->store, "from inside", "no"));
  EXPECT_INVALID(kestrun_get(body->store, "from", 4, &value, &size));
  return body->answer;
}

static void TestTransaction(const char* directory) {
  BodyContext context;
  context.store = OpenStore(directory, "transact");
  context.answer = 4711;
  context.calls = 0;
  EXPECT_OK(Put(context.store, "from", "60"));
  EXPECT_OK(Put(context.store, "to", "40"));

  EXPECT_EQ(kestrun_transact(context.store, MoveTen, &context), 4711);
  EXPECT_EQ(context.calls, 1);
  EXPECT_EQ(Has(context.store, "from", "60"), 1);
  EXPECT_EQ(Has(context.store, "to", "40"), 1);

  context.answer = KESTRUN_STATUS_OK;
  EXPECT_OK(kestrun_transact(context.store, MoveTen, &context));
  EXPECT_EQ(context.calls, 2);
  EXPECT_EQ(Has(context.store, "from", "50"), 1);
  EXPECT_EQ(Has(context.store, "to", NULL), 1);
  EXPECT_EQ(Has(context.store, "from inside", NULL), 1);

  EXPECT_INVALID(kestrun_transact(NULL, MoveTen, &context));
  EXPECT_INVALID(kestrun_transact(context.store, NULL, &context));
  EXPECT_EQ(context.calls, 2);
  kestrun_close(context.store);
}

/* The keys of a walk, joined; forward from the first, or backward from the last. */
static const char* Walk(kestrun_cursor* cursor, int forward) {
  static char keys[256];
  size_t used = 0;
  if (forward) {
    kestrun_cursor_seek_to_first(cursor);
  } else {
    kestrun_cursor_seek_to_last(cursor);
  }
  while (kestrun_cursor_valid(cursor)) {
    size_t size = 0;
    const void* key = kestrun_cursor_key(cursor, &size);
    memcpy(keys + used, key, size);
    used += size;
    if (forward) {
      kestrun_cursor_next(cursor);
    } else {
      kestrun_cursor_prev(cursor);
    }
  }
  keys[used] = '\0';
  EXPECT_OK(kestrun_cursor_status(cursor));
  return keys;
}

static void TestSnapshotAndCursor(const char* directory) {
  kestrun_store* store = OpenStore(directory, "snapshot");
  kestrun_snapshot* snapshot = NULL;
  kestrun_snapshot* other = NULL;
  kestrun_cursor* cursor = NULL;
  const void* bytes = &failures;
  void* value = NULL;
  size_t size = 77;
  EXPECT_OK(Put(store, "a", "1"));
  EXPECT_OK(Put(store, "b", "2"));
  EXPECT_OK(kestrun_flush(store));
  EXPECT_OK(Put(store, "c", ""));
  EXPECT_OK(Put(store, "d", "4"));
  EXPECT_OK(kestrun_delete(store, "d", 1));

  EXPECT_INVALID(kestrun_snapshot_take(NULL, &snapshot));
  EXPECT_INVALID(kestrun_snapshot_take(store, NULL));
  EXPECT_INVALID(kestrun_snapshot_open(NULL, &snapshot));
  EXPECT_INVALID(kestrun_snapshot_open(PathOf(directory, "snapshot"), NULL));
  EXPECT_EQ(kestrun_snapshot_open(PathOf(directory, "nowhere"), &snapshot), KESTRUN_STATUS_STORE_MISSING);
  EXPECT_EQ(snapshot == NULL, 1);
  EXPECT_OK(kestrun_snapshot_take(store, &snapshot));
  EXPECT_OK(Put(store, "a", "later"));
  EXPECT_OK(Put(store, "e", "later"));

  EXPECT_OK(kestrun_snapshot_get(snapshot, "a", 1, &value, &size));
  EXPECT_EQ(IsText(value, size, "1"), 1);
  kestrun_free(value);
  EXPECT_OK(kestrun_snapshot_get(snapshot, "e", 1, &value, &size));
  EXPECT_EQ(IsText(value, size, NULL), 1);
  EXPECT_INVALID(kestrun_snapshot_get(NULL, "a", 1, &value, &size));
  EXPECT_INVALID(kestrun_snapshot_get(snapshot, NULL, 1, &value, &size));
  EXPECT_INVALID(kestrun_snapshot_get(snapshot, "", 0, &value, &size));
  EXPECT_INVALID(kestrun_snapshot_get(snapshot, "a", 1, NULL, &size));
  EXPECT_INVALID(kestrun_snapshot_get(snapshot, "a", 1, &value, NULL));

  EXPECT_OK(kestrun_snapshot_open(PathOf(directory, "snapshot"), &other));
  EXPECT_OK(kestrun_snapshot_get(other, "a", 1, &value, &size));
  EXPECT_EQ(IsText(value, size, "later"), 1);
  kestrun_free(value);
  kestrun_snapshot_release(other);

  EXPECT_INVALID(kestrun_cursor_create(NULL, NULL, 0, NULL, 0, &cursor));
  EXPECT_INVALID(kestrun_cursor_create(snapshot, NULL, 0, NULL, 0, NULL));
  EXPECT_INVALID(kestrun_cursor_create(snapshot, NULL, 1, NULL, 0, &cursor));
  EXPECT_INVALID(kestrun_cursor_create(snapshot, NULL, 0, NULL, 1, &cursor));
  EXPECT_INVALID(kestrun_cursor_create(snapshot, "a", 65536, NULL, 0, &cursor));
  EXPECT_EQ(cursor == NULL, 1);

  /* The cursor goes on when its snapshot and its store are gone. */
  EXPECT_OK(kestrun_cursor_create(snapshot, NULL, 0, NULL, 0, &cursor));
  kestrun_snapshot_release(snapshot);
  kestrun_snapshot_release(NULL);
  kestrun_close(store);
  EXPECT_EQ(kestrun_cursor_valid(cursor), 0);
  EXPECT_OK(kestrun_cursor_status(cursor));
  EXPECT_EQ(kestrun_cursor_key(cursor, &size) == NULL, 1);
  EXPECT_EQ(size, 0);
  EXPECT_INVALID(kestrun_cursor_value(cursor, &bytes, &size));
  EXPECT_EQ(bytes == (const void*)&failures, 1);
  kestrun_cursor_next(cursor);
  EXPECT_EQ(kestrun_cursor_valid(cursor), 0);
  EXPECT_EQ(strcmp(Walk(cursor, 1), "abc"), 0);
  EXPECT_EQ(strcmp(Walk(cursor, 0), "cba"), 0);

  kestrun_cursor_seek(cursor, "b", 1);
  EXPECT_OK(kestrun_cursor_value(cursor, &bytes, &size));
  EXPECT_EQ(IsText(bytes, size, "2"), 1);
  EXPECT_INVALID(kestrun_cursor_value(NULL, &bytes, &size));
  EXPECT_INVALID(kestrun_cursor_value(cursor, NULL, &size));
  EXPECT_INVALID(kestrun_cursor_value(cursor, &bytes, NULL));
  kestrun_cursor_seek(cursor, NULL, 1);
  EXPECT_EQ(IsText(kestrun_cursor_key(cursor, &size), 1, "b"), 1);
  kestrun_cursor_seek(cursor, NULL, 0);
  EXPECT_EQ(IsText(kestrun_cursor_key(cursor, &size), 1, "a"), 1);
  kestrun_cursor_seek_for_prev(cursor, "bb", 2);
  EXPECT_EQ(IsText(kestrun_cursor_key(cursor, &size), 1, "b"), 1);
  kestrun_cursor_seek(cursor, "c", 1);
  EXPECT_OK(kestrun_cursor_value(cursor, &bytes, &size));
  EXPECT_EQ(IsText(bytes, size, ""), 1);
  EXPECT_EQ(kestrun_cursor_key(cursor, NULL) == NULL, 1);
  kestrun_cursor_seek(cursor, "d", 1);
  EXPECT_EQ(kestrun_cursor_valid(cursor), 0);
  kestrun_cursor_destroy(cursor);

  EXPECT_EQ(kestrun_cursor_valid(NULL), 0);
  EXPECT_INVALID(kestrun_cursor_status(NULL));
  EXPECT_EQ(kestrun_cursor_key(NULL, &size) == NULL, 1);
  kestrun_cursor_seek_to_first(NULL);
  kestrun_cursor_seek_to_last(NULL);
  kestrun_cursor_seek(NULL, "a", 1);
  kestrun_cursor_seek_for_prev(NULL, "a", 1);
  kestrun_cursor_next(NULL);
  kestrun_cursor_prev(NULL);
  kestrun_cursor_destroy(NULL);
}

static void TestRangeOfCursor(const char* directory) {
  kestrun_store* store = OpenStore(directory, "range");
  kestrun_snapshot* snapshot = NULL;
  kestrun_cursor* cursor = NULL;
  const char* const keys[] = {"a", "b", "c", "d"};
  size_t i;
  for (i = 0; i < 4; ++i) EXPECT_OK(Put(store, keys[i], "v"));
  EXPECT_OK(kestrun_snapshot_take(store, &snapshot));

  EXPECT_OK(kestrun_cursor_create(snapshot, "b", 1, "d", 1, &cursor));
  EXPECT_EQ(strcmp(Walk(cursor, 1), "bc"), 0);
  EXPECT_EQ(strcmp(Walk(cursor, 0), "cb"), 0);
  kestrun_cursor_destroy(cursor);
  EXPECT_OK(kestrun_cursor_create(snapshot, "c", 1, NULL, 0, &cursor));
  EXPECT_EQ(strcmp(Walk(cursor, 1), "cd"), 0);
  kestrun_cursor_destroy(cursor);
  EXPECT_OK(kestrun_cursor_create(snapshot, "c", 1, "b", 1, &cursor));
  EXPECT_EQ(strcmp(Walk(cursor, 1), ""), 0);
  kestrun_cursor_destroy(cursor);
  kestrun_snapshot_release(snapshot);
  kestrun_close(store);
}

static void TestCheckpoint(const char* directory) {
  char copy[4096];
  kestrun_store* store = OpenStore(directory, "original");
  kestrun_store* opened;
  snprintf(copy, sizeof copy, "%s/checkpoint", directory);
  EXPECT_OK(Put(store, "colour", "green"));
  EXPECT_OK(kestrun_checkpoint(store, copy));
  EXPECT_EQ(kestrun_checkpoint(store, copy), KESTRUN_STATUS_STORE_EXISTS);
  EXPECT_OK(Put(store, "colour", "red"));
  opened = OpenStore(directory, "checkpoint");
  EXPECT_EQ(Has(opened, "colour", "green"), 1);
  kestrun_close(opened);
  kestrun_close(store);
}

static void TestStatusesHaveNamesAndTexts(void) {
  EXPECT_EQ(strcmp(kestrun_status_name(KESTRUN_STATUS_WAL_FULL), "kStatusWalFull"), 0);
  EXPECT_EQ(strlen(kestrun_status_text(KESTRUN_STATUS_WAL_FULL)) > 0, 1);
  EXPECT_EQ(strcmp(kestrun_status_name(4711), "unknown"), 0);
  EXPECT_EQ(strcmp(kestrun_status_text(4711), "unknown status"), 0);
}

int main(int count, char** arguments) {
  const char* directory;
  if (count != 2) return 2;
  directory = arguments[1];
  TestOpenAnswersWithStatuses(directory);
  TestPutGetDelete(directory);
  TestOddArgumentsOfPointOperations(directory);
  TestValueBeyondTheLogIsRefusedAndNothingIsLost(directory);
  TestBatch(directory);
  TestTransaction(directory);
  TestSnapshotAndCursor(directory);
  TestRangeOfCursor(directory);
  TestCheckpoint(directory);
  TestStatusesHaveNamesAndTexts();
  if (failures != 0) printf("%d expectations failed\n", failures);
  return failures == 0 ? 0 : 1;
}
