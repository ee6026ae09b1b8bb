#include "tests/support/fake_clock.h"

#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <utility>

namespace {

std::atomic<uint64_t> forgedSeconds{0};  // 0: the clock runs
std::function<void(int)> readingHook;
int readings = 0;
bool insideHook = false;

time_t RealSeconds() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec;
}

}  // namespace

// Takes the place of the C library's function in the whole program. Named otherwise here, because C libraries
// declare that one in different ways.
extern "C" int ReadForgedClock(struct timeval* now, void* zone) __asm__("gettimeofday");

int ReadForgedClock(struct timeval* now, void* /*zone*/) {
  if (readingHook && !insideHook) {
    insideHook = true;
    const auto hook = readingHook;  // it may set another one
    hook(++readings);
    insideHook = false;
  }
  const uint64_t forged = forgedSeconds;
  now->tv_sec = forged != 0 ? static_cast<time_t>(forged) : RealSeconds();
  now->tv_usec = 0;
  return 0;
}

namespace Kestrun::Testing {

FakeClock::FakeClock() {
  Set(static_cast<uint64_t>(RealSeconds()));
}

FakeClock::~FakeClock() {
  readingHook = nullptr;
  forgedSeconds = 0;
}

uint64_t FakeClock::Now() const {
  return forgedSeconds;
}

void FakeClock::Set(uint64_t seconds) {
  forgedSeconds = seconds;
}

void FakeClock::OnReading(std::function<void(int number)> hook) {
  readings = 0;
  readingHook = std::move(hook);
}

}  // namespace Kestrun::Testing
