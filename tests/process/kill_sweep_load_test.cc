// Kills processes at random moments while several of them work on one store, and looks whether the survivors,
// and those that take the place of the dead, find everything that was acknowledged.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kestrun/status.h"
#include "tests/support/child_process.h"
#include "tests/support/random_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/scripted_store.h"
#include "tests/support/shared_memory.h"

namespace Kestrun::Testing {
namespace {

using Kind = Step::Kind;

constexpr int kProcesses = 4;
constexpr uint32_t kWalSize = 4096;
constexpr int kTypes = 5;
constexpr unsigned int kMaxLife = 120;  // seconds; a process that still runs then hangs
constexpr int kIdle = -3;

// What all processes of a run share. Each key belongs to one process, which alone writes it.
struct Load {
  struct KeyState {
    std::atomic<int> acknowledged{kAbsent};
    std::atomic<int> inFlight{kIdle};  // what a call that has not returned yet is writing
  };
  KeyState keys[kScriptKeys];
  std::atomic<int> numbers{0};
  std::atomic<bool> stop{false};
  std::atomic<long> writes{0}, reads{0}, flushes{0}, compactions{0}, refusals{0};
  std::atomic<bool> failed{false};
  char message[1000] = {};
};

class LoadProcess {
 public:
  LoadProcess(const std::string& directory, int number, uint64_t life, Load* load)
      : store_(directory), number_(number), load_(load), random_(TestRandom(life)) {}

  int Run() {
    if (!DropStandardOutput()) return 1;
    alarm(kMaxLife);
    if (!Do({Kind::Open, 0, 0, kWalSize})) return 1;
    for (int key = number_; key < kScriptKeys; key += kProcesses) {
      if (!Settle(key)) return 1;
    }
    while (!load_->stop) {
      if (!DoSomething()) return 1;
    }
    return 0;
  }

  // Whether every key of every process holds what it must; the others have all ended.
  int VerifyAll() {
    if (!DropStandardOutput()) return 1;
    alarm(kMaxLife);
    if (!Do({Kind::Open, 0, 0, kWalSize})) return 1;
    for (int key = 0; key < kScriptKeys; ++key) {
      if (!Settle(key)) return 1;
    }
    return 0;
  }

 private:
  int Draw(int below) { return static_cast<int>(random_() % static_cast<uint64_t>(below)); }

  bool Fail(const std::string& message) {
    if (!load_->failed.exchange(true)) {
      std::snprintf(load_->message, sizeof(load_->message), "%s", message.c_str());
    }
    return false;
  }

  // Once more as long as somebody else has the lock.
  bool Do(const Step& step, int* found = nullptr) {
    const int number = load_->numbers++;
    for (;;) {
      const ScriptedStore::Result result = store_.Run(number, step);
      if (result.status == kStatusLockFailed) {
        ++load_->refusals;
        continue;
      }
      if (result.status != kStatusOk) {
        return Fail(Describe(number, step) + " gives " + std::to_string(result.status));
      }
      if (found != nullptr) *found = result.found;
      return true;
    }
  }

  bool Write(const Step& step) {
    Load::KeyState& state = load_->keys[step.key];
    const int number = load_->numbers++;
    state.inFlight = step.kind == Kind::Delete ? kAbsent : number;
    for (;;) {
      const ScriptedStore::Result result = store_.Run(number, step);
      if (result.status == kStatusOk) break;
      if (result.status == kStatusLockFailed) {
        ++load_->refusals;
        continue;
      }
      // A type whose creation found the schema's lock taken is not there; asking again is safe.
      if (step.kind == Kind::Append && result.status == kStatusInvalid) continue;
      return Fail(Describe(number, step) + " gives " + std::to_string(result.status));
    }
    state.acknowledged = state.inFlight.load();
    state.inFlight = kIdle;
    ++load_->writes;
    return true;
  }

  // Looks at a key after its writer was killed, or may have been.
  bool Settle(int key) {
    Load::KeyState& state = load_->keys[key];
    int found = kForeign;
    if (!Do({Kind::Get, key}, &found)) return false;
    if (found != state.acknowledged && (state.inFlight == kIdle || found != state.inFlight)) {
      return Fail(ScriptKey(key) + " holds " + std::to_string(found) + " where " +
                  std::to_string(state.acknowledged) + " was acknowledged and " +
                  std::to_string(state.inFlight) + " under way");
    }
    state.acknowledged = found;
    state.inFlight = kIdle;
    return true;
  }

