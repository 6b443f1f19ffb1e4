// The time of day as blocks count it, with a clock of the tests' own in front of the system's.

#include "runtime/wall_clock.h"

#include <gtest/gtest.h>

#include "tests/support/clock.h"

namespace vesk_test {
namespace {

TEST(WallClockTest, IsTheTimeThatTheCacheReadsToo) {
  const int before = clock_reads;
  clock_now = 1000000;
  EXPECT_EQ(vesk::WallSeconds(), 1000000u);
  ++clock_now;
  EXPECT_EQ(vesk::WallSeconds(), 1000001u);
  EXPECT_EQ(clock_reads - before, 2);
}

TEST(WallClockTest, IsTheLow32BitsOfTheTime) {
  clock_now = (5l << 32) + 123;
  EXPECT_EQ(vesk::WallSeconds(), 123u);
  clock_now = -1;
  EXPECT_EQ(vesk::WallSeconds(), 0xffffffffu);
}

}  // namespace
}  // namespace vesk_test
