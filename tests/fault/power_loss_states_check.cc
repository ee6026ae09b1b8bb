#include "tests/fault/power_loss_states_check.h"

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "kestrun/lsdb.h"
#include "kestrun/status.h"

namespace Kestrun::Testing {
namespace {

// Numbers of the check's own steps; scripts are shorter.
constexpr int kFirstOwnStep = 100000;
constexpr int kOwnType = 90;

// The pages beyond the first one may be of another time than the header.
constexpr uint64_t kConsistentPart = kDiskPage;

void Fail(Verdict* verdict, const char* format, ...) __attribute__((format(printf, 2, 3)));
void Fail(Verdict* verdict, const char* format, ...) {
  if (verdict->failed) return;
  verdict->failed = true;
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(verdict->message, sizeof(verdict->message), format, arguments);
  va_end(arguments);
}

uint32_t Number(const std::string& bytes, size_t offset, size_t count) {
  uint32_t number = 0;
  for (size_t i = 0; i < count; ++i) {
    number |= static_cast<uint32_t>(static_cast<uint8_t>(bytes[offset + i])) << (8 * i);
  }
  return number;
}

uint32_t SumOf(const std::string& bytes, size_t offset, size_t count) {
  uint32_t sum = 0xBC9F1D34;
  for (size_t i = 0; i < count; ++i) sum += static_cast<uint8_t>(bytes[offset + i]);
  return sum;
}

// The log of a state, read without the library.
struct LogContents {
  struct Record {
    uint64_t end;
    bool deleted;
  };
  std::map<std::string, Record> newest;  // by key
  uint32_t used = 128;
  bool damaged = false;
};

LogContents ReadLog(const DiskImage& image) {
  LogContents log;
  const auto file = image.files.find(std::string(kStoreName) + "/wal_v5");
  if (file == image.files.end() || file->second.size() < 24) return log;
  const std::string& bytes = file->second;
  if (SumOf(bytes, 0, 16) != Number(bytes, 16, 4)) return log;
  log.used = Number(bytes, 12, 4);
  uint64_t offset = 128;
  while (offset + 40 < log.used && offset + 40 < bytes.size()) {
    const uint64_t keySize = Number(bytes, offset + 32, 2);
    const uint64_t end = offset + 40 + keySize + Number(bytes, offset + 4, 4);
    const bool sound = SumOf(bytes, offset, 36) == Number(bytes, offset + 36, 4) && keySize != 0;
    if (!sound || end > log.used || end > bytes.size()) break;
    log.newest[bytes.substr(offset + 40, keySize)] = {end, bytes[offset + 8] != 0};
    offset = end;
  }
  log.damaged = offset != log.used;
  return log;
}

std::string Text(const std::set<int>& numbers) {
  std::ostringstream text;
  for (const int number : numbers) text << (number == kAbsent ? "none" : std::to_string(number)) << ' ';
  return text.str();
}

void PutInPlace(const DiskImage& image, const std::string& directory) {
  mkdir(directory.c_str(), 0700);
  for (const std::string& path : image.directories) mkdir((directory + "/" + path).c_str(), 0700);
  for (const auto& [path, bytes] : image.files) {
    std::ofstream(directory + "/" + path, std::ios::binary) << bytes;
  }
}

bool Open(ScriptedStore* store, const Promise& promise, Verdict* verdict) {
  Step open = {Step::Kind::Open};
  open.size = promise.walSize;
  const uint32_t status = store->Run(0, open).status;
  if (status != kStatusOk) Fail(verdict, "the store does not open: %u", status);
  return status == kStatusOk;
}

// What is found under `key`, or kForeign when it can't be read.
int Look(ScriptedStore* store, int key, uint32_t* status) {
  const ScriptedStore::Result result = store->Run(0, {Step::Kind::Get, key});
  *status = result.status;
  return result.status == kStatusOk ? result.found : kForeign;
}

void Write(ScriptedStore* store, int number, Step step, Verdict* verdict) {
  const uint32_t status = store->Run(number, step).status;
  if (status != kStatusOk) Fail(verdict, "%s gives %u after the restart", StepName(step.kind), status);
}

void Expect(ScriptedStore* store, int key, int number, Verdict* verdict) {
  uint32_t status = 0;
  const int found = Look(store, key, &status);
  if (found == number) return;
  Fail(verdict, "%s, written after the restart: %d and status %u in the place of %d", ScriptKey(key).c_str(),
       found, status, number);
}

// Only the log can be wrong about a key, and only with a record that reaches beyond its first page.
// Store can tell: of what it has written nothing may be wrong anywhere.
void Judge(int key, int found, uint32_t status, const Promise& promise, const LogContents& log, bool whole,
           Verdict* verdict) {
  const std::set<int>& allowed = promise.allowed[static_cast<size_t>(key)];
  if (status == kStatusOk && allowed.count(found) != 0) return;
  const std::string name = ScriptKey(key);
  const auto record = log.newest.find(name);
  const bool canTell = whole || promise.face == Face::Safe;
  if (canTell || record == log.newest.end() || record->second.end <= kConsistentPart) {
    return Fail(verdict, "%s: %d and status %u in the place of %s(%s)", name.c_str(), found, status,
                Text(allowed).c_str(), record == log.newest.end() ? "not in the log" : "in the log");
  }
  Finding finding = Finding::OtherBytes;
  if (status == kStatusOk && found == kAbsent && record->second.deleted) finding = Finding::OlderDeletion;
  if (status == kStatusOk && found >= 0) finding = Finding::OlderValue;
  ++verdict->findings[static_cast<size_t>(finding)];
}

void JudgeKeys(const std::string& directory, const Promise& promise, const LogContents& log, bool whole,
               Verdict* verdict) {
  LSDBConfig config = {};
  config.walSize = promise.walSize;
  LSDBImpl* engine = nullptr;
  if (const uint32_t status = LSDBImpl::Open(directory, config, &engine); status != kStatusOk) {
    return Fail(verdict, "the store does not open: %u", status);
  }
  const std::unique_ptr<LSDBImpl> owner(engine);
  std::set<std::string> names;
  for (int key = 0; key < kScriptKeys; ++key) names.insert(ScriptKey(key));
  const uint32_t status = engine->EnumerateKeys(Key::MinKey(), Key::MaxKey(), [&](const Key& key) {
    const std::string name(reinterpret_cast<const char*>(key.Data()), key.Size());
    if (names.count(name) != 0 || name.rfind(kOtherKeys, 0) == 0) return false;
    const auto record = log.newest.find(name);
    if (whole || record == log.newest.end() || record->second.end <= kConsistentPart) {
      Fail(verdict, "a key that nobody wrote, %zu bytes", name.size());
    }
    ++verdict->findings[static_cast<size_t>(Finding::PhantomKey)];
    return false;
  });
  if (status != kStatusOk) Fail(verdict, "EnumerateKeys gives %u", status);
}

// What the files show before anybody opens the store: some state that the store once had.
bool JudgeFiles(const std::string& directory, const Promise& promise, Verdict* verdict,
                std::vector<int>* found) {
  uint32_t status = kStatusOk;
  const std::string wrong = ReadThroughSnapshot(directory, &status, found);
  if (!wrong.empty()) {
    Fail(verdict, "%s", wrong.c_str());
    return false;
  }
  if (status == kStatusStoreMissing && promise.promised == 0) return false;  // it is being made
  if (status != kStatusOk) {
    Fail(verdict, "Snapshot::Open gives %u", status);
    return false;
  }
  if (promise.prefixes.empty()) return true;
  for (const std::vector<int>& state : promise.prefixes) {
    if (state == *found) return true;
  }
  Fail(verdict, "the keys hold what they never held at once");
  return true;
}

bool WritesToLog(Step::Kind kind) {
  return kind == Step::Kind::Insert || kind == Step::Kind::Append || kind == Step::Kind::Delete ||
         kind == Step::Kind::DeleteRange || kind == Step::Kind::Batch || kind == Step::Kind::Transact;
}

}  // namespace

void History::Add(const Step& step, size_t begin, size_t end, bool flushed) {
  steps_.push_back({step, begin, end, flushed});
}

Promise History::PromiseAt(size_t events) const {
  Promise promise = start_;
  if (promise.allowed.empty()) promise.allowed.assign(kScriptKeys, {kAbsent});

  if (promise.walSize == 0) promise.walSize = steps_.front().step.size;
  int begun = 0;
  for (const Done& done : steps_) {
    const bool returned = done.end <= events;
    if (done.begin >= events && !returned) break;
    ++begun;
    if (done.step.kind == Step::Kind::Open) {
      promise.walSize = done.step.size;
      promise.opened = promise.opened || returned;
    }
    if (!returned) continue;
    const Step::Kind kind = done.step.kind;
    if (kind == Step::Kind::Flush || kind == Step::Kind::Clear || kind == Step::Kind::Sync)
      promise.promised = begun;
    if (done.flushed && WritesToLog(done.step.kind)) promise.promised = std::max(promise.promised, begun - 1);
  }
  bool isKnown = start_.allowed.empty();  // each state, and not only what each key may hold
  std::vector<int> state(kScriptKeys, kAbsent);
  if (promise.promised == 0) promise.prefixes.push_back(state);
  for (int index = 0; index < begun; ++index) {
    const Done& done = steps_[static_cast<size_t>(index)];
    const int number = firstNumber_ + index;
    const auto write = [&](int key, int value) {
      std::set<int>& allowed = promise.allowed[static_cast<size_t>(key)];
      if (index < promise.promised) allowed.clear();
      allowed.insert(value);
      state[static_cast<size_t>(key)] = value;
      if (index >= promise.promised) promise.prefixes.push_back(state);
    };
    for (const auto& [key, value] : WritesOf(number, done.step)) write(key, value);
    if (done.step.kind == Step::Kind::Clear) {
      for (int key = 0; key < kScriptKeys; ++key) write(key, kAbsent);
      isKnown = isKnown && index < promise.promised;  // the blocks go before the log
    }
    // The new block is listed before the log is emptied, and of the log any beginning may have arrived: it
    // hides newer values that the block has.
    if (done.flushed && done.end > events) isKnown = false;
    if (index + 1 == promise.promised) promise.prefixes = {state};
  }
  if (!isKnown || promise.face == Face::Older) promise.prefixes.clear();
  return promise;
}

void CheckFirst(const DiskImage& image, const std::string& directory, const Promise& promise, bool whole,
                Verdict* verdict) {
  PutInPlace(image, directory);
  const LogContents log = ReadLog(image);
  verdict->damaged = log.damaged;
  if (log.damaged && (whole || log.used <= kConsistentPart)) Fail(verdict, "a damaged record");
  const bool isSafe = promise.face == Face::Safe;
  const std::string path = directory + "/" + kStoreName;
  const bool there = access(path.c_str(), F_OK) == 0;
  if (!there && promise.opened) return Fail(verdict, "the directory is not there");

  std::vector<int> shown;
  bool isShown = false;
  if (isSafe && there) isShown = JudgeFiles(path, promise, verdict, &shown);
  if (!isSafe) JudgeKeys(path, promise, log, whole, verdict);
  ScriptedStore store(path, promise.face);
  if (!Open(&store, promise, verdict)) return;
  for (int key = 0; key < kScriptKeys; ++key) {
    uint32_t status = 0;
    const int found = Look(&store, key, &status);
    Judge(key, found, status, promise, log, whole, verdict);
    verdict->found[key] = found;
    if (isShown && found != shown[static_cast<size_t>(key)]) {
      Fail(verdict, "%s: %d before the store was opened, %d after", ScriptKey(key).c_str(),
           shown[static_cast<size_t>(key)], found);
    }
  }
  Write(&store, kFirstOwnStep, {Step::Kind::Insert, kFirstCheckKey, 0, 50}, verdict);
}

void CheckSecond(const std::string& directory, const Promise& promise, Verdict* verdict) {
  ScriptedStore store(directory + "/" + kStoreName, promise.face);
  if (!Open(&store, promise, verdict)) return;
  uint32_t status = 0;
  if (promise.face == Face::Older && verdict->damaged && Look(&store, kFirstCheckKey, &status) == kAbsent) {
    ++verdict->findings[static_cast<size_t>(Finding::Hidden)];
  } else {
    Expect(&store, kFirstCheckKey, kFirstOwnStep, verdict);
  }
  Write(&store, kFirstOwnStep + 1, {Step::Kind::Append, kCheckRecordKey, kOwnType, 50}, verdict);
  Write(&store, kFirstOwnStep + 2, {Step::Kind::Insert, kFirstCheckKey + 1, 0, 50}, verdict);
  Write(&store, 0, {Step::Kind::Flush}, verdict);
  Write(&store, kFirstOwnStep + 3, {Step::Kind::Insert, kFirstCheckKey + 2, 0, 50}, verdict);
}

void CheckThird(const std::string& directory, const Promise& promise, Verdict* verdict) {
  ScriptedStore store(directory + "/" + kStoreName, promise.face);
  if (!Open(&store, promise, verdict)) return;
  Expect(&store, kCheckRecordKey, kFirstOwnStep + 1, verdict);
  Expect(&store, kFirstCheckKey + 1, kFirstOwnStep + 2, verdict);
  Expect(&store, kFirstCheckKey + 2, kFirstOwnStep + 3, verdict);
  for (int key = 0; key < kScriptKeys; ++key) {
    if ((key >= kFirstCheckKey && key < kPlainKeys) || key == kCheckRecordKey) continue;
    uint32_t status = 0;
    const int found = Look(&store, key, &status);
    if (found == verdict->found[key]) continue;
    Fail(verdict, "%s: %d after the first restart, %d and status %u after a flush", ScriptKey(key).c_str(),
         verdict->found[key], found, status);
  }
}

}  // namespace Kestrun::Testing
