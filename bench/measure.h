// measure.h: time, its distribution, the cost of locks and the traces that a process leaves.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Bench {

// Ends the process with a message, for what leaves nothing to measure.
[[noreturn]] void Fail(const std::string& what);
void Require(bool done, const char* what);

uint64_t NowNanos();

// Measures the time since its construction, without that in which its thread was ready to run and had
// no processor, which would dominate every mean on a machine that others use as well. A call takes
// about a microsecond. One thread.
class Stopwatch {
 public:
  Stopwatch();
  uint64_t Nanos() const;

 private:
  uint64_t start_;
  uint64_t waited_;
};

// Counts times in buckets that are 1.6 % wide, in fixed memory; the largest is kept exactly.
class Histogram {
 public:
  Histogram() : counts_(kBuckets) {}

  void Add(uint64_t nanos);
  // Nanoseconds that `share` of the times do not exceed, to the width of a bucket.
  uint64_t Quantile(double share) const;
  uint64_t Max() const { return max_; }
  uint64_t Count() const { return count_; }

 private:
  static constexpr unsigned kSubBits = 6;
  static constexpr size_t kBuckets = size_t{64} << kSubBits;

  static size_t BucketOf(uint64_t nanos);
  static uint64_t UpperBound(size_t bucket);

  std::vector<uint32_t> counts_;
  uint64_t count_ = 0;
  uint64_t max_ = 0;
};

// The four bare calls that order a writer among processes: write lock and release of the gate byte
// and of the lock range, on a file of its own. What a store does is expressed in them, because
// they follow the machine's speed.
class LockUnit {
 public:
  explicit LockUnit(const std::string& path);
  ~LockUnit();
  LockUnit(const LockUnit&) = delete;
  LockUnit& operator=(const LockUnit&) = delete;

  // Measures units for `nanos` nanoseconds, but at least 200 of them.
  void Sample(uint64_t nanos);
  // Nanoseconds of one unit, the mean of all samples, without the time that a processor was waited for.
  double Nanos() const { return static_cast<double>(nanos_) / static_cast<double>(units_); }

 private:
  int descriptor_;
  uint64_t nanos_ = 0;
  uint64_t units_ = 0;
};

// Bytes that the process gave to the file system to write, by calls and by mappings, a page at a time.
uint64_t WrittenBytes();
// The most memory, in bytes, that was resident at once, mapped files included.
uint64_t PeakMemory();
// The disk space in bytes of all files in a directory, holes left out.
uint64_t DiskBytes(const std::string& directory);
// Returns when the threads of the process have been idle for a while, or after a minute: stores that compact
// by themselves do not tell when they are done.
void AwaitIdle();

// Does by hand what no flush of `bytes` can do without: write and sync a file of them, append to a list of
// files and sync it, sync the directory. Returns the nanoseconds.
uint64_t BareFlush(const std::string& directory, uint64_t bytes);

}  // namespace Bench
