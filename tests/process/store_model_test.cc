// Processes with several threads each work on one store through Store, and one through LSDBImpl, while the
// thread of each store merges blocks and processes are killed. Amounts move between accounts in transactions,
// groups of keys are written in batches, pairs of keys one after the other: every snapshot must show a sum
// that never changes, groups that are whole, pairs in order, and nothing older than what was acknowledged
// before it was taken.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kestrun/lsdb.h"
#include "kestrun/status.h"
#include "kestrun/store.h"
#include "tests/support/child_process.h"
#include "tests/support/random_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/shared_memory.h"

namespace Kestrun::Testing {
namespace {

constexpr int kStoreProcesses = 3;
constexpr int kThreads = 2;  // in each of them
constexpr int kStoreWriters = kStoreProcesses * kThreads;
constexpr int kOlder = kStoreWriters;  // the writer with the older face, in a process of its own
constexpr int kWriters = kStoreWriters + 1;
constexpr int kProcesses = kStoreProcesses + 1;

constexpr int kAccounts = 24;
constexpr int64_t kBalance = 1000;  // of each account at first
constexpr int kGroupSize = 5;
constexpr uint64_t kDeletesGroup = 6;  // each version of a group that this divides deletes it

constexpr uint32_t kLogSize = 8192;
constexpr unsigned int kPatience =
    60000;  // milliseconds; nobody holds a lock for that long, not even when killed
constexpr unsigned int kMaxLife = 300;  // seconds; a process that still runs then hangs
constexpr unsigned int kOlderTtl = 86400;

std::string Name(const char* what, int number, int part = 0) {
  char name[40];
  std::snprintf(name, sizeof(name), "%s/%02d/%d", what, number, part);
  return name;
}

// A number, and letters up to a length that differs.
std::string Text(int64_t number, uint64_t length) {
  std::string text = std::to_string(number) + " ";
  while (text.size() < 10 + length % 90) text += static_cast<char>('a' + (length + text.size()) % 26);
  return text;
}

int64_t NumberIn(const std::string& text) {
  return std::strtoll(text.c_str(), nullptr, 10);
}

// What one writer has begun and what has been acknowledged. One step of it at most is under way.
struct Progress {
  std::atomic<uint64_t> begun{0};
  std::atomic<uint64_t> acknowledged{0};
};

struct Writer {
  Progress moves;
  Progress group;
  Progress first;   // of the pair
  Progress second;  // always written after the first one
};

struct Shared {
  std::array<Writer, kWriters> writers;
  std::array<std::atomic<long>, kProcesses> operations{};
  std::array<std::atomic<long>, kProcesses>
      signalAt{};  // operations after which a process tells that it is there
  std::atomic<bool> stop{false};
  std::atomic<bool> failed{false};
  std::atomic<long> transactions{0}, refusedBodies{0}, batches{0}, snapshots{0}, keptSnapshots{0}, flushes{0},
      compactions{0}, checkpoints{0}, olderWrites{0}, olderReads{0}, merges{0}, repeated{0};
  char message[600] = {};

  void Fail(const std::string& what) {
    if (failed.exchange(true)) return;
    std::snprintf(message, sizeof(message), "%s", what.c_str());
    stop = true;
  }
};

// What a read that begins now may find.
class Bounds {
 public:
  explicit Bounds(const Shared& shared) {
    for (size_t i = 0; i < kWriters; ++i) {
      const Writer& writer = shared.writers[i];
      least_[i] = {writer.moves.acknowledged, writer.group.acknowledged, writer.first.acknowledged,
                   writer.second.acknowledged};
    }
  }
  struct Versions {
    uint64_t moves, group, first, second;
  };
  const Versions& Of(int writer) const { return least_[static_cast<size_t>(writer)]; }

