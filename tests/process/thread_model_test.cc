// Four threads of one process do random operations in one directory, each over keys of its own, and compare
// what they read with a map each.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kestrun/lsdb.h"
#include "kestrun/status.h"
#include "tests/support/random_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/thread_diagnostics.h"

namespace Kestrun {
namespace {

using Testing::ScratchDirectory;
using Testing::ThreadDiagnostics;

constexpr unsigned kThreads = 4;
constexpr unsigned kKeysEach = 60;
constexpr uint32_t kThreadsWalSize = 8 * 1024;  // some 80 entries
constexpr unsigned kForEver = 0xFFFFFFFF;

// Clears are numbered. One has begun when `begun` has reached its number and is over when `over` has.
struct Clears {
  std::mutex one;
  std::atomic<uint64_t> begun{0};
  std::atomic<uint64_t> over{0};
};

// What a thread knows of one of its keys.
struct Known {
  std::string value;  // empty: the key is deleted or was never written
  // The clears that were over when the last write began, and those that had begun when it had returned.
  uint64_t clearsBefore = 0;
  uint64_t clearsAfter = 0;
};

std::unique_ptr<LSDBImpl> OpenStore(const std::string& path) {
  LSDBImpl* engine = nullptr;
  const LSDBConfig config = {kThreadsWalSize, 0};
  EXPECT_EQ(LSDBImpl::Open(path, config, &engine), kStatusOk);
  return std::unique_ptr<LSDBImpl>(engine);
}

class ModelThread {
 public:
  ModelThread(unsigned number, LSDBImpl& engine, Clears& clears, bool mayClear)
      : number_(number),
        engine_(engine),
        clears_(clears),
        mayClear_(mayClear),
        random_(Testing::TestRandom(number)) {
    for (unsigned i = 0; i < kKeysEach; ++i) known_[KeyText(i)];
  }

  void Run(uint64_t operations) {
    for (uint64_t i = 0; i < operations && Sound(); ++i) Step();
    for (const auto& entry : known_) CheckGet(entry.first);
    for (const auto& entry : known_) CheckContains(entry.first);
  }

  // What went wrong first; empty when nothing did.
  const std::string& Failure() const { return failure_; }
  // Checks every key against another engine.
  void VerifyWith(LSDBImpl& engine) {
    ModelThread other(*this, engine);
    for (const auto& entry : known_) other.CheckGet(entry.first);
    failure_ = other.failure_;
  }

 private:
  ModelThread(const ModelThread& model, LSDBImpl& engine)
      : number_(model.number_),
        engine_(engine),
        clears_(model.clears_),
        mayClear_(false),
        random_(model.random_),
        known_(model.known_) {}

  bool Sound() const { return failure_.empty(); }
  uint64_t Draw(uint64_t below) { return random_() % below; }
  // Every third key is too long to be held without memory of its own.
  std::string KeyText(unsigned i) const {
    const std::string digits = std::to_string(1000 + i).substr(1);
    return "t" + std::to_string(number_) + (i % 3 == 0 ? "-a-key-of-some-length-" : "-") + digits;
  }
  std::string AnyKey() { return KeyText(static_cast<unsigned>(Draw(kKeysEach))); }

  void Step() {
    const uint64_t kind = Draw(1000);
    if (kind < 400) return Insert(AnyKey());
    if (kind < 600) return CheckGet(AnyKey());
    if (kind < 700) return CheckContains(AnyKey());
    if (kind < 800) return CheckEntry(AnyKey());
    if (kind < 930) return Delete(AnyKey());
    if (kind < 950) return DeleteRange();
    if (kind < 985) return CheckRange();
    if (kind < 991) return Expect("ResetWal", [this] { return engine_.ResetWal(); });
    if (kind < 999 || !mayClear_) return Expect("ForceCompact", [this] { return engine_.ForceCompact(); });
    Clear();
  }

  void Fail(const std::string& what, const std::string& key) {
    if (Sound()) failure_ = "thread " + std::to_string(number_) + ", " + key + ": " + what;
  }

  // Runs an operation until it gets its locks; it must succeed then.
  template <typename Operation>
  void Expect(const std::string& what, Operation operation) {
    uint32_t status = kStatusLockFailed;
    while (status == kStatusLockFailed) status = operation();
    if (status != kStatusOk) Fail(what + " gave " + StatusName(status), "");
    CheckDiagnostics();
  }

