#include "base/clock.h"

#include <sys/time.h>

namespace Kestrun {
namespace {

timeval ReadClock() {
  timeval now = {};
  gettimeofday(&now, nullptr);
  return now;
}

}  // namespace

uint64_t NowSeconds() {
  return static_cast<uint64_t>(ReadClock().tv_sec);
}

uint64_t NowMilliseconds() {
  return NowSeconds() * 1000;
}

uint64_t NowMicroseconds() {
  const timeval now = ReadClock();
  return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_usec);
}

}  // namespace Kestrun