 private:
  std::array<Versions, kWriters> least_;
};

using Contents = std::map<std::string, std::string>;

// Everything that a snapshot shows, walked forward or backward. Empty, or a message.
std::string Walk(const Snapshot& snapshot, bool forward, Contents* contents) {
  std::unique_ptr<Cursor> cursor;
  if (const uint32_t status = snapshot.NewCursor(Range::All(), &cursor); status != kStatusOk) {
    return "NewCursor gives " + std::to_string(status);
  }
  for (forward ? cursor->SeekToFirst() : cursor->SeekToLast(); cursor->Valid();
       forward ? cursor->Next() : cursor->Prev()) {
    std::string_view value;
    if (const uint32_t status = cursor->Value(&value); status != kStatusOk) {
      return "Value of " + std::string(cursor->Key()) + " gives " + std::to_string(status);
    }
    if (!contents->emplace(cursor->Key(), value).second) return "a walk shows a key twice";
  }
  return cursor->Status() == kStatusOk ? "" : "a walk ends with " + std::to_string(cursor->Status());
}

// Holds what one moment shows against what it may show. Empty, or a message.
std::string Judge(const Contents& contents, const Bounds& before, const Shared& shared) {
  const auto number = [&contents](const std::string& key) -> int64_t {
    const auto found = contents.find(key);
    return found == contents.end() ? -1 : NumberIn(found->second);
  };
  int64_t sum = 0;
  for (int i = 0; i < kAccounts; ++i) sum += number(Name("account", i));
  if (sum != kAccounts * kBalance) return "the accounts hold " + std::to_string(sum);

  for (int i = 0; i < kWriters; ++i) {
    const Writer& writer = shared.writers[static_cast<size_t>(i)];
    const std::string who = "writer " + std::to_string(i) + ": ";
    const auto isWithin = [](int64_t found, uint64_t least, const Progress& progress) {
      return found >= static_cast<int64_t>(least) && found <= static_cast<int64_t>(progress.begun.load());
    };
    const int64_t first = number(Name("first", i));
    const int64_t second = number(Name("second", i));
    if (!isWithin(first, before.Of(i).first, writer.first)) return who + "first is " + std::to_string(first);
    if (!isWithin(second, before.Of(i).second, writer.second))
      return who + "second is " + std::to_string(second);
    if (first < second || first > second + 1) {
      return who + "first is " + std::to_string(first) + ", second is " + std::to_string(second);
    }
    if (i == kOlder) continue;

    const int64_t moves = number(Name("moves", i));
    if (!isWithin(moves, before.Of(i).moves, writer.moves)) return who + "moves are " + std::to_string(moves);
    const int64_t group = number(Name("group", i));
    for (int part = 1; part < kGroupSize; ++part) {
      const int64_t other = number(Name("group", i, part));
      if (other != group) {
        return who + "a batch is there in part: " + std::to_string(group) + " and " + std::to_string(other);
      }
    }
    const uint64_t least = before.Of(i).group;
    const uint64_t begun = writer.group.begun;
    const bool mayBeAbsent = begun / kDeletesGroup * kDeletesGroup >= least;
    if (group == -1 ? !mayBeAbsent : !isWithin(group, least, writer.group)) {
      return who + "the group is at " + std::to_string(group);
    }
  }
  return "";
}

// One thread of a process with a Store.
class StoreThread {
 public:
  StoreThread(Store& store, const std::string& path, int writer, uint64_t stream, Shared& shared)
      : store_(store),
        path_(path),
        writer_(writer),
        own_(shared.writers[static_cast<size_t>(writer)]),
        random_(TestRandom(stream)),
        shared_(shared) {}

  // What an earlier process of this writer has left: its last step may be done or not.
  bool TakeOver() {
    return TakeOver("moves", own_.moves) && TakeOver("first", own_.first) &&
           TakeOver("second", own_.second) &&
           (own_.second.acknowledged == own_.first.acknowledged || PutSecond());
  }

  bool DoSomething() {
    const int what = Draw(100);
    if (what < 35) return Move();
    if (what < 50) return WriteGroup();
    if (what < 65) return PutFirst() && PutSecond();
    if (what < 85) return TakeSnapshot();
    if (what < 90) return LookAtKeptSnapshot();
    if (what < 94) return ReadAccount();
    if (what < 97) return RefuseBody();
    if (what < 98) return Count(&shared_.flushes, Expect(store_.Flush(), "Flush"));
    if (what < 99) return Compact();
    return TakeCheckpoint();
  }

 private:
  int Draw(int below) { return static_cast<int>(random_() % static_cast<uint64_t>(below)); }

  bool Fail(const std::string& what) {
    shared_.Fail(what);
    return false;
  }
  bool Expect(uint32_t status, const char* what) {
    return status == kStatusOk || Fail(std::string(what) + " gives " + std::to_string(status));
  }
  static bool Count(std::atomic<long>* count, bool isDone) {
    if (isDone) ++*count;
    return isDone;
  }