  // A full log says so; nothing else has a reason to be printed.
  void CheckDiagnostics() {
    static const std::string kFull = "Wal is fullFailed to reserve write space\n";
    std::string printed = ThreadDiagnostics::Take();
    while (printed.compare(0, kFull.size(), kFull) == 0) printed.erase(0, kFull.size());
    if (!printed.empty()) Fail("printed: " + printed, "");
  }

  template <typename Operation>
  void Write(const std::string& key, const std::string& value, Operation operation) {
    Known& known = known_[key];
    known.clearsBefore = clears_.over;
    Expect("writing", operation);
    known.clearsAfter = clears_.begun;
    known.value = value;
  }

  void Insert(const std::string& key) {
    std::string value(1 + Draw(100), static_cast<char>('a' + Draw(26)));
    value += std::to_string(random_());
    Write(key, value,
          [&] { return engine_.Insert(key, kForEver, value.data(), static_cast<unsigned>(value.size())); });
  }

  void Delete(const std::string& key) {
    Write(key, std::string(), [&] { return engine_.Delete(key); });
  }

  void DeleteRange() {
    std::string from = AnyKey();
    std::string to = AnyKey();
    if (to < from) from.swap(to);
    const uint64_t clearsBefore = clears_.over;
    Expect("DeleteByRange", [&] { return engine_.DeleteByRange(from, to); });
    for (auto known = known_.lower_bound(from); known != known_.lower_bound(to); ++known) {
      known->second = {std::string(), clearsBefore, clears_.begun};
    }
  }

  // Whether a read that began after `clearsOver` clears were over may find the key missing though a value was
  // written, and whether it must.
  bool MayBeCleared(const Known& known) const { return clears_.begun > known.clearsBefore; }
  static bool MustBeCleared(const Known& known, uint64_t clearsOver) {
    return clearsOver > known.clearsAfter;
  }

  // Compares what was found (empty: nothing) with what is known.
  void Compare(const std::string& what, const std::string& key, uint64_t clearsOver,
               const std::string& found) {
    Known& known = known_[key];
    if (MustBeCleared(known, clearsOver)) known.value.clear();
    if (found.empty() && MayBeCleared(known)) known.value.clear();
    if (found != known.value) Fail(what + " found \"" + found + "\", not \"" + known.value + '"', key);
  }

  void CheckGet(const std::string& key) {
    const uint64_t clearsOver = clears_.over;
    const void* value = nullptr;
    unsigned size = 0;
    Expect("Get", [&] {
      const uint32_t status = engine_.Get(key, &value, &size);
      // A deletion marker that has reached a block lives for the second of its writing, like anything with a
      // time to live of 0.
      const bool marker = status == kStatusInvalid && ThreadDiagnostics::Take() == "TTL verification failed";
      return marker ? kStatusOk : status;
    });
    const std::unique_ptr<void, decltype(&std::free)> owner(const_cast<void*>(value), &std::free);
    Compare("Get", key, clearsOver,
            value == nullptr ? std::string() : std::string(static_cast<const char*>(value), size));
  }

  void CheckContains(const std::string& key) {
    const uint64_t clearsOver = clears_.over;
    const bool found = engine_.Contains(key);
    CheckDiagnostics();
    Compare("Contains", key, clearsOver, found ? known_[key].value : std::string());
    if (found && known_[key].value.empty()) Fail("Contains found a key that is not there", key);
  }

  void CheckEntry(const std::string& key) {
    const uint64_t clearsOver = clears_.over;
    DataEntry entry = {};
    Expect("GetDataEntry", [&] { return engine_.GetDataEntry(key, entry); });
    const bool found = !entry.deleted && entry.ttl != 0;
    Compare("GetDataEntry", key, clearsOver, found ? known_[key].value : std::string());
    if (found && entry.valueSize != known_[key].value.size()) Fail("GetDataEntry found another size", key);
  }

