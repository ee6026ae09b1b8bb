// bindings/node/src/addon.cc: the functions that script calls.
//
// They are made for the script beside them, which checks what its callers hand in; what is passed here is of
// the right number and type, except for keys and values. Every function but those ending in Sync, and the
// making and closing of snapshots and iterators, works on the thread pool and returns a promise.
#include <kestrun/store.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "database.h"
#include "iterator.h"
#include "key_escape.h"
#include "node_api_host.h"
#include "script_values.h"

namespace Kestrun::Script {

namespace {

// The largest batch of a clear of several; see Iterator::DeleteFrom.
constexpr size_t kLogHeaderSize = 128;

// create(plain: boolean): Database
napi_value Create(napi_env env, const Arguments& arguments) {
  return HandOut(env, std::make_shared<Database>(arguments.Bool(0) ? Face::Plain : Face::Level));
}

// (database, path, logSize, createIfMissing, errorIfExists, autoCompact, busyTimeout)
StoreOptions OptionsOf(const Arguments& arguments) {
  StoreOptions options;
  options.logSize = arguments.Uint32(2);
  options.createIfMissing = arguments.Bool(3);
  options.errorIfExists = arguments.Bool(4);
  options.autoCompact = arguments.Bool(5);
  options.busyTimeout = arguments.Uint32(6);
  return options;
}

napi_value Open(napi_env env, const Arguments& arguments) {
  return HeldBy<Database>(env, arguments[0])->Open(env, arguments.Text(1), OptionsOf(arguments));
}

napi_value OpenSync(napi_env env, const Arguments& arguments) {
  HeldBy<Database>(env, arguments[0])->OpenSync(env, arguments.Text(1), OptionsOf(arguments));
  return nullptr;
}

napi_value Close(napi_env env, const Arguments& arguments) {
  return HeldBy<Database>(env, arguments[0])->Close(env);
}

napi_value CloseSync(napi_env env, const Arguments& arguments) {
  HeldBy<Database>(env, arguments[0])->CloseSync(env);
  return nullptr;
}

void ThrowUnlessOk(const Database& database, uint32_t status) {
  if (status != kStatusOk) throw StatusException{database.Seen(), status};
}

// The snapshot of `value`, or one of this moment when it is undefined: taken here and now, so
// that no later write shows.
std::shared_ptr<const Snapshot> SnapshotFor(napi_env env, const Database& database, napi_value value) {
  if (!IsUndefined(env, value)) {
    const auto handle = HeldBy<SnapshotHandle>(env, value);
    if (handle->Of().get() != &database) ThrowTypeError(env, "the snapshot is of another database");
    if (handle->Get() == nullptr) ThrowCodedError(env, "LEVEL_SNAPSHOT_NOT_OPEN", "Snapshot is not open");
    return handle->Get();
  }
  std::unique_ptr<Snapshot> taken;
  ThrowUnlessOk(database, database.OpenStore(env).TakeSnapshot(&taken));
  return taken;
}

napi_value FromFound(napi_env env, const std::optional<std::string>& found, Form form) {
  return found.has_value() ? FromBytes(env, *found, form) : Undefined(env);
}

uint32_t LengthOf(napi_env env, napi_value array) {
  uint32_t length = 0;
  Check(env, napi_get_array_length(env, array, &length));
  return length;
}

std::vector<std::string> KeysOf(napi_env env, const Database& database, napi_value array) {
  std::vector<std::string> keys(LengthOf(env, array));
  for (uint32_t i = 0; i < keys.size(); ++i) {
    napi_value key = nullptr;
    Check(env, napi_get_element(env, array, i, &key));
    keys[i] = ToStoredKey(env, database.Seen(), key);
  }
  return keys;
}

// get(database, key, form, snapshot?)
napi_value Get(napi_env env, const Arguments& arguments) {
  const auto database = HeldBy<Database>(env, arguments[0]);
  const Form form = arguments.FormAt(2);
  auto found = std::make_shared<std::optional<std::string>>();
  auto read = std::make_unique<Operation>();
  read->execute = [found, key = ToStoredKey(env, database->Seen(), arguments[1]),
                   snapshot = SnapshotFor(env, *database, arguments[3])] {
    return snapshot->Get(key, found.get());
  };
  read->result = [found, form](napi_env envOfResult) { return FromFound(envOfResult, *found, form); };
  return database->AddRead(env, std::move(read));
}

napi_value GetSync(napi_env env, const Arguments& arguments) {
  const auto database = HeldBy<Database>(env, arguments[0]);
  const std::string key = ToStoredKey(env, database->Seen(), arguments[1]);
  std::optional<std::string> found;
  if (arguments.IsUndefined(3)) {
    ThrowUnlessOk(*database, database->OpenStore(env).Get(key, &found));
  } else {
    ThrowUnlessOk(*database, SnapshotFor(env, *database, arguments[3])->Get(key, &found));
  }
  return FromFound(env, found, arguments.FormAt(2));
}

// getMany(database, keys, form, snapshot?): an array; with Form::None, of whether each key is there.
napi_value GetMany(napi_env env, const Arguments& arguments) {
  const auto database = HeldBy<Database>(env, arguments[0]);
  const Form form = arguments.FormAt(2);
  auto keys = KeysOf(env, *database, arguments[1]);
  auto found = std::make_shared<std::vector<std::optional<std::string>>>(keys.size());
  auto read = std::make_unique<Operation>();
  read->execute = [found, form, keys = std::move(keys),
                   snapshot = SnapshotFor(env, *database, arguments[3])] {
    for (size_t i = 0; i < keys.size(); ++i) {
      std::optional<std::string>& value = (*found)[i];
      if (const uint32_t status = snapshot->Get(keys[i], &value); status != kStatusOk) return status;
      if (form == Form::None && value.has_value()) value->clear();
    }
    return kStatusOk;
  };
  read->result = [found, form](napi_env envOfResult) {
    napi_value array = nullptr;
    Check(envOfResult, napi_create_array_with_length(envOfResult, found->size(), &array));
    for (uint32_t i = 0; i < found->size(); ++i) {
      const std::optional<std::string>& value = (*found)[i];
      Check(envOfResult, napi_set_element(envOfResult, array, i,
                                          form == Form::None ? FromBool(envOfResult, value.has_value())
                                                             : FromFound(envOfResult, value, form)));
    }
    return array;
  };
  return database->AddRead(env, std::move(read));
}

// has(database, key, snapshot?)
napi_value Has(napi_env env, const Arguments& arguments) {
  const auto database = HeldBy<Database>(env, arguments[0]);
  auto found = std::make_shared<std::optional<std::string>>();
  auto read = std::make_unique<Operation>();
  read->execute = [found, key = ToStoredKey(env, database->Seen(), arguments[1]),
                   snapshot = SnapshotFor(env, *database, arguments[2])] {
    return snapshot->Get(key, found.get());
  };
  read->result = [found](napi_env envOfResult) { return FromBool(envOfResult, found->has_value()); };
  return database->AddRead(env, std::move(read));
}

// put(database, key, value, ttl)
napi_value Put(napi_env env, const Arguments& arguments) {
  const auto database = HeldBy<Database>(env, arguments[0]);
  return database->AddWrite(
      env, [key = ToStoredKey(env, database->Seen(), arguments[1]), value = ToStoredValue(env, arguments[2]),
            ttl = arguments.Uint32(3)](Store& store) { return store.Put(key, value, ttl); });
}

napi_value PutSync(napi_env env, const Arguments& arguments) {
  const auto database = HeldBy<Database>(env, arguments[0]);
  const std::string key = ToStoredKey(env, database->Seen(), arguments[1]);
  const std::string value = ToStoredValue(env, arguments[2]);
  ThrowUnlessOk(*database, database->OpenStore(env).Put(key, value, arguments.Uint32(3)));
  return nullptr;
}

// del(database, key)
napi_value Delete(napi_env env, const Arguments& arguments) {
  const auto database = HeldBy<Database>(env, arguments[0]);
  return database->AddWrite(env, [key = ToStoredKey(env, database->Seen(), arguments[1])](Store& store) {
    return store.Delete(key);
  });
}

napi_value DeleteSync(napi_env env, const Arguments& arguments) {
  const auto database = HeldBy<Database>(env, arguments[0]);
  ThrowUnlessOk(*database, database->OpenStore(env).Delete(ToStoredKey(env, database->Seen(), arguments[1])));
  return nullptr;
}

// The batch of a flat array: key, value, ttl, key, value, ttl, ...; an undefined value deletes.
WriteBatch BatchOf(napi_env env, const Database& database, napi_value array) {
  constexpr uint32_t kStride = 3;
  const uint32_t length = LengthOf(env, array);
  WriteBatch batch;
  for (uint32_t i = 0; i + kStride <= length; i += kStride) {
    const HandleScope scope(env);
    napi_value key = nullptr, value = nullptr, ttl = nullptr;
    Check(env, napi_get_element(env, array, i, &key));
    Check(env, napi_get_element(env, array, i + 1, &value));
    Check(env, napi_get_element(env, array, i + 2, &ttl));
    const std::string storedKey = ToStoredKey(env, database.Seen(), key);
    ThrowUnlessOk(database, IsUndefined(env, value)
                                ? batch.Delete(storedKey)
                                : batch.Put(storedKey, ToStoredValue(env, value), ToUint32(env, ttl)));
  }
  return batch;
}

// batch(database, operations)
napi_value Batch(napi_env env, const Arguments& arguments) {
  const auto database = HeldBy<Database>(env, arguments[0]);
  return database->AddWrite(
      env, [batch = BatchOf(env, *database, arguments[1])](Store& store) { return store.Write(batch); });
}

napi_value BatchSync(napi_env env, const Arguments& arguments) {
  const auto database = HeldBy<Database>(env, arguments[0]);
  ThrowUnlessOk(*database, database->OpenStore(env).Write(BatchOf(env, *database, arguments[1])));
  return nullptr;
}

// (..., lower, lowerInclusive, upper, upperInclusive, reverse), from `first` on; a bound
// that is undefined is none.
IteratorOptions RangeOf(napi_env env, Face face, const Arguments& arguments, size_t first) {
  IteratorOptions options;
  if (!arguments.IsUndefined(first)) {
    options.lower = Bound{ToBound(env, face, arguments[first]), arguments.Bool(first + 1)};
  }
  if (!arguments.IsUndefined(first + 2)) {
    options.upper = Bound{ToBound(env, face, arguments[first + 2]), arguments.Bool(first + 3)};
  }
  options.reverse = arguments.Bool(first + 4);
  return options;
}

// The same as a range of the store; nullopt where a bound is longer than what a store has.
std::optional<Range> ToRange(const IteratorOptions& options) {
  Range range;
  if (options.lower.has_value()) {
    range.from = options.lower->key;
    if (!options.lower->inclusive) range.from.push_back('\0');
  }
  if (options.upper.has_value()) {
    range.to = options.upper->key;
    if (options.upper->inclusive) range.to.push_back('\0');
    if (range.to.empty()) return std::nullopt;  // no key, while the store reads it as every key
  }
  if (range.from.size() > kMaxStoredKeySize || range.to.size() > kMaxStoredKeySize) return std::nullopt;
  return range;
}

// The limit of a walk: a number, where a negative one is none.
uint64_t LimitAt(napi_env env, const Arguments& arguments, size_t index) {
  int64_t limit = 0;
  Check(env, napi_get_value_int64(env, arguments[index], &limit));
  return limit < 0 ? UINT64_MAX : static_cast<uint64_t>(limit);
}

// Deletes the entries of `range` that `snapshot` has, or the store when the write comes to run.
uint32_t ClearEntries(Store& store, const std::shared_ptr<Database>& database,
                      std::shared_ptr<const Snapshot> snapshot, IteratorOptions range, uint64_t limit,
                      size_t maxBatchSize) {
  if (snapshot == nullptr) {
    std::unique_ptr<Snapshot> taken;
    if (const uint32_t status = store.TakeSnapshot(&taken); status != kStatusOk) return status;
    snapshot = std::move(taken);
  }
  std::shared_ptr<Iterator> iterator;
  range.values = Form::None;
  if (const uint32_t status = Iterator::Create(database, *snapshot, std::move(range), &iterator);
      status != kStatusOk) {
    return status;
  }
  return iterator->DeleteFrom(store, limit, maxBatchSize);
}

// clear(database, lower, lowerInclusive, upper, upperInclusive, reverse, limit, snapshot?, logSize)
napi_value Clear(napi_env env, const Arguments& arguments) {
  const auto database = HeldBy<Database>(env, arguments[0]);
  IteratorOptions range = RangeOf(env, database->Seen(), arguments, 1);
  const uint64_t limit = LimitAt(env, arguments, 6);
  const bool all = limit == UINT64_MAX && arguments.IsUndefined(7);
  if (all && !range.lower.has_value() && !range.upper.has_value()) {
    return database->AddWrite(env, [](Store& store) { return store.Clear(); });
  }
  if (all) {
    if (std::optional<Range> whole = ToRange(range); whole.has_value()) {
      return database->AddWrite(
          env, [range = *std::move(whole)](Store& store) { return store.DeleteRange(range); });
    }
  }
  std::shared_ptr<const Snapshot> snapshot;
  if (!arguments.IsUndefined(7)) snapshot = SnapshotFor(env, *database, arguments[7]);
  return database->AddWrite(env, [database, range = std::move(range), limit, snapshot = std::move(snapshot),
                                  maxBatchSize = arguments.Uint32(8) - kLogHeaderSize](Store& store) {
    return ClearEntries(store, database, snapshot, range, limit, maxBatchSize);
  });
}

// snapshot(database)
napi_value TakeSnapshot(napi_env env, const Arguments& arguments) {
  auto database = HeldBy<Database>(env, arguments[0]);
  auto snapshot = SnapshotFor(env, *database, Undefined(env));
  return HandOut(env, std::make_shared<SnapshotHandle>(std::move(database), std::move(snapshot)));
}

napi_value CloseSnapshot(napi_env env, const Arguments& arguments) {
  HeldBy<SnapshotHandle>(env, arguments[0])->Close();
  return nullptr;
}

// iterator(database, lower, lowerInclusive, upper, upperInclusive, reverse, keyForm, valueForm, snapshot?)
napi_value CreateIterator(napi_env env, const Arguments& arguments) {
  const auto database = HeldBy<Database>(env, arguments[0]);
  IteratorOptions options = RangeOf(env, database->Seen(), arguments, 1);
  options.keys = arguments.FormAt(6);
  options.values = arguments.FormAt(7);
  std::shared_ptr<Iterator> iterator;
  ThrowUnlessOk(*database, Iterator::Create(database, *SnapshotFor(env, *database, arguments[8]),
                                            std::move(options), &iterator));
  return HandOut(env, std::move(iterator));
}

// iteratorSeek(iterator, target)
napi_value SeekIterator(napi_env env, const Arguments& arguments) {
  const auto iterator = HeldBy<Iterator>(env, arguments[0]);
  iterator->Seek(ToBound(env, iterator->Of()->Seen(), arguments[1]));
  return nullptr;
}

// A flat array: key, value, key, value, ..., or one of them only, and at its end whether there are no more.
napi_value FromEntries(napi_env env, const Iterator& iterator, const Iterator::Entries& read) {
  const IteratorOptions& options = iterator.Options();
  const bool keys = options.keys != Form::None, values = options.values != Form::None;
  napi_value array = nullptr;
  const size_t perEntry = static_cast<size_t>(keys) + static_cast<size_t>(values);
  Check(env, napi_create_array_with_length(env, read.entries.size() * perEntry + 1, &array));
  uint32_t index = 0;
  for (const Iterator::Entry& entry : read.entries) {
    const HandleScope scope(env);
    if (keys) Check(env, napi_set_element(env, array, index++, FromBytes(env, entry.key, options.keys)));
    if (values)
      Check(env, napi_set_element(env, array, index++, FromBytes(env, entry.value, options.values)));
  }
  Check(env, napi_set_element(env, array, index, FromBool(env, read.ended)));
  return array;
}

// iteratorRead(iterator, count, maxBytes)
napi_value ReadIterator(napi_env env, const Arguments& arguments) {
  const auto iterator = HeldBy<Iterator>(env, arguments[0]);
  auto entries = std::make_shared<Iterator::Entries>();
  auto read = std::make_unique<Operation>();
  read->execute = [iterator, entries, count = arguments.Uint32(1), maxBytes = arguments.Uint32(2)] {
    return iterator->Read(count, maxBytes, entries.get());
  };
  read->result = [iterator, entries](napi_env envOfResult) {
    return FromEntries(envOfResult, *iterator, *entries);
  };
  return iterator->Of()->AddRead(env, std::move(read));
}

napi_value ReadIteratorSync(napi_env env, const Arguments& arguments) {
  const auto iterator = HeldBy<Iterator>(env, arguments[0]);
  Iterator::Entries entries;
  ThrowUnlessOk(*iterator->Of(), iterator->Read(arguments.Uint32(1), arguments.Uint32(2), &entries));
  return FromEntries(env, *iterator, entries);
}

napi_value AbortIterator(napi_env env, const Arguments& arguments) {
  HeldBy<Iterator>(env, arguments[0])->Abort();
  return nullptr;
}

// Not while a read is under way.
napi_value CloseIterator(napi_env env, const Arguments& arguments) {
  HeldBy<Iterator>(env, arguments[0])->Close();
  return nullptr;
}

napi_value Flush(napi_env env, const Arguments& arguments) {
  return HeldBy<Database>(env, arguments[0])->AddCall(env, [](Store& store) { return store.Flush(); });
}

napi_value Compact(napi_env env, const Arguments& arguments) {
  return HeldBy<Database>(env, arguments[0])->AddCall(env, [](Store& store) { return store.Compact(); });
}

napi_value Sync(napi_env env, const Arguments& arguments) {
  return HeldBy<Database>(env, arguments[0])->AddCall(env, [](Store& store) { return store.Sync(); });
}

// checkpoint(database, directory)
napi_value Checkpoint(napi_env env, const Arguments& arguments) {
  return HeldBy<Database>(env, arguments[0])->AddCall(env, [directory = arguments.Text(1)](Store& store) {
    return store.Checkpoint(directory);
  });
}

struct Export {
  const char* name;
  napi_callback function;
};

constexpr Export kExports[] = {
    {"create", &Guarded<&Create>},
    {"open", &Guarded<&Open>},
    {"openSync", &Guarded<&OpenSync>},
    {"close", &Guarded<&Close>},
    {"closeSync", &Guarded<&CloseSync>},
    {"get", &Guarded<&Get>},
    {"getSync", &Guarded<&GetSync>},
    {"getMany", &Guarded<&GetMany>},
    {"has", &Guarded<&Has>},
    {"put", &Guarded<&Put>},
    {"putSync", &Guarded<&PutSync>},
    {"del", &Guarded<&Delete>},
    {"delSync", &Guarded<&DeleteSync>},
    {"batch", &Guarded<&Batch>},
    {"batchSync", &Guarded<&BatchSync>},
    {"clear", &Guarded<&Clear>},
    {"snapshot", &Guarded<&TakeSnapshot>},
    {"snapshotClose", &Guarded<&CloseSnapshot>},
    {"iterator", &Guarded<&CreateIterator>},
    {"iteratorSeek", &Guarded<&SeekIterator>},
    {"iteratorRead", &Guarded<&ReadIterator>},
    {"iteratorReadSync", &Guarded<&ReadIteratorSync>},
    {"iteratorAbort", &Guarded<&AbortIterator>},
    {"iteratorClose", &Guarded<&CloseIterator>},
    {"flush", &Guarded<&Flush>},
    {"compact", &Guarded<&Compact>},
    {"sync", &Guarded<&Sync>},
    {"checkpoint", &Guarded<&Checkpoint>},
};

napi_value FillExports(napi_env env, napi_value exports) {
  for (const Export& function : kExports) {
    const napi_property_descriptor property = {function.name, nullptr, function.function, nullptr,
                                               nullptr,       nullptr, napi_enumerable,   nullptr};
    if (napi_define_properties(env, exports, 1, &property) != napi_ok) return nullptr;
  }
  return exports;
}

}  // namespace

}  // namespace Kestrun::Script

namespace {

// Not const: the host owns the descriptor's reserved words once it is registered. The name
// is that of the file.
napi_module storeModule = {1,
                           0,
                           nullptr,
                           &Kestrun::Script::FillExports,
                           "kestrunstore",
                           nullptr,
                           {nullptr, nullptr, nullptr, nullptr}};

// The library that this module is linked with is a module of its own and registers when it is
// loaded. A host takes what registered last for the module that it is loading: this one, because
// what it is linked with is loaded first. The function that a host would look up otherwise is asked
// for only where nothing has registered.
__attribute__((constructor)) void RegisterStoreModule() {
  napi_module_register(&storeModule);
}

}  // namespace

#ifndef KESTRUN_OHOS
// A host that has loaded the module before, for another thread, finds it by this name.
NAPI_MODULE_INIT() {
  return Kestrun::Script::FillExports(env, exports);
}
#endif
