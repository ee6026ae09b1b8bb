// Makes every call of the system and every allocation that the library asks for fail once, and from then on,
// with the errors that it may meet, and looks whether each operation gives a status and is either done or
// not, and whether the store is whole and goes on working afterwards.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "tests/fault/fault_attempt.h"
#include "tests/support/child_process.h"
#include "tests/support/random_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/shared_memory.h"

namespace Kestrun::Testing {
namespace {

constexpr int kWorkers = 2;
constexpr unsigned int kAttemptSeconds = 60;  // an attempt takes milliseconds, unless it never ends

enum class Span {
  Once,
  Thrice,  // less often than a lock is tried
  FromThenOn,
};

struct FaultCase {
  Fault fault;
  int error;
  Span span;
  bool mustSucceed = false;
  bool halves = false;
  bool failsAfter = false;
  bool noLinks = false;
};

constexpr bool kMustSucceed = true;
constexpr bool kHalves = true;

const FaultCase kSystemCalls[] = {
    {Fault::Open, EIO, Span::Once},
    {Fault::Open, EMFILE, Span::Once},
    {Fault::Open, EMFILE, Span::FromThenOn},
    {Fault::Open, ENOSPC, Span::FromThenOn},
    {Fault::Open, EINTR, Span::Thrice},
    {Fault::Read, EIO, Span::Once},
    {Fault::Read, EIO, Span::FromThenOn},
    {Fault::Read, EINTR, Span::Thrice, kMustSucceed},
    {Fault::Read, 0, Span::FromThenOn, kMustSucceed, kHalves},
    {Fault::PRead, EIO, Span::Once},
    {Fault::PRead, EIO, Span::FromThenOn},
    {Fault::PRead, EINTR, Span::Thrice, kMustSucceed},
    {Fault::PRead, 0, Span::FromThenOn, kMustSucceed, kHalves},
    {Fault::PRead, EIO, Span::FromThenOn, false, kHalves, true},
    {Fault::PWrite, EIO, Span::Once},
    {Fault::PWrite, EIO, Span::FromThenOn},
    {Fault::PWrite, ENOSPC, Span::Once},
    {Fault::PWrite, ENOSPC, Span::FromThenOn},
    {Fault::PWrite, EINTR, Span::Thrice, kMustSucceed},
    {Fault::PWrite, 0, Span::FromThenOn, kMustSucceed, kHalves},
    {Fault::PWrite, ENOSPC, Span::FromThenOn, false, kHalves, true},
    {Fault::Sync, EIO, Span::Once},
    {Fault::Sync, EIO, Span::FromThenOn},
    {Fault::Sync, ENOSPC, Span::Once},
    {Fault::Sync, EINTR, Span::Once},
    {Fault::Map, ENOMEM, Span::Once},
    {Fault::Map, ENOMEM, Span::FromThenOn},
    {Fault::Truncate, EIO, Span::Once},
    {Fault::Truncate, ENOSPC, Span::FromThenOn},
    {Fault::Truncate, EINTR, Span::Once},
    {Fault::Reserve, ENOSPC, Span::Once},
    {Fault::Reserve, ENOSPC, Span::FromThenOn},
    {Fault::Reserve, EIO, Span::Once},
    {Fault::Reserve, EINTR, Span::Thrice, kMustSucceed},
    {Fault::Reserve, EOPNOTSUPP, Span::FromThenOn, kMustSucceed},
    {Fault::Lock, EIO, Span::Once, kMustSucceed},
    {Fault::Lock, ENOLCK, Span::FromThenOn},
    {Fault::Lock, EINTR, Span::Thrice, kMustSucceed},
    {Fault::MakeDir, EACCES, Span::Once},
    {Fault::MakeDir, ENOSPC, Span::FromThenOn},
    {Fault::OpenDir, EMFILE, Span::Once},
    {Fault::OpenDir, EMFILE, Span::FromThenOn},
    {Fault::Link, EPERM, Span::FromThenOn},
    {Fault::Link, ENOSPC, Span::Once},
    {Fault::Unlink, EIO, Span::Once},
    {Fault::Unlink, EIO, Span::FromThenOn},
    {Fault::Access, EIO, Span::Once},
    {Fault::Access, EIO, Span::FromThenOn},
    {Fault::Stat, EIO, Span::Once},
    {Fault::Stat, EIO, Span::FromThenOn},
    {Fault::Seek, EIO, Span::Once},
    {Fault::Seek, EIO, Span::FromThenOn},
    {Fault::SyncMap, EIO, Span::Once},
    {Fault::SyncMap, EIO, Span::FromThenOn},
    {Fault::LockWhole, EINTR, Span::FromThenOn},
};

// What only Store asks for.
const FaultCase kSystemCallsOfStore[] = {
    {Fault::Rename, EIO, Span::Once},
    {Fault::Rename, ENOSPC, Span::FromThenOn},
    {Fault::Rename, EINVAL, Span::Once, kMustSucceed},  // a system without renameat2
    {Fault::Mode, EPERM, Span::FromThenOn, kMustSucceed},
    {Fault::Open, EACCES, Span::Once},
    {Fault::CopyRange, EIO, Span::Once, false, false, false, true},
    {Fault::CopyRange, ENOSPC, Span::FromThenOn, false, false, false, true},
    {Fault::CopyRange, EXDEV, Span::FromThenOn, kMustSucceed, false, false, true},
    {Fault::CopyRange, EINTR, Span::Thrice, kMustSucceed, false, false, true},
    {Fault::CopyRange, 0, Span::FromThenOn, kMustSucceed, kHalves, false, true},
};

// Where a process ends before another one meets failures: the calls after which a change takes effect.
const Fault kEnds[] = {Fault::Truncate, Fault::Sync, Fault::Unlink, Fault::PWrite};

const FaultCase kFaultsOfRecovery[] = {
    {Fault::Open, EMFILE, Span::Once},       {Fault::Open, EMFILE, Span::FromThenOn},
    {Fault::PRead, EIO, Span::Once},         {Fault::PRead, EIO, Span::FromThenOn},
    {Fault::PWrite, ENOSPC, Span::Once},     {Fault::PWrite, ENOSPC, Span::FromThenOn},
    {Fault::Truncate, EIO, Span::Once},      {Fault::Truncate, EIO, Span::FromThenOn},
    {Fault::Sync, EIO, Span::Once},          {Fault::Unlink, EIO, Span::FromThenOn},
    {Fault::Stat, EIO, Span::Once},          {Fault::Access, EIO, Span::Once},
    {Fault::Lock, ENOLCK, Span::FromThenOn}, {Fault::Allocate, ENOMEM, Span::Once},
};

const FaultCase kAllocations[] = {
    {Fault::Allocate, ENOMEM, Span::Once},
    {Fault::Allocate, ENOMEM, Span::FromThenOn},
};

FaultPlan PlanFor(const FaultCase& faultCase, long number) {
  FaultPlan plan;
  plan.fault = faultCase.fault;
  plan.error = faultCase.error;
  plan.halves = faultCase.halves;
  plan.failsAfter = faultCase.failsAfter;
  plan.noLinks = faultCase.noLinks;
  plan.first = number;
  plan.last =
      faultCase.span == Span::FromThenOn ? LONG_MAX : number + (faultCase.span == Span::Thrice ? 2 : 0);
  return plan;
}

std::string Describe(const FaultCase& faultCase, long number) {
  std::string text = std::string(FaultName(faultCase.fault)) + " number " + std::to_string(number);
  if (faultCase.span == Span::FromThenOn) text += " and all after it";
  if (faultCase.span == Span::Thrice) text += " and the next two";
  if (faultCase.halves) text += " moves half of its bytes";
  if (faultCase.error != 0)
    text += std::string(faultCase.halves ? ", then " : " fails: ") + strerror(faultCase.error);
  return text;
}

struct SweepReport {
  long attempts = 0;
  long hits = 0;
  long steps = 0;
  long refused = 0;
  long generations = 0;
  int failures = 0;
  char message[8000] = {};
};

// One of the processes that share out the attempts.
class Worker {
 public:
  // `scratch` is for the worker alone.
  Worker(const std::string& scratch, Face face, SweepReport* report)
      : scratch_(scratch), directory_(scratch + "/store"), face_(face), report_(report) {}

