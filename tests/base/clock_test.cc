#include "base/clock.h"

#include <gtest/gtest.h>

#include <chrono>

namespace Kestrun {
namespace {

uint64_t MicrosecondsNow() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

TEST(ClockTest, TellsTheTimeSinceTheEpoch) {
  const uint64_t before = MicrosecondsNow();
  const uint64_t microseconds = NowMicroseconds();
  const uint64_t seconds = NowSeconds();
  const uint64_t after = MicrosecondsNow();
  EXPECT_GE(microseconds, before);
  EXPECT_LE(microseconds, after);
  EXPECT_GE(seconds, before / 1000000);
  EXPECT_LE(seconds, after / 1000000);
}

TEST(ClockTest, MillisecondsAreWholeSeconds) {
  const uint64_t before = NowSeconds();
  const uint64_t milliseconds = NowMilliseconds();
  const uint64_t after = NowSeconds();
  EXPECT_EQ(milliseconds % 1000, 0u);
  EXPECT_GE(milliseconds / 1000, before);
  EXPECT_LE(milliseconds / 1000, after);
}

TEST(ClockTest, AnEntryIsAliveUpToAndIncludingTheSecondOfItsEnd) {
  EXPECT_TRUE(IsAlive(1000, 60, 1060));
  EXPECT_FALSE(IsAlive(1000, 60, 1061));
  EXPECT_TRUE(IsAlive(1000, 60, 0)) << "written in the future";
}

TEST(ClockTest, NoTimeToLiveLastsForTheSecondOfWriting) {
  EXPECT_TRUE(IsAlive(1000, 0, 1000));
  EXPECT_FALSE(IsAlive(1000, 0, 1001));
}

TEST(ClockTest, TheLongestTimeToLiveDoesNotWrapIn32Bits) {
  EXPECT_TRUE(IsAlive(1700000000, 0xFFFFFFFF, 1700000000));
  EXPECT_TRUE(IsAlive(1700000000, 0xFFFFFFFF, 1700000000 + uint64_t{0xFFFFFFFF}));
  EXPECT_FALSE(IsAlive(1700000000, 0xFFFFFFFF, 1700000001 + uint64_t{0xFFFFFFFF}));
}

TEST(ClockTest, ATimeNearTheEndOf64BitsWrapsAround) {
  EXPECT_FALSE(IsAlive(0xFFFFFFFFFFFFFFFF, 2, 1000));
  EXPECT_TRUE(IsAlive(0xFFFFFFFFFFFFFFFF, 0, 1000));
}

}  // namespace
}  // namespace Kestrun
