#include "tests/process/model_worker.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <utility>

#include "kestrun/status.h"
#include "tests/support/random_run.h"
#include "tests/support/thread_diagnostics.h"

namespace Kestrun::Testing {
namespace {

constexpr unsigned kForEver = 0xFFFFFFFF;
constexpr unsigned kRecordTypes = 5;

// The types come up during the run, in all processes at once.
std::string TypeText(unsigned key, uint64_t version) {
  return "Sample" + std::to_string(Mix(key + version) % kRecordTypes) + " version:%i8,text:%s";
}

struct FreeMemory {
  void operator()(const void* memory) const { std::free(const_cast<void*>(memory)); }
};

// Removes every `part` from `text`; whether there was one.
bool Remove(std::string& text, const std::string& part) {
  bool found = false;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part)) {
    text.erase(at, part.size());
    found = true;
  }
  return found;
}

}  // namespace

ModelProcess::ModelProcess(ModelTable& table, const std::string& path, uint32_t walSize, bool mayClear)
    : table(table), clears(mayClear) {
  LSDBImpl* openedEngine = nullptr;
  uint32_t status = LSDBImpl::Open(path, {walSize, 0}, &openedEngine);
  if (status != kStatusOk) table.Fail(std::string("opening gave ") + StatusName(status));
  engine.reset(openedEngine);
  Series* openedSeries = nullptr;
  status = Series::Open(path, {walSize, 0}, &openedSeries);
  if (status != kStatusOk) table.Fail(std::string("opening a series gave ") + StatusName(status));
  series.reset(openedSeries);
  if (table.failed) _exit(EXIT_FAILURE);
}

ModelWorker::ModelWorker(ModelProcess& process, unsigned writer, uint64_t stream)
    : process_(process), table_(process.table), writer_(writer), random_(TestRandom(stream)) {}

void ModelWorker::Run(uint64_t operations) {
  for (uint64_t i = 0; i < operations && !table_.failed; ++i) {
    Step();
    ++table_.operations;
  }
}

void ModelWorker::Step() {
  const uint64_t kind = Draw(2000);
  if (kind < 900) return WriteNext(OwnKey());
  if (kind < 1400) return Read(AnyKey());
  if (kind < 1600) return Read(OwnKey());
  if (kind < 1750) return ReadContains(AnyKey());
  if (kind < 1900) return ReadEntry(AnyKey());
  if (kind < 1925) return DeleteRange();
  if (kind < 1985) return ReadRange();
  if (kind < 1992) return Flush();
  if (kind < 1999 || !process_.clears) return Compact();
  Clear();
}

void ModelWorker::ReadAll() {
  for (unsigned key = 0; key < kModelKeys; ++key) {
    Read(key);
    ReadContains(key);
  }
}

void ModelWorker::Fail(const std::string& what) {
  table_.Fail("writer " + std::to_string(writer_) + ": " + what);
}

bool ModelWorker::LockFailed(const char* what) {
  std::string printed = ThreadDiagnostics::Take();
  Remove(printed, "Wal is full");
  Remove(printed, "Failed to reserve write space\n");
  // Only a deletion marker expires here.
  Remove(printed, "TTL verification failed");
  Remove(printed, "Internal error while trying to find data with given key");
  const bool wal = Remove(printed, "Failed lock wal");
  const bool manifest = Remove(printed, "Failed lock manifest");
  if (!printed.empty()) Fail(std::string(what) + " printed: " + printed);
  if (wal || manifest) ++table_.lockFailures;
  return wal || manifest;
}

void ModelWorker::Retry(const char* what, const Operation& operation) {
  uint32_t status = kStatusLockFailed;
  bool lockFailed = true;
  while ((status == kStatusLockFailed || lockFailed) && !table_.failed) {
    status = operation();
    lockFailed = LockFailed(what);
  }
  if (status != kStatusOk) Fail(std::string(what) + " gave " + StatusName(status));
}

uint32_t ModelWorker::Insert(unsigned key, uint64_t version) {
  const std::string text = ModelKeyText(key);
  const std::string value = ModelValue(key, version);
  if (!IsTypedKey(key)) {
    return process_.engine->Insert(text, kForEver, value.data(), static_cast<unsigned>(value.size()));
  }
  return process_.series->AppendRecord(text, kForEver, TypeText(key, version).c_str(),
                                       static_cast<long>(version), value.c_str());
}

void ModelWorker::WriteNext(unsigned key) {
  ModelCell& cell = table_.cells[key];
  const uint64_t version = cell.issued + 1;
  const uint64_t clears = table_.clearsOver;
  cell.issued = version;
  if (IsDeletion(key, version)) {
    Retry("Delete", [&] { return process_.engine->Delete(ModelKeyText(key)); });
  } else {
    Retry("Insert", [&] { return Insert(key, version); });
  }
  cell.acked = ModelMark{clears, version}.Packed();
}

// A range whose locks were all obtained is deleted whole; the status doesn't tell, what is printed does. A
// key that a clear took away gets no deletion marker, and other processes may still have it in a block: the
// mark keeps its clear.
void ModelWorker::DeleteRange() {
  const unsigned from = OwnKey();
  const unsigned to = std::min(from + static_cast<unsigned>(Draw(12)), (writer_ + 1) * kKeysEach - 1);
  for (unsigned key = from; key < to; ++key) {
    ModelCell& cell = table_.cells[key];
    cell.issued = NextDeletion(key, cell.issued);
  }
  Retry("DeleteByRange",
        [&] { return process_.engine->DeleteByRange(ModelKeyText(from), ModelKeyText(to)); });
  for (unsigned key = from; key < to; ++key) {
    ModelCell& cell = table_.cells[key];
    cell.acked = ModelMark{ModelMark::Of(cell.acked).clears, cell.issued}.Packed();
  }
}