  // False when there are fewer calls than that.
  bool Try(const FaultCase& faultCase, long number, Workload workload = Workload::Everything) {
    StartOver();
    const FaultPlan plan = PlanFor(faultCase, number);
    const int status = Run(
        [&] { return RunFaultAttempt(directory_, face_, workload, plan, faultCase.mustSucceed, attempt_); });
    if (status > 1) Fail(faultCase, number, "the process ends with " + std::to_string(status));
    if (status == 1) Fail(faultCase, number, attempt_->message);
    if (attempt_->hits == 0) return false;
    ++report_->attempts;
    report_->hits += attempt_->hits;
    report_->steps += attempt_->steps;
    report_->refused += attempt_->refused;
    if (status == 0 && workload == Workload::Everything) GoOn(faultCase, number);
    return true;
  }

  // One process ends at a call, and the next one, which finds what it left, meets failures. False when there
  // are fewer calls than that of either kind.
  bool TryRecovery(Fault end, long endNumber, const FaultCase& faultCase, long number) {
    StartOver();
    FaultPlan endPlan;
    endPlan.fault = end;
    endPlan.first = endNumber;
    endPlan.ends = true;
    if (Run([&] { return RunUntilEnd(directory_, face_, endPlan, attempt_); }) != kEndedByPlan) return false;
    attempt_->hits = 0;
    const FaultPlan plan = PlanFor(faultCase, number);
    const int status = Run([&] { return RunFaultyRecovery(directory_, face_, plan, attempt_); });
    const std::string where =
        "after an end at " + std::string(FaultName(end)) + " number " + std::to_string(endNumber) + ", ";
    if (status > 1) Fail(faultCase, number, where + "the process ends with " + std::to_string(status));
    if (status == 1) Fail(faultCase, number, where + attempt_->message);
    if (attempt_->hits == 0) return false;
    ++report_->attempts;
    report_->hits += attempt_->hits;
    report_->steps += attempt_->steps;
    report_->refused += attempt_->refused;
    if (status == 0) GoOn(faultCase, number);
    return true;
  }

