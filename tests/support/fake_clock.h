// The wall clock of the test program, in the test's hand. Link kestrun_test_clock.
#pragma once

#include <cstdint>
#include <functional>

namespace Kestrun::Testing {

// While one of these lives the clock stands still at the second in which it was made, until it is set.
class FakeClock {
 public:
  FakeClock();
  // The clock runs again.
  ~FakeClock();
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  uint64_t Now() const;
  void Set(uint64_t seconds);
  void Advance(uint64_t seconds) { Set(Now() + seconds); }

  // Calls `hook` whenever the library reads the clock, before the reading. Readings that `hook` causes do not
  // call it. The first one is number 1.
  void OnReading(std::function<void(int number)> hook);
};

}  // namespace Kestrun::Testing
