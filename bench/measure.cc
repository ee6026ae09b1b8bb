#include "measure.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace Bench {

namespace fs = std::filesystem;

void Fail(const std::string& what) {
  std::fprintf(stderr, "kestrun_bench: %s\n", what.c_str());
  std::exit(1);
}

void Require(bool done, const char* what) {
  if (!done) Fail(std::string(what) + " failed");
}

uint64_t NowNanos() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

namespace {

uint64_t WaitedNanos() {
  // The file shows the thread that opened it, so a forked child opens its own.
  static thread_local pid_t owner = 0;
  static thread_local int file = -1;
  if (owner != getpid()) {
    owner = getpid();
    file = open("/proc/thread-self/schedstat", O_RDONLY | O_CLOEXEC);
  }
  char text[96] = {};
  unsigned long long waiting = 0;
  if (pread(file, text, sizeof(text) - 1, 0) > 0) std::sscanf(text, "%*u %llu", &waiting);
  return waiting;
}

}  // namespace

// What was waited is read within the time that is measured, so that it is never the larger one.
Stopwatch::Stopwatch() : start_(NowNanos()), waited_(WaitedNanos()) {}

uint64_t Stopwatch::Nanos() const {
  const uint64_t waited = WaitedNanos() - waited_;
  return NowNanos() - start_ - waited;
}

// Below 2^kSubBits each number has its own bucket; above, the leading kSubBits + 1 bits decide.
size_t Histogram::BucketOf(uint64_t nanos) {
  if (nanos < uint64_t{1} << kSubBits) return nanos;
  const unsigned shift = static_cast<unsigned>(std::bit_width(nanos)) - 1 - kSubBits;
  return (static_cast<size_t>(shift) << kSubBits) + (nanos >> shift);
}

uint64_t Histogram::UpperBound(size_t bucket) {
  if (bucket < size_t{2} << kSubBits) return bucket;
  const size_t shift = (bucket >> kSubBits) - 1;
  return (((bucket & ((size_t{1} << kSubBits) - 1)) + (size_t{1} << kSubBits) + 1) << shift) - 1;
}

void Histogram::Add(uint64_t nanos) {
  ++counts_[BucketOf(nanos)];
  ++count_;
  max_ = std::max(max_, nanos);
}

uint64_t Histogram::Quantile(double share) const {
  const auto wanted = static_cast<uint64_t>(share * static_cast<double>(count_));
  uint64_t seen = 0;
  for (size_t bucket = 0; bucket < counts_.size(); ++bucket) {
    seen += counts_[bucket];
    if (seen > wanted) return std::min(UpperBound(bucket), max_);
  }
  return max_;
}

namespace {

void SetLock(int descriptor, short type, off_t start, off_t length) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = start;
  lock.l_len = length;
  Require(fcntl(descriptor, F_SETLK, &lock) == 0, "a lock of the lock unit");
}

}  // namespace

LockUnit::LockUnit(const std::string& path)
    : descriptor_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
  Require(descriptor_ >= 0, "opening the file of the lock unit");
}

LockUnit::~LockUnit() {
  close(descriptor_);
}

void LockUnit::Sample(uint64_t nanos) {
  constexpr off_t kGate = 0x40000000;
  const Stopwatch stopwatch;
  do {
    for (int i = 0; i < 200; ++i) {
      SetLock(descriptor_, F_WRLCK, kGate, 1);
      SetLock(descriptor_, F_WRLCK, kGate + 1, 511);
      SetLock(descriptor_, F_UNLCK, kGate + 1, 511);
      SetLock(descriptor_, F_UNLCK, kGate, 1);
    }
    units_ += 200;
  } while (stopwatch.Nanos() < nanos);
  nanos_ += stopwatch.Nanos();
}

namespace {

uint64_t FieldOf(const char* file, const std::string& name) {
  std::ifstream input(file);
  std::string word;
  uint64_t number = 0;
  while (input >> word) {
    if (word == name && input >> number) return number;
  }
  return 0;
}

}  // namespace

uint64_t WrittenBytes() {
  return FieldOf("/proc/self/io", "write_bytes:");
}

uint64_t PeakMemory() {
  return FieldOf("/proc/self/status", "VmHWM:") * 1024;
}

uint64_t DiskBytes(const std::string& directory) {
  uint64_t bytes = 0;
  for (const auto& file : fs::recursive_directory_iterator(directory)) {
    struct stat status = {};
    if (stat(file.path().c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
      bytes += static_cast<uint64_t>(status.st_blocks) * 512;
    }
  }
  return bytes;
}

void AwaitIdle() {
  const auto usedMicros = [] {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1'000'000 + usage.ru_utime.tv_usec +
           usage.ru_stime.tv_usec;
  };
  const uint64_t end = NowNanos() + 60'000'000'000;
  for (int idle = 0; idle < 3 && NowNanos() < end;) {
    const auto before = usedMicros();
    usleep(20'000);
    idle = usedMicros() - before < 400 ? idle + 1 : 0;
  }
}

uint64_t BareFlush(const std::string& directory, uint64_t bytes) {
  static const std::string piece(256 * 1024, 'x');
  const std::string path = directory + "/bare-block";
  const Stopwatch stopwatch;
  const int block = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  for (uint64_t left = bytes; left != 0;) {
    const uint64_t size = std::min<uint64_t>(left, piece.size());
    Require(write(block, piece.data(), size) == static_cast<ssize_t>(size), "a bare write");
    left -= size;
  }
  Require(fsync(block) == 0, "a bare sync");
  const int folder = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  Require(fsync(folder) == 0, "a bare sync");
  const int list = open((directory + "/bare-list").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  Require(write(list, piece.data(), 64) == 64 && fsync(list) == 0, "a bare append");
  const uint64_t nanos = stopwatch.Nanos();
  for (const int descriptor : {block, folder, list}) close(descriptor);
  unlink(path.c_str());
  return nanos;
}

}  // namespace Bench