 private:
  void StartOver() {
    std::filesystem::remove_all(scratch_);  // the store and its checkpoints
    std::filesystem::create_directory(scratch_);
    new (attempt_) FaultReport();
  }

  template <typename Body>
  static int Run(Body body) {
    ChildProcess process([&](ChildLink&) {
      alarm(kAttemptSeconds);
      return body();
    });
    return process.Wait();
  }

  // In processes of their own.
  void GoOn(const FaultCase& faultCase, long number) {
    for (int generation = 2; generation <= 3; ++generation) {
      const int status =
          Run([&] { return RunGeneration(generation, directory_, face_, &attempt_->progress); });
      ++report_->generations;
      if (status == 0) continue;
      Fail(faultCase, number,
           status == 1 ? attempt_->progress.message : "the next process ends with " + std::to_string(status));
      return;
    }
  }

  void Fail(const FaultCase& faultCase, long number, const std::string& message) {
    ++report_->failures;
    const size_t used = std::strlen(report_->message);
    std::snprintf(report_->message + used, sizeof(report_->message) - used, "%s: %s\n",
                  Describe(faultCase, number).c_str(), message.c_str());
  }

  const std::string scratch_;
  const std::string directory_;
  const Face face_;
  SweepReport* const report_;
  FaultReport* const attempt_ = NewSharedObject<FaultReport>();
};

// With a sanitizer a size is a part of the usual one.
long AtLeastOne(uint64_t size) {
  return std::max(1L, static_cast<long>(size));
}

// The attempts at one case: all of them, or at most so many, spread over the whole workload.
void TryAll(Worker& worker, const FaultCase& faultCase, long calls, long most) {
  const long stride = std::max(1L, (calls + most - 1) / most);
  for (long number = 1; number <= calls; number += stride) {
    if (!worker.Try(faultCase, number)) return;
  }
}

// A run in which nothing fails; it tells how often each call is made.
const FaultReport& RunWithoutFaults(const std::string& directory, Face face, bool noLinks = false,
                                    Workload workload = Workload::Everything) {
  FaultReport* report = NewSharedObject<FaultReport>();
  FaultPlan plan;
  plan.noLinks = noLinks;
  ChildProcess process(
      [&](ChildLink&) { return RunFaultAttempt(directory, face, workload, plan, true, report); });
  EXPECT_EQ(process.Wait(), 0) << report->message;
  return *report;
}

std::string FaceName(const testing::TestParamInfo<Face>& face) {
  return face.param == Face::Older ? "OlderFace" : "Store";
}

class FaultSweep : public testing::TestWithParam<Face> {
 protected:
  static ScratchDirectory ScratchInMemory() {
    if (access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 0);
    return ScratchDirectory();
  }

  // Shares out the numbers below `count` to workers, and adds up what they report.
  template <typename Work>
  void Sweep(const char* what, size_t count, Work work) {
    const auto begun = std::chrono::steady_clock::now();
    auto* next = NewSharedObject<std::atomic<size_t>>();
    std::array<SweepReport*, kWorkers> reports;
    std::vector<std::unique_ptr<ChildProcess>> workers;
    for (size_t i = 0; i < kWorkers; ++i) {
      reports[i] = NewSharedObject<SweepReport>();
      workers.push_back(std::make_unique<ChildProcess>([&, i](ChildLink&) {
        Worker worker(scratch_.PathOf("worker-" + std::to_string(i)), GetParam(), reports[i]);
        for (size_t at = (*next)++; at < count; at = (*next)++) work(worker, at);
        return 0;
      }));
    }
    SweepReport sum;
    for (size_t i = 0; i < kWorkers; ++i) {
      EXPECT_EQ(workers[i]->Wait(), 0);
      EXPECT_EQ(reports[i]->failures, 0) << reports[i]->message;
      sum.attempts += reports[i]->attempts;
      sum.hits += reports[i]->hits;
      sum.steps += reports[i]->steps;
      sum.refused += reports[i]->refused;
      sum.failures += reports[i]->failures;
      sum.generations += reports[i]->generations;
    }
    std::printf(
        "%s: %ld runs with %ld failed calls in %zu ways, %ld operations, %ld of them refused with a status, "
        "%ld generations of processes after, %d losses, %.1f s\n",
        what, sum.attempts, sum.hits, count, sum.steps, sum.refused, sum.generations, sum.failures,
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count());
    EXPECT_GT(sum.refused, 0);
  }