void ModelWorker::Expect(ModelExpectation& expectation, uint64_t version) {
  const std::string wrong = expectation.Check(version);
  if (!wrong.empty()) Fail(wrong);
}

void ModelWorker::Read(unsigned key) {
  IsTypedKey(key) ? ReadTyped(key) : ReadRaw(key);
}

void ModelWorker::ReadRaw(unsigned key) {
  ModelExpectation expectation(table_, key, process_.floors[key]);
  const void* bytes = nullptr;
  unsigned size = 0;
  Retry("Get", [&] {
    const uint32_t status = process_.engine->Get(ModelKeyText(key), &bytes, &size);
    return status == kStatusInvalid ? kStatusOk : status;
  });
  const std::unique_ptr<const void, FreeMemory> owner(bytes);
  if (bytes == nullptr) return Expect(expectation, 0);
  const std::string value(static_cast<const char*>(bytes), size);
  if (value != ModelValue(key, VersionOf(value))) return Fail(ModelKeyText(key) + ": Get found " + value);
  Expect(expectation, VersionOf(value));
}

void ModelWorker::ReadTyped(unsigned key) {
  ModelExpectation expectation(table_, key, process_.floors[key]);
  Record* found = nullptr;
  Retry("Series::Get", [&] {
    const uint32_t status = process_.series->Get(ModelKeyText(key), &found);
    return status == kStatusInvalid ? kStatusOk : status;
  });
  const std::unique_ptr<Record> record(found);
  if (record == nullptr) return Expect(expectation, 0);
  const auto version = static_cast<uint64_t>(record->GetValue("version").numeric.i64);
  const std::string text = record->GetValue("text").str;
  if (text != ModelValue(key, version)) {
    return Fail(ModelKeyText(key) + ": record " + std::to_string(version) + " holds " + text);
  }
  Expect(expectation, version);
}

// Which version is there can't be told, only whether one must be or must not be.
void ModelWorker::ReadContains(unsigned key) {
  ModelExpectation expectation(table_, key, process_.floors[key]);
  bool found = false;
  Retry("Contains", [&] {
    found = process_.engine->Contains(ModelKeyText(key));
    return kStatusOk;
  });
  if (!found) return Expect(expectation, 0);
  if (expectation.MustBeMissing()) Fail(ModelKeyText(key) + ": Contains found a key that is not there");
}

void ModelWorker::ReadEntry(unsigned key) {
  ModelExpectation expectation(table_, key, process_.floors[key]);
  DataEntry entry = {};
  Retry("GetDataEntry", [&] { return process_.engine->GetDataEntry(ModelKeyText(key), entry); });
  if (entry.deleted || entry.ttl == 0) return Expect(expectation, 0);
  if (expectation.MustBeMissing()) Fail(ModelKeyText(key) + ": GetDataEntry found a key that is not there");
}

// Keys that are there must be reported; those that were deleted may be.
void ModelWorker::ReadRange() {
  unsigned from = AnyKey();
  unsigned to = Draw(3) == 0 ? AnyKey() : from + static_cast<unsigned>(Draw(kKeysEach));
  if (to >= kModelKeys) to = kModelKeys - 1;
  if (to < from) std::swap(from, to);
  std::vector<ModelExpectation> expectations;
  for (unsigned key = from; key < to; ++key) expectations.emplace_back(table_, key, process_.floors[key]);

  std::set<unsigned> reported;
  Retry("EnumerateKeys", [&] {
    return process_.engine->EnumerateKeys(ModelKeyText(from), ModelKeyText(to), [&](const Key& key) {
      reported.insert(ModelKeyOf(std::string(reinterpret_cast<const char*>(key.Data()), key.Size())));
      return false;
    });
  });
  for (unsigned key = from; key < to; ++key) {
    if (reported.erase(key) == 0 && expectations[key - from].MustBeFound()) {
      Fail(ModelKeyText(key) + ": EnumerateKeys does not report it");
    }
  }
  if (!reported.empty()) Fail("EnumerateKeys reports key number " + std::to_string(*reported.begin()));
}

void ModelWorker::Flush() {
  Retry("ResetWal", [this] { return process_.engine->ResetWal(); });
  ++table_.flushes;
}

void ModelWorker::Compact() {
  Retry("ForceCompact", [this] { return process_.engine->ForceCompact(); });
  ++table_.compactions;
}

// This process forgets at once, the others when the manifest moves, as the flush makes it do.
void ModelWorker::Clear() {
  std::array<uint64_t, kModelKeys> acked;
  for (unsigned key = 0; key < kModelKeys; ++key) acked[key] = ModelMark::Of(table_.cells[key].acked).version;
  ++table_.clearsBegun;
  Retry("Clear", [this] { return process_.engine->Clear(); });
  ++table_.clearsOver;
  for (unsigned key = 0; key < kModelKeys; ++key) RaiseTo(process_.floors[key], acked[key] + 1);
  if (Draw(2) == 0) return;
  Flush();
  for (unsigned key = 0; key < kModelKeys; ++key) RaiseTo(table_.cells[key].floor, acked[key] + 1);
}

}  // namespace Kestrun::Testing