  void CheckRange() {
    std::string from = AnyKey();
    std::string to = AnyKey();
    if (to < from) from.swap(to);
    const uint64_t clearsOver = clears_.over;
    std::set<std::string> reported;
    Expect("EnumerateKeys", [&] {
      return engine_.EnumerateKeys(from, to, [&](const Key& key) {
        reported.emplace(reinterpret_cast<const char*>(key.Data()), key.Size());
        return false;
      });
    });
    // Deleted keys may be reported.
    for (auto known = known_.lower_bound(from); known != known_.lower_bound(to); ++known) {
      const std::string& key = known->first;
      if (reported.erase(key) == 0) Compare("EnumerateKeys", key, clearsOver, std::string());
    }
    if (!reported.empty()) Fail("reported though not in the range", *reported.begin());
  }

  void Clear() {
    const std::lock_guard<std::mutex> one(clears_.one);
    ++clears_.begun;
    Expect("Clear", [this] { return engine_.Clear(); });
    ++clears_.over;
  }

  const unsigned number_;
  LSDBImpl& engine_;
  Clears& clears_;
  const bool mayClear_;
  std::mt19937_64 random_;
  std::map<std::string, Known> known_;
  std::string failure_;
};

using Models = std::vector<std::unique_ptr<ModelThread>>;

std::string FirstFailure(const Models& models) {
  for (const auto& model : models) {
    if (!model->Failure().empty()) return model->Failure();
  }
  return std::string();
}

void VerifyWith(LSDBImpl& engine, const Models& models) {
  for (const auto& model : models) model->VerifyWith(engine);
}

// Runs the threads, each with the engine at its place, and then looks at everything through an engine of its
// own, before and after a compaction. Returns what went wrong first.
std::string FailureOf(const std::string& path, const std::vector<LSDBImpl*>& engines, uint64_t operations,
                      bool mayClear) {
  const ThreadDiagnostics diagnostics;
  Clears clears;
  Models models;
  for (unsigned i = 0; i < kThreads; ++i) {
    models.push_back(std::make_unique<ModelThread>(i, *engines[i], clears, mayClear));
  }
  std::vector<std::thread> threads;
  for (const auto& model : models) {
    threads.emplace_back([&model, operations] { model->Run(operations / kThreads); });
  }
  for (std::thread& thread : threads) thread.join();
  if (!FirstFailure(models).empty()) return FirstFailure(models);

  const std::unique_ptr<LSDBImpl> other = OpenStore(path);
  VerifyWith(*other, models);
  if (other->ForceCompact() != kStatusOk) return "the last compaction failed";
  VerifyWith(*other, models);
  return FirstFailure(models);
}

void RunOnOneEngine(uint64_t operations, bool mayClear) {
  const ScratchDirectory directory(ScratchDirectory::Place::Memory);
  const std::unique_ptr<LSDBImpl> engine = OpenStore(directory.Path());
  const std::vector<LSDBImpl*> engines(kThreads, engine.get());
  EXPECT_EQ(FailureOf(directory.Path(), engines, operations, mayClear), "");
}

void RunOnAnEngineEach(uint64_t operations, bool mayClear) {
  const ScratchDirectory directory(ScratchDirectory::Place::Memory);
  std::vector<std::unique_ptr<LSDBImpl>> owners;
  std::vector<LSDBImpl*> engines;
  for (unsigned i = 0; i < kThreads; ++i) {
    owners.push_back(OpenStore(directory.Path()));
    engines.push_back(owners.back().get());
  }
  EXPECT_EQ(FailureOf(directory.Path(), engines, operations, mayClear), "");
}

TEST(ThreadModel, FourThreadsOnOneEngineLoseNothingAcknowledged) {
  RunOnOneEngine(Testing::TestSize(50000, 2000000), false);
}

TEST(ThreadModel, FourThreadsWithAnEngineEachLoseNothingAcknowledged) {
  RunOnAnEngineEach(Testing::TestSize(50000, 2000000), false);
}

TEST(ThreadModel, WhatWasThereBeforeAClearIsGoneAndWhatComesAfterItStays) {
  RunOnOneEngine(Testing::TestSize(40000, 400000), true);
}

TEST(ThreadModel, AClearThroughOneEngineShowsThroughTheOthers) {
  RunOnAnEngineEach(Testing::TestSize(40000, 400000), true);
}

}  // namespace
}  // namespace Kestrun
