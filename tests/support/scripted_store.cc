#include "tests/support/scripted_store.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <optional>

#include "kestrun/status.h"

namespace Kestrun::Testing {
namespace {

constexpr unsigned int kTtlSeconds = 86400;

// The text begins with its own number and size, and goes on with letters that depend on both.
std::string ValueOf(int number, uint32_t size) {
  std::string value = std::to_string(number) + "/" + std::to_string(size) + "/";
  for (uint32_t i = static_cast<uint32_t>(value.size()); i < size; ++i) {
    value += static_cast<char>('a' + (static_cast<uint32_t>(number) * 7 + i) % 26);
  }
  value.resize(size);
  return value;
}

int NumberOf(const std::string& value) {
  int number = 0;
  unsigned int size = 0;
  if (std::sscanf(value.c_str(), "%d/%u/", &number, &size) != 2) return kForeign;
  return size == value.size() && value == ValueOf(number, size) ? number : kForeign;
}

// The key of this name, or -1.
int KeyNamed(std::string_view name) {
  for (int key = 0; key < kScriptKeys; ++key) {
    if (ScriptKey(key) == name) return key;
  }
  return -1;
}

std::string FormatOf(int type) {
  return "Type" + std::to_string(type) + " number:%i4,text:%s,share:%d";
}

bool IsOneOf(uint32_t status, std::initializer_list<uint32_t> statuses) {
  for (const uint32_t other : statuses) {
    if (status == other) return true;
  }
  return false;
}

}  // namespace

std::string ScriptKey(int key) {
  char name[32];
  if (key < kPlainKeys) {
    std::snprintf(name, sizeof(name), "user-%02d", key);
    return name;
  }
  if (key < kFirstRecordKey) return std::string(60, static_cast<char>('p' + key - kPlainKeys));
  std::snprintf(name, sizeof(name), "record-%02d", key - kFirstRecordKey);
  return name;
}

void InsertKeys(Script* script, int first, int last, uint32_t size) {
  for (int key = first; key <= last; ++key) {
    script->push_back({Step::Kind::Insert, key, 0, size + static_cast<uint32_t>(key) % 7 * 4});
  }
}

const char* StepName(Step::Kind kind) {
  switch (kind) {
    case Step::Kind::Open:
      return "Open";
    case Step::Kind::Close:
      return "Close";
    case Step::Kind::Insert:
      return "Insert";
    case Step::Kind::Batch:
      return "Write";
    case Step::Kind::Transact:
      return "Transact";
    case Step::Kind::Delete:
      return "Delete";
    case Step::Kind::DeleteRange:
      return "DeleteByRange";
    case Step::Kind::Flush:
      return "ResetWal";
    case Step::Kind::Compact:
      return "ForceCompact";
    case Step::Kind::Clear:
      return "Clear";
    case Step::Kind::CreateType:
      return "CreateRecordMeta";
    case Step::Kind::Append:
      return "AppendRecord";
    case Step::Kind::Get:
      return "Get";
    case Step::Kind::Contains:
      return "Contains";
    case Step::Kind::Scan:
      return "EnumerateKeys";
    case Step::Kind::Sync:
      return "Sync";
    case Step::Kind::Checkpoint:
      return "Checkpoint";
    case Step::Kind::Merge:
      return "a merge";
  }
  return "?";
}

std::string Describe(int number, const Step& step) {
  return "step " + std::to_string(number) + ", " + StepName(step.kind) + " " + ScriptKey(step.key);
}

std::vector<std::pair<int, int>> WritesOf(int number, const Step& step) {
  std::vector<std::pair<int, int>> writes;
  switch (step.kind) {
    case Step::Kind::Insert:
    case Step::Kind::Append:
      writes.emplace_back(step.key, number);
      break;
    case Step::Kind::Delete:
      writes.emplace_back(step.key, kAbsent);
      break;
    case Step::Kind::Batch:
    case Step::Kind::Transact:
      for (int key = step.key; key < step.end; ++key) {
        writes.emplace_back(key, key + 1 == step.end ? kAbsent : number);
      }
      break;
    case Step::Kind::DeleteRange:
      for (int key = step.key; key < step.end; ++key) writes.emplace_back(key, kAbsent);
      break;
    default:
      break;
  }
  return writes;
}

bool IsAtomic(Step::Kind kind, Face face) {
  const bool isRange = kind == Step::Kind::DeleteRange && face == Face::Safe;
  return kind == Step::Kind::Batch || kind == Step::Kind::Transact || isRange;
}

StoreModel::StoreModel(Face face)
    : face_(face), possible_(kScriptKeys, {kAbsent}), inBlocks_(kScriptKeys, {kAbsent}) {}

void StoreModel::Apply(int number, const Step& step, Outcome outcome) {
  const bool done = outcome == Outcome::Done;
  const auto write = [&](int key, int value) {
    for (PendingBatch& batch : pending_) batch.writes.erase(key);
    if (done) possible_[Index(key)].clear();
    possible_[Index(key)].insert(value);
    inBlocks_[Index(key)].insert(value);  // any later write may flush it
  };
  if (step.kind == Step::Kind::Flush && done) inBlocks_ = possible_;
  if (step.kind == Step::Kind::Clear) {
    for (int key = 0; key < kScriptKeys; ++key) {
      // Store drops the blocks before the log.
      if (!done && face_ == Face::Older) {
        possible_[Index(key)].insert(inBlocks_[Index(key)].begin(), inBlocks_[Index(key)].end());
      }
      write(key, kAbsent);
      if (done) inBlocks_[Index(key)] = {kAbsent};
    }
    return;
  }
  PendingBatch batch = {number, {}};
  for (const auto& [key, value] : WritesOf(number, step)) {
    batch.writes[key] = {possible_[Index(key)], value};
    write(key, value);
  }
  if (!done && IsAtomic(step.kind, face_)) pending_.push_back(std::move(batch));
}

// A batch is there when one of its keys shows what can't have been before, and is not when one shows what the
// batch does not write.
std::string StoreModel::FindTornBatch(const std::vector<int>& found) const {
  for (const PendingBatch& batch : pending_) {
    bool isThere = false;
    bool isMissing = false;
    for (const auto& [key, write] : batch.writes) {
      const int value = found[Index(key)];
      if (value != write.after) isMissing = true;
      if (value == write.after && write.before.count(value) == 0) isThere = true;
    }
    if (isThere && isMissing) return "step " + std::to_string(batch.number) + " is there in part";
  }
  return "";
}

std::string StoreModel::Expected(int key) const {
  std::string text;
  for (const int value : possible_[Index(key)]) {
    if (!text.empty()) text += " or ";
    text += value == kAbsent ? "none" : std::to_string(value);
  }
  return text;
}

uint32_t ScriptedStore::Open(uint32_t walSize) {
  if (face_ == Face::Safe) {
    StoreOptions options;
    options.logSize = walSize;
    options.autoCompact = false;
    options.busyTimeout = 0;
    std::unique_ptr<Store> store;
    const uint32_t status = Call([&] { return Store::Open(path_, options, &store); });
    store_ = std::move(store);
    return status;
  }
  LSDBConfig config = {};
  config.walSize = walSize;
  LSDBImpl* engine = nullptr;
  if (const uint32_t status = Call([&] { return LSDBImpl::Open(path_, config, &engine); });
      status != kStatusOk) {
    return status;
  }
  std::unique_ptr<LSDBImpl> opened(engine);

  SeriesConfig seriesConfig = {};
  seriesConfig.walSize = walSize;
  Series* series = nullptr;
  if (const uint32_t status = Call([&] { return Series::Open(path_, seriesConfig, &series); });
      status != kStatusOk) {
    return status;
  }
  engine_ = std::move(opened);
  series_.reset(series);
  return kStatusOk;
}

void ScriptedStore::Close() {
  Call([this] {
    series_.reset();
    engine_.reset();
    store_.reset();
    return 0;
  });
}

// A transaction writes the same as a batch, under keys that it has read.
uint32_t ScriptedStore::WriteAll(int number, const Step& step) {
  const std::string value = ValueOf(number, step.size);
  std::vector<std::string> names;
  for (int key = step.key; key < step.end; ++key) names.push_back(ScriptKey(key));
  const auto write = [&](auto& target, const std::string& name) {
    return &name == &names.back() ? target.Delete(name) : target.Put(name, value, kTtlSeconds);
  };
  if (step.kind == Step::Kind::Transact) {
    const std::function<uint32_t(Transaction&)> body = [&](Transaction& transaction) {
      for (const std::string& name : names) {
        std::optional<std::string> found;
        uint32_t status = transaction.Get(name, &found);
        if (status == kStatusOk) status = write(transaction, name);
        if (status != kStatusOk) return status;
      }
      return kStatusOk;
    };
    return Call([&] { return store_->Transact(body); });
  }
  WriteBatch batch;
  return Call([&] {
    for (const std::string& name : names) {
      if (const uint32_t status = write(batch, name); status != kStatusOk) return status;
    }
    return store_->Write(batch);
  });
}

// Through a cursor on a snapshot of its own.
uint32_t ScriptedStore::Scan(std::vector<int>* found) {
  std::unique_ptr<Snapshot> snapshot;
  std::unique_ptr<Cursor> cursor;
  const Range all = Range::All();
  uint32_t status = Call([&] { return store_->TakeSnapshot(&snapshot); });
  if (status == kStatusOk) status = Call([&] { return snapshot->NewCursor(all, &cursor); });
  if (status != kStatusOk) return status;
  std::vector<int> values(kScriptKeys, kAbsent);
  const auto move = [&](void (Cursor::*step)()) {
    Call([&] {
      (cursor.get()->*step)();
      return 0;
    });
  };
  for (move(&Cursor::SeekToFirst); cursor->Valid(); move(&Cursor::Next)) {
    std::string_view value;
    status = Call([&] { return cursor->Value(&value); });
    if (status != kStatusOk) return status;
    const int key = KeyNamed(cursor->Key());
    if (key < 0) return kStatusInvalid;
    values[static_cast<size_t>(key)] = NumberOf(std::string(value));
  }
  if (cursor->Status() != kStatusOk) return cursor->Status();
  *found = std::move(values);
  return kStatusOk;
}

uint32_t ScriptedStore::Append(int number, const Step& step) {
  const Key key(ScriptKey(step.key));
  const std::string text = ValueOf(number, step.size);
  if (face_ == Face::Safe) {
    const std::string name = ScriptKey(step.key);
    return Call([&] { return store_->Put(name, text, kTtlSeconds); });
  }
  const std::string format = FormatOf(step.end);
  return Call([&] {
    return series_->AppendRecord(key, kTtlSeconds, format.c_str(), number, text.c_str(), number / 2.0);
  });
}

// A tombstone has no time to live: a second later a block that holds it answers as for any expired
// entry. The key is gone in any case. Where the entry is no tombstone, its writer may have put a value there
// between the two calls; then the value can be read, or the key has been deleted once more.
uint32_t ScriptedStore::Find(int key, int* found) {
  constexpr int kTries = 100;
  const Key name(ScriptKey(key));
  uint32_t status = kStatusOk;
  for (int i = 0; i < kTries; ++i) {
    status = Read(key, found);
    if (status != kStatusInvalid || face_ == Face::Safe) return status;
    DataEntry entry = {};
    const uint32_t entryStatus = Call([&] { return engine_->GetDataEntry(name, entry); });
    if (entryStatus == kStatusOk && !entry.deleted) continue;
    *found = kAbsent;
    return entryStatus;
  }
  return status;
}

uint32_t ScriptedStore::Read(int key, int* found) {
  *found = kAbsent;
  const Key name(ScriptKey(key));
  if (face_ == Face::Safe) {
    const std::string text = ScriptKey(key);
    std::optional<std::string> value;
    const uint32_t status = Call([&] { return store_->Get(text, &value); });
    if (status == kStatusOk && value.has_value()) *found = NumberOf(*value);
    return status;
  }
  if (key >= kFirstRecordKey) {
    Record* record = nullptr;
    const uint32_t status = Call([&] { return series_->Get(name, &record); });
    const std::unique_ptr<Record> owner(record);
    if (status != kStatusOk || record == nullptr) return status;
    *found = NumberOf(record->GetValue("text").str);
    const bool whole = record->GetValue("number").numeric.i32 == *found &&
                       record->GetValue("share").numeric.f64 == *found / 2.0;
    if (!whole) *found = kForeign;
    return status;
  }
  const void* value = nullptr;
  unsigned int size = 0;
  const uint32_t status = Call([&] { return engine_->Get(name, &value, &size); });
  if (status == kStatusOk && value != nullptr) {
    *found = NumberOf(std::string(static_cast<const char*>(value), size));
    std::free(const_cast<void*>(value));
  }
  return status;
}

ScriptedStore::Result ScriptedStore::Run(int number, const Step& step) {
  Result result;
  if (step.kind == Step::Kind::Open) {
    result.ran = true;
    result.status = Open(step.size);
    return result;
  }
  if (!IsOpen()) return result;

  result.ran = true;
  if (step.kind == Step::Kind::Close) {
    Close();
  } else if (step.kind == Step::Kind::Append) {
    result.status = Append(number, step);
  } else if (step.kind == Step::Kind::Get) {
    result.status = Find(step.key, &result.found);
  } else if (face_ == Face::Older) {
    RunOlder(number, step, &result);
  } else {
    RunSafe(number, step, &result);
  }
  return result;
}

void ScriptedStore::RunOlder(int number, const Step& step, Result* result) {
  const Key key(ScriptKey(step.key));
  switch (step.kind) {
    case Step::Kind::Insert: {
      const std::string value = ValueOf(number, step.size);
      result->status = Call([&] { return engine_->Insert(key, kTtlSeconds, value.data(), step.size); });
      break;
    }
    case Step::Kind::Delete:
      result->status = Call([&] { return engine_->Delete(key); });
      break;
    case Step::Kind::DeleteRange: {
      const Key end(ScriptKey(step.end));
      result->status = Call([&] { return engine_->DeleteByRange(key, end); });
      break;
    }
    case Step::Kind::Flush:
      result->status = Call([&] { return engine_->ResetWal(); });
      break;
    case Step::Kind::Compact:
      result->status = Call([&] { return engine_->ForceCompact(); });
      break;
    case Step::Kind::Clear:
      result->status = Call([&] { return engine_->Clear(); });
      break;
    case Step::Kind::CreateType: {
      const std::string format = FormatOf(step.end);
      const bool created = Call([&] { return series_->CreateRecordMeta(format) != nullptr; });
      result->status = created ? kStatusOk : kStatusNoMemory;
      break;
    }
    case Step::Kind::Contains:
      result->contains = Call([&] { return engine_->Contains(key); });
      break;
    case Step::Kind::Scan: {
      const std::function<bool(const Key&)> visit = [](const Key&) { return false; };
      result->status = Call([&] { return engine_->EnumerateKeys(Key::MinKey(), Key::MaxKey(), visit); });
      break;
    }
    default:
      result->ran = false;
  }
}

void ScriptedStore::RunSafe(int number, const Step& step, Result* result) {
  const std::string key = ScriptKey(step.key);
  switch (step.kind) {
    case Step::Kind::Insert: {
      const std::string value = ValueOf(number, step.size);
      result->status = Call([&] { return store_->Put(key, value, kTtlSeconds); });
      break;
    }
    case Step::Kind::Batch:
    case Step::Kind::Transact:
      result->status = WriteAll(number, step);
      break;
    case Step::Kind::Delete:
      result->status = Call([&] { return store_->Delete(key); });
      break;
    case Step::Kind::DeleteRange: {
      const Range range = {key, ScriptKey(step.end)};
      result->status = Call([&] { return store_->DeleteRange(range); });
      break;
    }
    case Step::Kind::Flush:
      result->status = Call([&] { return store_->Flush(); });
      break;
    case Step::Kind::Compact:
      result->status = Call([&] { return store_->Compact(); });
      break;
    case Step::Kind::Clear:
      result->status = Call([&] { return store_->Clear(); });
      break;
    case Step::Kind::Sync:
      result->status = Call([&] { return store_->Sync(); });
      break;
    case Step::Kind::Checkpoint: {
      const std::string copy = CopyPath(path_, step.end);
      result->status = Call([&] { return store_->Checkpoint(copy); });
      break;
    }
    case Step::Kind::Merge:
      result->status = Call([&] { return merge_(path_); });
      break;
    case Step::Kind::Contains:
      result->status = Call([&] { return store_->Contains(key, &result->contains); });
      break;
    case Step::Kind::Scan:
      result->status = Scan(&result->scanned);
      break;
    default:
      result->ran = false;
  }
}

std::string ScriptedStore::Verify(StoreModel* model) {
  if (!IsOpen()) return "the store is not open";
  return face_ == Face::Older ? VerifyOlder(model) : VerifySafe(model);
}

std::string ScriptedStore::VerifyOlder(StoreModel* model) {
  std::set<std::string> reported;
  const uint32_t status = engine_->EnumerateKeys(Key::MinKey(), Key::MaxKey(), [&reported](const Key& key) {
    reported.emplace(reinterpret_cast<const char*>(key.Data()), key.Size());
    return false;
  });
  if (status != kStatusOk) return "EnumerateKeys gives " + std::to_string(status);

  for (int key = 0; key < kScriptKeys; ++key) {
    const std::string name = ScriptKey(key);
    int found = kAbsent;
    if (const uint32_t got = Find(key, &found); got != kStatusOk) {
      return "Get of " + name + " gives " + std::to_string(got);
    }
    if (!model->Allows(key, found)) {
      return name + " holds " + std::to_string(found) + " where " + model->Expected(key) + " was expected";
    }
    const bool present = found != kAbsent;
    if (engine_->Contains(Key(name)) != present) return "Contains is wrong about " + name;
    if (present && reported.count(name) == 0) return "EnumerateKeys leaves out " + name;
    reported.erase(name);
    model->Settle(key, found);
  }
  return reported.empty() ? "" : "EnumerateKeys reports a key that nobody wrote: " + *reported.begin();
}

// Get, Contains, a cursor, and what is read from the files beside the open store: all of them have to agree.
std::string ScriptedStore::VerifySafe(StoreModel* model) {
  std::vector<int> found(kScriptKeys, kAbsent);
  for (int key = 0; key < kScriptKeys; ++key) {
    const std::string name = ScriptKey(key);
    int& value = found[static_cast<size_t>(key)];
    if (const uint32_t got = Find(key, &value); got != kStatusOk) {
      return "Get of " + name + " gives " + std::to_string(got);
    }
    if (!model->Allows(key, value)) {
      return name + " holds " + std::to_string(value) + " where " + model->Expected(key) + " was expected";
    }
    bool contains = false;
    if (const uint32_t asked = store_->Contains(name, &contains); asked != kStatusOk) {
      return "Contains of " + name + " gives " + std::to_string(asked);
    }
    if (contains != (value != kAbsent)) return "Contains is wrong about " + name;
  }
  if (std::string torn = model->FindTornBatch(found); !torn.empty()) return torn;

  std::vector<int> other;
  if (const uint32_t status = Scan(&other); status != kStatusOk) {
    return "a walk over all keys gives " + std::to_string(status);
  }
  if (other != found) return "a walk over all keys shows something else than Get";
  uint32_t status = kStatusOk;
  if (std::string wrong = ReadThroughSnapshot(path_, &status, &other); !wrong.empty()) return wrong;
  if (status != kStatusOk) return "Snapshot::Open gives " + std::to_string(status);
  if (other != found) return "Snapshot::Open shows something else than Get";
  for (int key = 0; key < kScriptKeys; ++key) model->Settle(key, found[static_cast<size_t>(key)]);
  return "";
}

std::string ReadThroughSnapshot(const std::string& path, uint32_t* status, std::vector<int>* found) {
  std::unique_ptr<Snapshot> snapshot;
  *status = Snapshot::Open(path, &snapshot);
  if (*status != kStatusOk) return "";
  found->assign(kScriptKeys, kAbsent);
  size_t present = 0;
  for (int key = 0; key < kScriptKeys; ++key) {
    std::optional<std::string> value;
    if (const uint32_t got = snapshot->Get(ScriptKey(key), &value); got != kStatusOk) {
      return "Snapshot::Get of " + ScriptKey(key) + " gives " + std::to_string(got);
    }
    if (!value.has_value()) continue;
    (*found)[static_cast<size_t>(key)] = NumberOf(*value);
    ++present;
  }

  std::unique_ptr<Cursor> cursor;
  if (const uint32_t made = snapshot->NewCursor(Range::All(), &cursor); made != kStatusOk) {
    return "NewCursor gives " + std::to_string(made);
  }
  for (const bool forward : {true, false}) {
    size_t seen = 0;
    std::string last;
    for (forward ? cursor->SeekToFirst() : cursor->SeekToLast(); cursor->Valid();
         forward ? cursor->Next() : cursor->Prev()) {
      const std::string name(cursor->Key());
      const int key = KeyNamed(name);
      if (key < 0) return "a cursor shows a key that nobody wrote, " + std::to_string(name.size()) + " bytes";
      if (seen++ != 0 && (forward ? name <= last : name >= last))
        return "a cursor leaves the order at " + name;
      last = name;
      std::string_view value;
      if (const uint32_t read = cursor->Value(&value); read != kStatusOk) {
        return "a cursor's value of " + name + " gives " + std::to_string(read);
      }
      if (NumberOf(std::string(value)) != (*found)[static_cast<size_t>(key)]) {
        return "a cursor shows another value of " + name + " than Get";
      }
      const DataEntry& entry = cursor->Entry();
      if (entry.deleted || entry.valueSize != value.size()) return "a cursor's entry is wrong about " + name;
    }
    if (cursor->Status() != kStatusOk) return "a cursor ends with " + std::to_string(cursor->Status());
    if (seen != present) return "a cursor leaves out keys";
  }
  return "";
}

namespace {

// What Store's header says.
bool IsExpectedFailureOfStore(Step::Kind kind, uint32_t status) {
  const bool flushFailed =
      IsOneOf(status, {kStatusOpenFailed, kStatusStatFailed, kStatusCreateFailed, kStatusBlockWriteFailed,
                       kStatusSyncFailed, kStatusManifestWriteFailed, kStatusTruncateFailed,
                       kStatusSeekFailed, kStatusManifestUnreadable});
  const bool readFailed = IsOneOf(status, {kStatusBlockShortRead, kStatusOpenFailed, kStatusStatFailed,
                                           kStatusMapFailed, kStatusManifestUnreadable, kStatusNoPermission});
  switch (kind) {
    case Step::Kind::Open:
      return IsOneOf(status, {kStatusDirectoryFailed, kStatusNoPermission, kStatusManifestUnreadable,
                              kStatusCreateFailed, kStatusOpenFailed, kStatusWalOpenFailed, kStatusStatFailed,
                              kStatusMapFailed});
    case Step::Kind::Insert:
    case Step::Kind::Append:
    case Step::Kind::Batch:
    case Step::Kind::Delete:
    case Step::Kind::Flush:
    case Step::Kind::Clear:
      return flushFailed;
    case Step::Kind::Transact:
    case Step::Kind::DeleteRange:
    case Step::Kind::Compact:
      return flushFailed || readFailed;
    case Step::Kind::Merge:  // opens the log for itself
      return flushFailed || readFailed || status == kStatusWalOpenFailed;
    case Step::Kind::Get:
    case Step::Kind::Contains:
    case Step::Kind::Scan:
      return readFailed;
    case Step::Kind::Sync:
      return status == kStatusSyncFailed;
    case Step::Kind::Checkpoint:
      return readFailed || IsOneOf(status, {kStatusDirectoryFailed, kStatusCreateFailed, kStatusSyncFailed,
                                            kStatusNoPermission});
    default:
      return false;
  }
}

}  // namespace

bool IsExpectedFailure(Step::Kind kind, uint32_t status, Face face) {
  if (IsOneOf(status, {kStatusLockFailed, kStatusNoMemory})) return true;
  if (face == Face::Safe) return IsExpectedFailureOfStore(kind, status);
  const bool flushFailed =
      IsOneOf(status, {kStatusOpenFailed, kStatusStatFailed, kStatusCreateFailed, kStatusBlockWriteFailed,
                       kStatusSyncFailed, kStatusManifestWriteFailed, kStatusTruncateFailed,
                       kStatusSeekFailed, kStatusManifestUnreadable});
  switch (kind) {
    case Step::Kind::Open:
      return IsOneOf(status,
                     {kStatusDirectoryFailed, kStatusManifestUnreadable, kStatusStatFailed, kStatusMapFailed,
                      kStatusSeekFailed, kStatusCreateFailed, kStatusWalOpenFailed, kStatusOpenFailed});
    case Step::Kind::Insert:
    case Step::Kind::Delete:
    case Step::Kind::Flush:
      return flushFailed;
    case Step::Kind::Append:
      return flushFailed || status == kStatusInvalid;
    case Step::Kind::Compact:
      return flushFailed || status == kStatusBlockShortRead;
    case Step::Kind::Clear:
      return status == kStatusOpenFailed;
    case Step::Kind::Get:
      return IsOneOf(status,
                     {kStatusOpenFailed, kStatusStatFailed, kStatusBlockShortRead, kStatusRecordTypeUnknown});
    default:
      return false;
  }
}

}  // namespace Kestrun::Testing
