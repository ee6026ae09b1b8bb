#include "tests/support/scripted_store.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <initializer_list>

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
  }
  return "?";
}

std::string Describe(int number, const Step& step) {
  return "step " + std::to_string(number) + ", " + StepName(step.kind) + " " + ScriptKey(step.key);
}

StoreModel::StoreModel() : possible_(kScriptKeys, {kAbsent}), inBlocks_(kScriptKeys, {kAbsent}) {}

void StoreModel::Apply(int number, const Step& step, Outcome outcome) {
  const bool done = outcome == Outcome::Done;
  const auto write = [&](int key, int value) {
    if (done) possible_[Index(key)].clear();
    possible_[Index(key)].insert(value);
    inBlocks_[Index(key)].insert(value);  // any later write may flush it
  };
  switch (step.kind) {
    case Step::Kind::Insert:
    case Step::Kind::Append:
      write(step.key, number);
      break;
    case Step::Kind::Delete:
      write(step.key, kAbsent);
      break;
    case Step::Kind::DeleteRange:
      for (int key = step.key; key < step.end; ++key) write(key, kAbsent);
      break;
    case Step::Kind::Flush:
      if (done) inBlocks_ = possible_;
      break;
    case Step::Kind::Clear:
      for (int key = 0; key < kScriptKeys; ++key) {
        if (!done) possible_[Index(key)].insert(inBlocks_[Index(key)].begin(), inBlocks_[Index(key)].end());
        write(key, kAbsent);
        if (done) inBlocks_[Index(key)] = {kAbsent};
      }
      break;
    default:
      break;
  }
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
    return 0;
  });
}

uint32_t ScriptedStore::Append(int number, const Step& step) {
  const Key key(ScriptKey(step.key));
  const std::string text = ValueOf(number, step.size);
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
    if (status != kStatusInvalid) return status;
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
  const Key key(ScriptKey(step.key));
  switch (step.kind) {
    case Step::Kind::Close:
      Close();
      break;
    case Step::Kind::Insert: {
      const std::string value = ValueOf(number, step.size);
      result.status = Call([&] { return engine_->Insert(key, kTtlSeconds, value.data(), step.size); });
      break;
    }
    case Step::Kind::Delete:
      result.status = Call([&] { return engine_->Delete(key); });
      break;
    case Step::Kind::DeleteRange: {
      const Key end(ScriptKey(step.end));
      result.status = Call([&] { return engine_->DeleteByRange(key, end); });
      break;
    }
    case Step::Kind::Flush:
      result.status = Call([&] { return engine_->ResetWal(); });
      break;
    case Step::Kind::Compact:
      result.status = Call([&] { return engine_->ForceCompact(); });
      break;
    case Step::Kind::Clear:
      result.status = Call([&] { return engine_->Clear(); });
      break;
    case Step::Kind::CreateType: {
      const std::string format = FormatOf(step.end);
      const bool created = Call([&] { return series_->CreateRecordMeta(format) != nullptr; });
      result.status = created ? kStatusOk : kStatusNoMemory;
      break;
    }
    case Step::Kind::Append:
      result.status = Append(number, step);
      break;
    case Step::Kind::Get:
      result.status = Find(step.key, &result.found);
      break;
    case Step::Kind::Contains:
      result.contains = Call([&] { return engine_->Contains(key); });
      break;
    case Step::Kind::Scan: {
      const std::function<bool(const Key&)> visit = [](const Key&) { return false; };
      result.status = Call([&] { return engine_->EnumerateKeys(Key::MinKey(), Key::MaxKey(), visit); });
      break;
    }
    case Step::Kind::Open:
      break;
  }
  return result;
}

std::string ScriptedStore::Verify(StoreModel* model) {
  if (!IsOpen()) return "the store is not open";
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

bool IsExpectedFailure(Step::Kind kind, uint32_t status) {
  if (IsOneOf(status, {kStatusLockFailed, kStatusNoMemory})) return true;
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