  bool DoSomething() {
    const int what = Draw(100);
    if (what < 60) {
      const int key = number_ + kProcesses * Draw((kScriptKeys - number_ + kProcesses - 1) / kProcesses);
      if (what < 8) return Write({Kind::Delete, key});
      const auto size = static_cast<uint32_t>(20 + Draw(200));
      const bool isRecord = key >= kFirstRecordKey;
      return Write({isRecord ? Kind::Append : Kind::Insert, key, Draw(kTypes), size});
    }
    if (what < 94) return ReadSomething();
    if (what < 97) {
      ++load_->flushes;
      return Do({Kind::Flush});
    }
    ++load_->compactions;
    return Do({Kind::Compact});
  }

  bool ReadSomething() {
    const int key = Draw(kScriptKeys);
    int found = kForeign;
    if (!Do({Kind::Get, key}, &found)) return false;
    ++load_->reads;
    if (key % kProcesses != number_) {
      return found != kForeign || Fail(ScriptKey(key) + " holds what nobody wrote");
    }
    const int expected = load_->keys[key].acknowledged;
    return found == expected || Fail(ScriptKey(key) + " holds " + std::to_string(found) + " where " +
                                     std::to_string(expected) + " was acknowledged");
  }

  ScriptedStore store_;
  const int number_;
  Load* const load_;
  std::mt19937_64 random_;
};

class KillUnderLoad : public testing::Test {
 protected:
  void Start(int number) {
    processes_[number] = std::make_unique<ChildProcess>([this, number](ChildLink&) {
      return LoadProcess(directory_.PathOf("store"), number, ++lives_, load_).Run();
    });
    ++lives_;
  }

  void Kill(int number) {
    processes_[number]->Kill();
    processes_[number]->Wait();
    ++kills_;
  }

  void VerifyAll() {
    ChildProcess process(
        [this](ChildLink&) { return LoadProcess(directory_.PathOf("store"), 0, 0, load_).VerifyAll(); });
    EXPECT_EQ(process.Wait(), 0);
    ++verifications_;
  }

  const ScratchDirectory directory_;
  Load* const load_ = NewSharedObject<Load>();
  std::unique_ptr<ChildProcess> processes_[kProcesses];
  uint64_t lives_ = 0;
  int kills_ = 0;
  int verifications_ = 0;
};

TEST_F(KillUnderLoad, NothingAcknowledgedIsLostWhenProcessesAreKilledAtRandomMoments) {
  constexpr int kKillsBetweenVerifications = 20;
  const auto wanted = static_cast<int>(TestSize(200, 5000));
  std::mt19937_64 random = TestRandom(0);
  const auto begun = std::chrono::steady_clock::now();

  for (int number = 0; number < kProcesses; ++number) Start(number);
  while (kills_ < wanted && !load_->failed) {
    // The moment is what is drawn here; there is no event to wait for.
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 30000));
    if (kills_ % kKillsBetweenVerifications != kKillsBetweenVerifications - kProcesses) {
      const auto victim = static_cast<int>(random() % kProcesses);
      Kill(victim);
      Start(victim);
      continue;
    }
    for (int number = 0; number < kProcesses; ++number) Kill(number);
    VerifyAll();
    for (int number = 0; number < kProcesses; ++number) Start(number);
  }
  load_->stop = true;
  for (const auto& process : processes_) EXPECT_EQ(process->Wait(), 0);
  VerifyAll();

  EXPECT_FALSE(load_->failed) << load_->message;
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
  std::printf(
      "kills under load: %d kills of one of %d processes, %ld writes and %ld reads, %ld flushes asked for, "
      "%ld compactions, %ld calls repeated for a lock, %d verifications of everything, %d losses, %.1f s\n",
      kills_, kProcesses, load_->writes.load(), load_->reads.load(), load_->flushes.load(),
      load_->compactions.load(), load_->refusals.load(), verifications_, load_->failed ? 1 : 0, seconds);
  EXPECT_GT(load_->writes, kills_);
}

}  // namespace
}  // namespace Kestrun::Testing