  bool TakeOver(const char* what, Progress& progress) {
    std::optional<std::string> value;
    if (!Expect(store_.Get(Name(what, writer_), &value), "Get")) return false;
    const auto found = static_cast<uint64_t>(value.has_value() ? NumberIn(*value) : 0);
    if (!value.has_value() || found < progress.acknowledged || found > progress.begun) {
      return Fail(Name(what, writer_) + " holds " + value.value_or("nothing") +
                  " after a kill, acknowledged was " + std::to_string(progress.acknowledged));
    }
    progress.begun = found;
    progress.acknowledged = found;
    return true;
  }

  bool Move() {
    const std::string from = Name("account", Draw(kAccounts));
    const std::string to = Name("account", Draw(kAccounts));
    const uint64_t number = ++own_.moves.begun;
    const uint64_t length = random_();
    const uint32_t status = store_.Transact([&](Transaction& transaction) {
      std::optional<std::string> value;
      if (const uint32_t got = transaction.Get(from, &value); got != kStatusOk) return got;
      const int64_t amount = value.has_value() ? NumberIn(*value) % 97 : 0;
      const int64_t left = value.has_value() ? NumberIn(*value) - amount : 0;
      if (const uint32_t put = transaction.Put(from, Text(left, length)); put != kStatusOk) return put;
      if (const uint32_t got = transaction.Get(to, &value); got != kStatusOk) return got;
      const int64_t sum = value.has_value() ? NumberIn(*value) + amount : 0;
      if (const uint32_t put = transaction.Put(to, Text(sum, length / 3)); put != kStatusOk) return put;
      return transaction.Put(Name("moves", writer_), Text(static_cast<int64_t>(number), length / 7));
    });
    if (!Expect(status, "Transact")) return false;
    own_.moves.acknowledged = number;
    ++shared_.transactions;
    return true;
  }

  // Nothing of what it writes may ever show.
  bool RefuseBody() {
    struct Thrown {};
    const bool throws = Draw(2) == 0;
    const auto body = [&](Transaction& transaction) -> uint32_t {
      for (int i = 0; i < kAccounts; i += 3) {
        if (const uint32_t status = transaction.Put(Name("account", i), "0"); status != kStatusOk)
          return status;
      }
      if (throws) throw Thrown();
      return kStatusRecordTypeUnknown;
    };
    ++shared_.refusedBodies;
    try {
      const uint32_t status = store_.Transact(body);
      return !throws && status == kStatusRecordTypeUnknown
                 ? true
                 : Fail("a refused body gives " + std::to_string(status));
    } catch (const Thrown&) {
      return throws;
    }
  }

  bool WriteGroup() {
    const uint64_t number = ++own_.group.begun;
    WriteBatch batch;
    for (int part = 0; part < kGroupSize; ++part) {
      const std::string key = Name("group", writer_, part);
      const std::string value = Text(static_cast<int64_t>(number), random_());
      const uint32_t status = number % kDeletesGroup == 0 ? batch.Delete(key) : batch.Put(key, value);
      if (!Expect(status, "a batch's operation")) return false;
    }
    if (!Expect(store_.Write(batch), "Write")) return false;
    own_.group.acknowledged = number;
    ++shared_.batches;
    return true;
  }

  bool Put(const char* what, Progress& progress) {
    const uint64_t number = ++progress.begun;
    const std::string value = Text(static_cast<int64_t>(number), random_());
    if (!Expect(store_.Put(Name(what, writer_), value), "Put")) return false;
    progress.acknowledged = number;
    return true;
  }
  bool PutFirst() { return Put("first", own_.first); }
  bool PutSecond() { return Put("second", own_.second); }

  bool TakeSnapshot() {
    const Bounds before(shared_);
    std::unique_ptr<Snapshot> snapshot;
    if (!Expect(store_.TakeSnapshot(&snapshot), "TakeSnapshot")) return false;
    Contents contents;
    std::string wrong = Walk(*snapshot, Draw(2) == 0, &contents);
    if (wrong.empty()) wrong = Judge(contents, before, shared_);
    if (!wrong.empty()) return Fail("a snapshot: " + wrong);
    ++shared_.snapshots;
    if (Draw(4) == 0) {
      kept_ = std::move(snapshot);
      keptContents_ = std::move(contents);
    }
    return true;
  }

  // Whatever has happened to the store since, a snapshot shows the same.
  bool LookAtKeptSnapshot() {
    if (kept_ == nullptr) return true;
    Contents contents;
    const std::string wrong = Walk(*kept_, Draw(2) == 0, &contents);
    if (!wrong.empty()) return Fail("a kept snapshot: " + wrong);
    if (contents != keptContents_) return Fail("a kept snapshot shows something else than before");
    ++shared_.keptSnapshots;
    const std::string key = Name("account", Draw(kAccounts));
    std::optional<std::string> value;
    if (!Expect(kept_->Get(key, &value), "Snapshot::Get")) return false;
    return value == keptContents_[key] || Fail("a kept snapshot's Get and its walk differ about " + key);
  }

