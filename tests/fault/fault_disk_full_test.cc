// Fills small disks with a store on them, at every size from too small for its first file on: operations give
// statuses and never a signal, and when there is room again everything acknowledged is there.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "kestrun/status.h"
#include "tests/support/child_process.h"
#include "tests/support/random_run.h"
#include "tests/support/scratch_directory.h"
#include "tests/support/scripted_store.h"
#include "tests/support/shared_memory.h"

namespace Kestrun::Testing {
namespace {

using Kind = Step::Kind;

constexpr uint32_t kDiskWalSize = 4096;
constexpr size_t kPage = 4096;
constexpr size_t kBallast = 32 * kPage;  // more than all values of the store take twice
constexpr int kMaxSteps = 1500;
constexpr int kRefusalsWanted = 30;
constexpr unsigned int kMaxLife = 60;  // seconds

struct DiskReport {
  int settled[kScriptKeys];
  bool isMounted;
  int openRefused;
  int refused;
  int steps;
  char message[1000];
};

class DiskFullProcess {
 public:
  DiskFullProcess(const std::string& disk, uint64_t stream, DiskReport* report)
      : ballast_(disk + "/ballast"), store_(disk + "/store"), random_(TestRandom(stream)), report_(report) {}

  // With no room for long; what holds the room at first is given back at the end.
  int Fill() {
    Quiet();
    for (int number = 0; number < kMaxSteps && refused_ < kRefusalsWanted; ++number) {
      const Step step = store_.IsOpen() ? DrawStep() : Step{Kind::Open, 0, 0, kDiskWalSize};
      if (!Take(number, step, true)) return 1;
    }
    if (store_.IsOpen() && !Verify("on the full disk")) return 1;
    GiveRoom();
    return GoOn(kMaxSteps);
  }

  // Another process, with room.
  int Continue() {
    Quiet();
    for (int key = 0; key < kScriptKeys; ++key) model_.Settle(key, report_->settled[key]);
    return GoOn(2 * kMaxSteps);
  }