  const ScratchDirectory scratch_ = ScratchInMemory();
};

// The older face merges on request alone, and has no checkpoints.
class MergeFaultSweep : public FaultSweep {};

TEST_P(FaultSweep, AFailedSystemCallGivesAStatusAndLeavesTheStoreWhole) {
  const bool isStore = GetParam() == Face::Safe;
  const auto most = AtLeastOne(TestSize(isStore ? 2 : 8, LONG_MAX / 4));
  std::vector<FaultCase> cases(std::begin(kSystemCalls), std::end(kSystemCalls));
  if (isStore) cases.insert(cases.end(), std::begin(kSystemCallsOfStore), std::end(kSystemCallsOfStore));
  const FaultReport& linking = RunWithoutFaults(scratch_.PathOf("whole"), GetParam());
  const FaultReport& copying = RunWithoutFaults(scratch_.PathOf("copied"), GetParam(), true);
  Sweep("failure sweep over system calls", cases.size(), [&](Worker& worker, size_t at) {
    const FaultReport& whole = cases[at].noLinks ? copying : linking;
    TryAll(worker, cases[at], whole.calls[static_cast<size_t>(cases[at].fault)], most);
  });
}

TEST_P(FaultSweep, AFailedAllocationGivesAStatusAndLeavesTheStoreWhole) {
  const auto most = AtLeastOne(TestSize(GetParam() == Face::Safe ? 40 : 100, LONG_MAX / 4));
  const FaultReport& whole = RunWithoutFaults(scratch_.PathOf("whole"), GetParam());
  Sweep("failure sweep over allocations", std::size(kAllocations), [&](Worker& worker, size_t at) {
    TryAll(worker, kAllocations[at], whole.calls[static_cast<size_t>(Fault::Allocate)], most);
  });
}

// Every one of them, whatever the size of the run: a block that is listed and removed is lost for good.
TEST_P(MergeFaultSweep, AnyAllocationOfAMergeOrACheckpointMayFail) {
  constexpr Workload kWorkload = Workload::MergeAndCheckpoint;
  const FaultReport& whole = RunWithoutFaults(scratch_.PathOf("whole"), GetParam(), false, kWorkload);
  const long calls = whole.calls[static_cast<size_t>(Fault::Allocate)];
  ASSERT_GT(calls, 50);
  Sweep("failure sweep over allocations of merges and checkpoints", static_cast<size_t>(calls),
        [&](Worker& worker, size_t at) {
          worker.Try({Fault::Allocate, ENOMEM, Span::Once}, static_cast<long>(at) + 1, kWorkload);
        });
}

TEST_P(FaultSweep, AFailureAfterTheEndOfAProcessCostsNothingEither) {
  const auto most = AtLeastOne(TestSize(1, 40));
  const long usual = GetParam() == Face::Safe ? 31 : 3;
  const long stride = TestSize(1, 2) <= 1 ? usual : 1;
  const FaultReport& whole = RunWithoutFaults(scratch_.PathOf("whole"), GetParam());
  const size_t cases = std::size(kFaultsOfRecovery);
  Sweep("failure sweep after a kill", std::size(kEnds) * cases, [&](Worker& worker, size_t at) {
    const Fault end = kEnds[at / cases];
    const FaultCase& faultCase = kFaultsOfRecovery[at % cases];
    const long begin = 1 + static_cast<long>(at) % stride;
    for (long endNumber = begin; endNumber <= whole.calls[static_cast<size_t>(end)]; endNumber += stride) {
      // The opening and the reads after it make the first calls. Few numbers are tried with each end, so
      // other ones with the next.
      const long first = 1 + (endNumber + static_cast<long>(at)) % 6 / most;
      for (long number = first; number < first + most; ++number) {
        if (!worker.TryRecovery(end, endNumber, faultCase, number)) break;
      }
    }
  });
}

INSTANTIATE_TEST_SUITE_P(Faces, FaultSweep, testing::Values(Face::Older, Face::Safe), FaceName);
INSTANTIATE_TEST_SUITE_P(Faces, MergeFaultSweep, testing::Values(Face::Safe), FaceName);

}  // namespace
}  // namespace Kestrun::Testing
