// Kills a process at every system call and at every store into the mapped log or manifest header, and looks
// whether the processes after it find everything that was acknowledged, and nothing that was given up.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/process/traced_child.h"
#include "tests/support/child_process.h"
#include "tests/support/kill_workload.h"
#include "tests/support/random_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/shared_memory.h"

namespace Kestrun::Testing {
namespace {

constexpr int kWorkers = 2;
constexpr unsigned int kGenerationSeconds = 60;  // a generation takes milliseconds, unless it never ends

// A process that is killed leaves its files as they are, on whatever file system: the fastest one will do.
ScratchDirectory ScratchInMemory() {
  if (access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 0);
  return ScratchDirectory();
}

// Where a process is killed: after so many stops at system calls, and from there, when it is not 0, after so
// many changes to the mapped bytes.
struct KillPoint {
  long stops;
  int stores;
};

// The bytes of a store that change without a system call: the log and the header of the manifest.
class MappedBytes {
 public:
  explicit MappedBytes(const std::string& directory)
      : paths_{directory + "/wal_v5", directory + "/manifest_v5"} {}
  ~MappedBytes() {
    for (const int descriptor : descriptors_) {
      if (descriptor >= 0) close(descriptor);
    }
  }
  MappedBytes(const MappedBytes&) = delete;
  MappedBytes& operator=(const MappedBytes&) = delete;

  // Whether they are not what they were when this was asked last.
  bool HaveChanged() {
    bool changed = false;
    for (size_t i = 0; i < paths_.size(); ++i) changed = HasChanged(i) || changed;
    return changed;
  }

 private:
  static constexpr size_t kMax = 4096;
  static constexpr std::array<size_t, 2> kLengths = {kMax, 128};

  bool HasChanged(size_t file) {
    if (descriptors_[file] < 0) descriptors_[file] = open(paths_[file].c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptors_[file] < 0) return false;
    std::array<char, kMax> now = {};
    if (pread(descriptors_[file], now.data(), kLengths[file], 0) < 0) return false;
    if (now == last_[file]) return false;
    last_[file] = now;
    return true;
  }

  std::array<std::string, 2> paths_;
  std::array<int, 2> descriptors_ = {-1, -1};
  std::array<std::array<char, kMax>, 2> last_ = {};
};

struct Survey {
  long stops = 0;  // of the whole workload
  struct Place {
    long stops;  // after which mapped bytes change before the next system call
    int step;    // of the workload
  };
  std::vector<Place> storesFrom;
};

struct WorkerReport {
  long kills = 0;
  long storeKills = 0;
  long steps = 0;       // instructions
  long operations = 0;  // acknowledged by processes that were killed
  long unsettled = 0;   // kills in the middle of an operation
  int failures = 0;
  char message[2000] = {};
};

// One of the processes that share out the kill points. It stays on one processor together with the children
// that it traces: they never run at the same time, and going to and fro between two would take most of it.
class Worker {
 public:
  Worker(int number, Face face, WorkerReport* report)
      : report_(report), face_(face), scratch_(ScratchInMemory()), directory_(scratch_.PathOf("run/store")) {
    KeepHeapRoomy();
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) return;
    for (int cpu = 0, seen = 0; cpu < CPU_SETSIZE; ++cpu) {
      if (!CPU_ISSET(cpu, &allowed) || seen++ != number % CPU_COUNT(&allowed)) continue;
      cpu_set_t one;
      CPU_ZERO(&one);
      CPU_SET(cpu, &one);
      sched_setaffinity(0, sizeof(one), &one);
      return;
    }
  }

  // Where there is anything to kill at.
  Survey LookAround() {
    Survey survey;
    StartOver();
    TracedChild child([this] { return RunKillWorkload(directory_, face_, progress_); });
    MappedBytes bytes(directory_);
    while (child.RunToStop()) {
      ++survey.stops;
      const bool changed = bytes.HaveChanged();
      if (changed && !child.IsAfterCall())
        survey.storesFrom.push_back({survey.stops - 1, progress_->started - 1});
    }
    if (child.ExitStatus() != 0) Fail({survey.stops, 0}, progress_->message);
    if (face_ == Face::Safe && progress_->merges != 2) Fail({survey.stops, 0}, "the merges did nothing");
    return survey;
  }

  // Kills one process there. False when it has ended before.
  bool KillAt(const KillPoint& point) {
    StartOver();
    {
      TracedChild child([this] { return RunKillWorkload(directory_, face_, progress_); });
      for (long i = 0; i < point.stops; ++i) {
        if (!child.RunToStop()) return false;
      }
      MappedBytes bytes(directory_);
      bytes.HaveChanged();
      for (int changes = 0; changes < point.stores;) {
        if (!child.StepInstruction()) return false;
        ++report_->steps;
        if (bytes.HaveChanged()) ++changes;
      }
      child.Kill();
    }
    ++report_->kills;
    if (point.stores != 0) ++report_->storeKills;
    report_->operations += progress_->done;
    if (progress_->started != progress_->done) ++report_->unsettled;
    for (int generation = 1; generation <= 3; ++generation) {
      ChildProcess process([&](ChildLink&) {
        alarm(kGenerationSeconds);
        return RunGeneration(generation, directory_, face_, progress_);
      });
      const int status = process.Wait();
      if (status == 0) continue;
      if (status != 1)
        std::snprintf(progress_->message, sizeof(progress_->message), "generation %d ends with %d",
                      generation, status);
      Fail(point, progress_->message);
      break;
    }
    return true;
  }