 private:
  // Without a disk of one's own: files may not grow beyond the log's size.
  void LimitFiles(rlim_t size) {
    const rlimit limit = {size, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
  }

  void Quiet() {
    if (!DropStandardOutput()) std::abort();
    alarm(kMaxLife);
    std::signal(SIGXFSZ, SIG_IGN);
    if (!report_->isMounted) LimitFiles(kDiskWalSize);
  }

  void GiveRoom() {
    std::filesystem::remove(ballast_);
    LimitFiles(RLIM_INFINITY);
  }

  Step DrawStep() {
    const int what = static_cast<int>(random_() % 100);
    const int key = static_cast<int>(random_() % kScriptKeys);
    const auto size = static_cast<uint32_t>(20 + random_() % 900);
    if (what < 3) return {Kind::Compact};
    if (what < 6) return {Kind::Flush};
    if (what < 14) return {Kind::Delete, key};
    if (what < 16) return {Kind::Close};
    if (what < 40) return {Kind::Get, key};
    return {key < kFirstRecordKey ? Kind::Insert : Kind::Append, key, key % 4, size};
  }

  bool Fail(const std::string& message) {
    std::snprintf(report_->message, sizeof(report_->message), "%s", message.c_str());
    return false;
  }

  bool Verify(const std::string& when) {
    const std::string wrong = store_.Verify(&model_);
    return wrong.empty() || Fail(when + ": " + wrong);
  }

  bool Take(int number, const Step& step, bool mayRefuse) {
    const ScriptedStore::Result result = store_.Run(number, step);
    ++report_->steps;
    const bool done = result.status == 0;
    if (!done) {
      ++refused_;
      ++report_->refused;
      if (step.kind == Kind::Open) ++report_->openRefused;
      // Reading takes no room.
      const bool isRead = step.kind == Kind::Get;
      if (!mayRefuse || isRead || !IsExpectedFailure(step.kind, result.status)) {
        return Fail(Describe(number, step) + " gives " + std::to_string(result.status));
      }
    }
    model_.Apply(number, step, done ? StoreModel::Outcome::Done : StoreModel::Outcome::Unknown);
    if (step.kind == Kind::Get && !model_.Allows(step.key, result.found)) {
      return Fail(Describe(number, step) + " finds " + std::to_string(result.found) + " where " +
                  model_.Expected(step.key) + " was expected");
    }
    return true;
  }

  int GoOn(int number) {
    LimitFiles(RLIM_INFINITY);
    if (!store_.IsOpen() && !Take(number++, {Kind::Open, 0, 0, kDiskWalSize}, false)) return 1;
    if (!Verify("with room again")) return 1;
    for (int round = 0; round < 4; ++round) {
      if (!Take(number++, {Kind::Insert, round, 0, 100}, false)) return 1;
      if (!Take(number++, {Kind::Flush}, false)) return 1;
    }
    if (!Take(number++, {Kind::Compact}, false)) return 1;
    if (!Take(number++, {Kind::Append, kFirstRecordKey, 5, 100}, false)) return 1;
    if (!Verify("at the end")) return 1;
    for (int key = 0; key < kScriptKeys; ++key) {
      for (int value = kAbsent; value < number; ++value) {
        if (model_.Allows(key, value)) report_->settled[key] = value;
      }
    }
    return 0;
  }

  const std::string ballast_;
  ScriptedStore store_;
  StoreModel model_;
  std::mt19937_64 random_;
  DiskReport* const report_;
  int refused_ = 0;
};

// Mounts a file system in memory that only this process and its children see.
bool MountSmallDisk(const std::string& directory, size_t size) {
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return false;
  const std::string options = "size=" + std::to_string(size);
  return mount("kestrun-test", directory.c_str(), "tmpfs", 0, options.c_str()) == 0;
}

// The life of one disk: a process fills it, another one goes on.
int UseDisk(const std::string& directory, size_t size, DiskReport* report) {
  report->isMounted = MountSmallDisk(directory, size);
  std::ofstream(directory + "/ballast") << std::string(kBallast, 'b');
  ChildProcess filler([&](ChildLink&) { return DiskFullProcess(directory, size, report).Fill(); });
  if (const int status = filler.Wait(); status != 0) return status;
  ChildProcess next([&](ChildLink&) { return DiskFullProcess(directory, size + 1, report).Continue(); });
  return next.Wait();
}

TEST(DiskFull, GivesStatusesAndLosesNothingAcknowledged) {
  const auto begun = std::chrono::steady_clock::now();
  TestSeed();  // known before the first process is forked
  const size_t sizes = std::max<size_t>(1, TestSize(40, 100));
  int disks = 0;
  int lost = 0;
  bool mounted = true;
  DiskReport sum = {};
  for (size_t pages = 0; pages < sizes; ++pages) {
    const ScratchDirectory directory;
    const SharedMemory<DiskReport> report;
    ChildProcess process(
        [&](ChildLink&) { return UseDisk(directory.Path(), kBallast + pages * kPage, report.get()); });
    const int status = process.Wait();
    EXPECT_EQ(status, 0) << "a disk with " << pages << " pages of room: " << report->message;
    ++disks;
    if (status != 0) ++lost;
    mounted = mounted && report->isMounted;
    sum.openRefused += report->openRefused;
    sum.refused += report->refused;
    sum.steps += report->steps;
  }
  std::printf(
      "disk full: %d %s, %d operations, %d of them refused with a status (%d openings), %d losses, %.1f s\n",
      disks, mounted ? "small disks" : "runs with a limit on file sizes, as nothing may be mounted here",
      sum.steps, sum.refused, sum.openRefused, lost,
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count());
  EXPECT_GT(sum.refused, disks);
}

// As a log is after it was copied from elsewhere, or when its maker did not ask for the room.
int OpenLogWithHoles(const std::string& directory) {
  constexpr uint32_t kLogSize = 16 * kPage;
  const bool mounted = MountSmallDisk(directory, 2 * kLogSize);
  if (!DropStandardOutput()) return 1;
  ScriptedStore store(directory + "/store");
  if (store.Run(0, {Kind::Open, 0, 0, kLogSize}).status != 0) return 2;
  store.Run(1, {Kind::Insert, 0, 0, 100});
  store.Run(2, {Kind::Close});

  const int log = open((directory + "/store/wal_v5").c_str(), O_RDWR);
  if (fallocate(log, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, kPage, kLogSize - kPage) != 0) return 3;
  close(log);
  std::ofstream(directory + "/ballast") << std::string(2 * kLogSize, 'b');
  const uint32_t status = store.Run(3, {Kind::Open, 0, 0, kLogSize}).status;
  if (status != (mounted ? kStatusWalOpenFailed : kStatusOk)) return 4;

  std::filesystem::remove(directory + "/ballast");
  if (!store.IsOpen() && store.Run(4, {Kind::Open, 0, 0, kLogSize}).status != 0) return 5;
  if (store.Run(5, {Kind::Get, 0}).found != 1) return 6;
  for (int number = 10; number < 60; ++number) {
    if (store.Run(number, {Kind::Insert, number % kPlainKeys, 0, 1000}).status != 0) return 7;
  }
  return 0;
}

TEST(DiskFull, ALogWithHolesThatCanNotBeFilledIsNotOpened) {
  const ScratchDirectory directory;
  ChildProcess process([&](ChildLink&) { return OpenLogWithHoles(directory.Path()); });
  EXPECT_EQ(process.Wait(), 0);
}

// A log for which there was no room must not be in the way of a smaller one.
int MakeSmallerLog(const std::string& directory, Face face) {
  constexpr uint32_t kRoom = 64 * kPage;
  constexpr uint32_t kSmallLog = 4 * kPage;
  if (!MountSmallDisk(directory, kRoom)) return 0;
  if (!DropStandardOutput()) return 1;
  ScriptedStore store(directory + "/store", face);
  if (store.Run(0, {Kind::Open, 0, 0, 4 * kRoom}).status != kStatusCreateFailed) return 2;
  if (store.Run(1, {Kind::Open, 0, 0, kSmallLog}).status != kStatusOk) return 3;
  if (store.Run(2, {Kind::Insert, 0, 0, 100}).status != kStatusOk) return 4;
  store.Run(3, {Kind::Close});
  // Neither when an existing one was to become larger. The older face begins a new log then.
  if (store.Run(4, {Kind::Open, 0, 0, 4 * kRoom}).status != kStatusCreateFailed) return 5;
  if (store.Run(5, {Kind::Open, 0, 0, kSmallLog}).status != kStatusOk) return 6;
  if (face == Face::Safe && store.Run(6, {Kind::Get, 0}).found != 2) return 7;
  return store.Run(7, {Kind::Insert, 1, 0, 100}).status == kStatusOk ? 0 : 8;
}

TEST(DiskFull, ALogThatDidNotFitIsMadeSmaller) {
  for (const Face face : {Face::Older, Face::Safe}) {
    const ScratchDirectory directory;
    ChildProcess process([&](ChildLink&) { return MakeSmallerLog(directory.Path(), face); });
    EXPECT_EQ(process.Wait(), 0) << (face == Face::Older ? "LSDBImpl" : "Store");
  }
}

}  // namespace
}  // namespace Kestrun::Testing