  bool ReadAccount() {
    const std::string key = Name("account", Draw(kAccounts));
    std::optional<std::string> value;
    bool isAlive = false;
    if (!Expect(store_.Get(key, &value), "Get") || !Expect(store_.Contains(key, &isAlive), "Contains"))
      return false;
    return (value.has_value() && isAlive) || Fail(key + " is missing");
  }

  // Gives up after many tries when others keep changing the list of blocks.
  bool Compact() {
    const uint32_t status = store_.Compact();
    if (status == kStatusLockFailed) {
      ++shared_.repeated;
      return true;
    }
    return Count(&shared_.compactions, Expect(status, "Compact"));
  }

  bool TakeCheckpoint() {
    const std::string copy = path_ + "-copy-" + std::to_string(writer_) + "-" + std::to_string(getpid()) +
                             "-" + std::to_string(++copies_);
    const Bounds before(shared_);
    if (!Expect(store_.Checkpoint(copy), "Checkpoint")) return false;
    std::unique_ptr<Snapshot> snapshot;
    if (!Expect(Snapshot::Open(copy, &snapshot), "Snapshot::Open of a checkpoint")) return false;
    Contents contents;
    std::string wrong = Walk(*snapshot, true, &contents);
    if (wrong.empty()) wrong = Judge(contents, before, shared_);
    if (!wrong.empty()) return Fail("a checkpoint: " + wrong);
    std::filesystem::remove_all(copy);
    ++shared_.checkpoints;
    return true;
  }