  void Fail(const KillPoint& point, const std::string& message) {
    if (report_->failures++ != 0) return;
    std::snprintf(report_->message, sizeof(report_->message), "killed at stop %ld, store %d, in step %d: %s",
                  point.stops, point.stores, static_cast<int>(progress_->started) - 1, message.c_str());
  }

 private:
  // The children begin with this process's heap. Whether it has to grow in them would depend on what the
  // worker has done before, and with it the number of their system calls.
  static void KeepHeapRoomy() {
    constexpr int kRoom = 32 << 20;
    mallopt(M_MMAP_THRESHOLD, kRoom);
    mallopt(M_TRIM_THRESHOLD, 2 * kRoom);
    std::free(std::malloc(kRoom / 2));
  }

  void StartOver() {
    std::filesystem::remove_all(scratch_.PathOf("run"));  // the store and its checkpoints
    std::filesystem::create_directory(scratch_.PathOf("run"));
    new (progress_) KillProgress();
  }

  WorkerReport* report_;
  const Face face_;
  ScratchDirectory scratch_;
  std::string directory_;
  KillProgress* progress_ = NewSharedObject<KillProgress>();
};

// Runs `work(worker number)` in processes beside each other; the figures of all come back together.
template <typename Work>
WorkerReport ShareOut(Face face, Work work) {
  std::array<WorkerReport*, kWorkers> reports;
  std::vector<std::unique_ptr<ChildProcess>> workers;
  for (int i = 0; i < kWorkers; ++i) {
    reports[static_cast<size_t>(i)] = NewSharedObject<WorkerReport>();
    workers.push_back(std::make_unique<ChildProcess>([&, i](ChildLink&) {
      Worker worker(i, face, reports[static_cast<size_t>(i)]);
      work(worker, i);
      return 0;
    }));
  }
  WorkerReport sum;
  for (int i = 0; i < kWorkers; ++i) {
    EXPECT_EQ(workers[static_cast<size_t>(i)]->Wait(), 0);
    const WorkerReport& report = *reports[static_cast<size_t>(i)];
    EXPECT_EQ(report.failures, 0) << report.message;
    sum.kills += report.kills;
    sum.storeKills += report.storeKills;
    sum.steps += report.steps;
    sum.operations += report.operations;
    sum.unsettled += report.unsettled;
    sum.failures += report.failures;
  }
  return sum;
}

// One of so many points is tried by default, every one in the full run.
long Stride(uint64_t usual) {
  return static_cast<long>(std::max<uint64_t>(1, usual / TestSize(1, usual)));
}

void Print(const char* what, const WorkerReport& sum, double seconds) {
  std::printf(
      "%s: %ld kills (%ld at a store, %ld instructions stepped through), %ld of them inside an operation, "
      "%ld operations acknowledged before, %ld generations of processes after, %d losses, %.1f s\n",
      what, sum.kills, sum.storeKills, sum.steps, sum.unsettled, sum.operations, 3 * sum.kills, sum.failures,
      seconds);
}

std::string FaceName(const testing::TestParamInfo<Face>& face) {
  return face.param == Face::Older ? "OlderFace" : "Store";
}

class KillSweep : public testing::TestWithParam<Face> {
 protected:
  KillSweep() : begun_(std::chrono::steady_clock::now()) {}

  double Seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun_).count();
  }
  // The two faces have much in common below: by default fewer places are tried through Store.
  long UsualStride(uint64_t ofStore) const { return Stride(GetParam() == Face::Older ? 7 : ofStore); }

 private:
  const std::chrono::steady_clock::time_point begun_;
};

TEST_P(KillSweep, NothingAcknowledgedIsLostWhereverASystemCallIsTheLast) {
  const long stride = UsualStride(13);  // odd: calls that are to come and calls that are done take turns
  const WorkerReport sum = ShareOut(GetParam(), [&](Worker& worker, int number) {
    long stop = 1 + number * stride;
    while (worker.KillAt({stop, 0})) stop += kWorkers * stride;
  });
  Print("kill sweep over system calls", sum, Seconds());
  EXPECT_GT(sum.kills, 100);
  EXPECT_GT(sum.unsettled, 100);
}

TEST_P(KillSweep, NothingAcknowledgedIsLostWhereverAStoreIntoAMappingIsTheLast) {
  const long stride = UsualStride(29);
  const auto storeStride = static_cast<int>(Stride(11));
  const Script script = KillWorkload(GetParam());
  const WorkerReport sum = ShareOut(GetParam(), [&](Worker& worker, int number) {
    const std::vector<Survey::Place> places = worker.LookAround().storesFrom;
    for (size_t i = 0; i < places.size(); ++i) {
      const Survey::Place& place = places[i];
      // What has to be there as a whole is tried everywhere, if not at every store of it.
      const bool isAtomic = IsAtomic(script[static_cast<size_t>(place.step)].kind, GetParam());
      const auto turn = static_cast<long>(i);
      if (isAtomic ? turn % kWorkers != number : turn % (kWorkers * stride) != number * stride) continue;
      int stores = 1;
      while (worker.KillAt({place.stops, stores})) stores += isAtomic ? storeStride : 1;
      if (stores == 1) worker.Fail({place.stops, 1}, "no store where there was one before");
    }
  });
  Print("kill sweep over stores", sum, Seconds());
  EXPECT_GT(sum.storeKills, 10);
}

INSTANTIATE_TEST_SUITE_P(Faces, KillSweep, testing::Values(Face::Older, Face::Safe), FaceName);

}  // namespace
}  // namespace Kestrun::Testing