  Store& store_;
  const std::string path_;
  const int writer_;
  Writer& own_;
  std::mt19937_64 random_;
  Shared& shared_;
  std::unique_ptr<Snapshot> kept_;
  Contents keptContents_;
  int copies_ = 0;
};

StoreOptions Options(bool autoCompact) {
  StoreOptions options;
  options.logSize = kLogSize;
  options.autoCompact = autoCompact;
  options.busyTimeout = kPatience;
  return options;
}

// Counts an operation, and tells the test when the one that it waits for was done.
void CountOperation(Shared& shared, int process, ChildLink& parent) {
  const auto at = static_cast<size_t>(process);
  if (++shared.operations[at] == shared.signalAt[at]) parent.Signal();
}

int RunStoreProcess(const std::string& path, int process, uint64_t life, Shared& shared, ChildLink& parent) {
  alarm(kMaxLife);
  std::unique_ptr<Store> store;
  if (const uint32_t status = Store::Open(path, Options(true), &store); status != kStatusOk) {
    shared.Fail("Open gives " + std::to_string(status));
    return 1;
  }
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      const int writer = process * kThreads + i;
      StoreThread thread(*store, path, writer, life * kThreads + static_cast<uint64_t>(i), shared);
      bool isSound = thread.TakeOver();
      while (isSound && !shared.stop) {
        isSound = thread.DoSomething();
        CountOperation(shared, process, parent);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  StoreStats stats;
  if (store->GetStats(&stats) == kStatusOk) shared.merges += static_cast<long>(stats.compactions);
  return shared.failed ? 1 : 0;
}

// The older face: a lock that is not to be had is a failed call, which is tried again.
class OlderProcess {
 public:
  OlderProcess(std::string path, uint64_t life, Shared& shared)
      : path_(std::move(path)), own_(shared.writers[kOlder]), random_(TestRandom(life)), shared_(shared) {}

  bool Open() {
    LSDBConfig config = {};
    config.walSize = kLogSize;
    const uint32_t status = Patiently([&] {
      LSDBImpl* engine = nullptr;
      const uint32_t opened = LSDBImpl::Open(path_, config, &engine);
      engine_.reset(engine);
      return opened;
    });
    if (status != kStatusOk) return Fail("LSDBImpl::Open gives " + std::to_string(status));
    return TakeOver("first", own_.first) && TakeOver("second", own_.second) &&
           (own_.second.acknowledged == own_.first.acknowledged || Insert("second", own_.second));
  }

  bool DoSomething() {
    const auto what = static_cast<int>(random_() % 100);
    if (what < 40) return Insert("first", own_.first) && Insert("second", own_.second);
    if (what < 94) return ReadPair(static_cast<int>(random_() % kWriters));
    const uint32_t status = what < 97 ? Patiently([&] { return engine_->ResetWal(); })
                                      : Patiently([&] { return engine_->ForceCompact(); });
    ++(what < 97 ? shared_.flushes : shared_.compactions);
    return status == kStatusOk || Fail("a flush or compaction of LSDBImpl gives " + std::to_string(status));
  }

 private:
  bool Fail(const std::string& what) {
    shared_.Fail(what);
    return false;
  }

  template <typename Body>
  uint32_t Patiently(Body body) {
    uint32_t status = body();
    for (; status == kStatusLockFailed && !shared_.stop; status = body()) ++shared_.repeated;
    return shared_.stop && status == kStatusLockFailed ? kStatusOk : status;
  }

  bool Read(const std::string& name, int64_t* number) {
    const void* value = nullptr;
    unsigned int size = 0;
    const Key key(name);
    const uint32_t status = Patiently([&] { return engine_->Get(key, &value, &size); });
    const std::unique_ptr<void, void (*)(void*)> owner(const_cast<void*>(value), &std::free);
    if (shared_.stop) return false;
    if (status != kStatusOk || value == nullptr) {
      return Fail("LSDBImpl::Get of " + name + " gives " + std::to_string(status));
    }
    *number = NumberIn(std::string(static_cast<const char*>(value), size));
    return true;
  }

  bool TakeOver(const char* what, Progress& progress) {
    int64_t found = 0;
    if (!Read(Name(what, kOlder), &found)) return shared_.stop;
    const auto version = static_cast<uint64_t>(found);
    if (version < progress.acknowledged || version > progress.begun) {
      return Fail(Name(what, kOlder) + " holds " + std::to_string(found) + " after a kill");
    }
    progress.begun = version;
    progress.acknowledged = version;
    return true;
  }

  bool Insert(const char* what, Progress& progress) {
    const uint64_t number = ++progress.begun;
    const std::string value = Text(static_cast<int64_t>(number), random_());
    const Key key(Name(what, kOlder));
    const auto size = static_cast<unsigned int>(value.size());
    const uint32_t status = Patiently([&] { return engine_->Insert(key, kOlderTtl, value.data(), size); });
    if (status != kStatusOk) return Fail("LSDBImpl::Insert gives " + std::to_string(status));
    if (shared_.stop) return true;  // perhaps not written
    progress.acknowledged = number;
    ++shared_.olderWrites;
    return true;
  }

  // What is read later is not older.
  bool ReadPair(int writer) {
    const Writer& other = shared_.writers[static_cast<size_t>(writer)];
    const auto least = static_cast<int64_t>(other.second.acknowledged.load());
    int64_t second = 0;
    int64_t first = 0;
    if (!Read(Name("second", writer), &second) || !Read(Name("first", writer), &first)) return shared_.stop;
    if (second < least || first < second || first > static_cast<int64_t>(other.first.begun.load())) {
      return Fail("LSDBImpl reads second " + std::to_string(second) + " and then first " +
                  std::to_string(first) + " of writer " + std::to_string(writer) + ", second was " +
                  std::to_string(least));
    }
    ++shared_.olderReads;
    return true;
  }

  const std::string path_;
  Writer& own_;
  std::mt19937_64 random_;
  Shared& shared_;
  std::unique_ptr<LSDBImpl> engine_;
};

int RunOlderProcess(const std::string& path, uint64_t life, Shared& shared, ChildLink& parent) {
  if (!DropStandardOutput()) return 1;
  alarm(kMaxLife);
  OlderProcess process(path, life, shared);
  bool isSound = process.Open();
  while (isSound && !shared.stop) {
    isSound = process.DoSomething();
    CountOperation(shared, kStoreProcesses, parent);
  }
  return shared.failed ? 1 : 0;
}

int MakeStore(const std::string& path, Shared& shared) {
  std::unique_ptr<Store> store;
  WriteBatch batch;
  uint32_t status = Store::Open(path, Options(false), &store);
  const auto put = [&](const std::string& key, int64_t number) {
    if (status == kStatusOk) status = batch.Put(key, Text(number, 20));
  };
  for (int i = 0; i < kAccounts; ++i) put(Name("account", i), kBalance);
  for (int i = 0; i < kWriters; ++i) {
    put(Name("first", i), 0);
    put(Name("second", i), 0);
    if (i != kOlder) put(Name("moves", i), 0);
  }
  if (status == kStatusOk) status = store->Write(batch);
  if (status != kStatusOk) shared.Fail("making the store gives " + std::to_string(status));
  return status == kStatusOk ? 0 : 1;
}

// The files, and then the store, when nobody works on it: all in one block at last.
int VerifyAtEnd(const std::string& path, Shared& shared) {
  const Bounds before(shared);
  const auto judge = [&](uint32_t status, const Snapshot* snapshot, const char* what) {
    Contents contents;
    std::string wrong =
        status == kStatusOk ? Walk(*snapshot, true, &contents) : "status " + std::to_string(status);
    if (wrong.empty()) wrong = Judge(contents, before, shared);
    if (!wrong.empty()) shared.Fail(std::string(what) + ": " + wrong);
  };
  std::unique_ptr<Snapshot> snapshot;
  uint32_t status = Snapshot::Open(path, &snapshot);
  judge(status, snapshot.get(), "the files at the end");
  std::unique_ptr<Store> store;
  status = Store::Open(path, Options(false), &store);
  if (status == kStatusOk) status = store->TakeSnapshot(&snapshot);
  judge(status, snapshot.get(), "the store at the end");
  if (status == kStatusOk) status = store->Compact();
  if (status == kStatusOk) status = store->TakeSnapshot(&snapshot);
  judge(status, snapshot.get(), "one block at the end");
  return shared.failed ? 1 : 0;
}

TEST(StoreModel, EverySnapshotOfEveryProcessShowsOneMomentWhileProcessesAreKilled) {
  const ScratchDirectory scratch(ScratchDirectory::Place::Memory);
  const std::string path = scratch.PathOf("store");
  Shared* const shared = NewSharedObject<Shared>();
  std::mt19937_64 random = TestRandom(0);
  const auto begun = std::chrono::steady_clock::now();
  ChildProcess maker([&](ChildLink&) { return MakeStore(path, *shared); });
  ASSERT_EQ(maker.Wait(), 0) << shared->message;

  std::array<std::unique_ptr<ChildProcess>, kProcesses> processes;
  uint64_t lives = 0;
  const auto start = [&](int number) {
    ++lives;
    const auto at = static_cast<size_t>(number);
    shared->operations[at] = 0;
    shared->signalAt[at] = static_cast<long>(20 + random() % 200);
    processes[at] = std::make_unique<ChildProcess>([&, number](ChildLink& parent) {
      return number == kStoreProcesses ? RunOlderProcess(path, lives, *shared, parent)
                                       : RunStoreProcess(path, number, lives, *shared, parent);
    });
  };
  for (int number = 0; number < kProcesses; ++number) start(number);

  // A process dies a moment after it has done so many operations, in the middle of whatever it does then.
  const auto kills = static_cast<int>(TestSize(60, 3000));
  for (int i = 0; i < kills && !shared->failed; ++i) {
    const auto victim = static_cast<int>(random() % kProcesses);
    ChildProcess& process = *processes[static_cast<size_t>(victim)];
    if (!process.Await()) break;
    process.Kill();
    process.Wait();
    start(victim);
  }
  for (const auto& process : processes) static_cast<void>(process->Await());  // the last ones work as well
  shared->stop = true;
  for (const auto& process : processes) EXPECT_EQ(process->Wait(), 0);
  ChildProcess verifier([&](ChildLink&) { return VerifyAtEnd(path, *shared); });
  EXPECT_EQ(verifier.Wait(), 0);
  EXPECT_STREQ(shared->message, "");

  const Shared& sum = *shared;
  std::printf(
      "processes with Store: %d kills, %ld transactions and %ld refused bodies, %ld batches, %ld snapshots "
      "checked and "
      "%ld looked at again, %ld checkpoints, %ld flushes and %ld compactions asked for, %ld merges by "
      "threads that "
      "were not killed, %ld writes and %ld reads of the older face, %ld calls repeated for a lock, %.1f s\n",
      kills, sum.transactions.load(), sum.refusedBodies.load(), sum.batches.load(), sum.snapshots.load(),
      sum.keptSnapshots.load(), sum.checkpoints.load(), sum.flushes.load(), sum.compactions.load(),
      sum.merges.load(), sum.olderWrites.load(), sum.olderReads.load(), sum.repeated.load(),
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count());
  EXPECT_GT(sum.snapshots, kills);
  EXPECT_GT(sum.transactions, kills);
}

}  // namespace
}  // namespace Kestrun::Testing
