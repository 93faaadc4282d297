#include "nbdd/exports/write_pace.h"

#include <gtest/gtest.h>

namespace Nbdd {
namespace {

using namespace std::chrono_literals;
using Clock = WritePace::Clock;

constexpr Clock::time_point start{std::chrono::hours(1)};

TEST(WritePace, QuickWritesStayInTheTurn) {
  WritePace pace;
  EXPECT_TRUE(pace.quick(start));
  pace.wrote(20us, start);
  pace.wrote(WritePace::slowWrite, start);
  EXPECT_TRUE(pace.quick(start));
}

TEST(WritePace, ASlowOneKeepsTheNextOnesOut) {
  WritePace pace;
  pace.wrote(3ms, start);
  EXPECT_FALSE(pace.quick(start));
  EXPECT_FALSE(pace.quick(start + 49ms));
  EXPECT_TRUE(pace.quick(start + 51ms));
}

TEST(WritePace, StorageThatStaysSlowIsTriedLessAndLessOften) {
  WritePace pace;
  Clock::time_point now = start;
  int tried = 0;
  while (now < start + 10min) {
    if (pace.quick(now)) {
      ++tried;
      pace.wrote(5ms, now);
    }
    now += 1ms;
  }
  EXPECT_LE(tried, 35);
  EXPECT_GE(tried, 20) << "but never given up";
}

TEST(WritePace, WhoWasQuickForLongBeginsAnew) {
  WritePace pace;
  Clock::time_point now = start;
  for (int count = 0; count < 5; ++count) {
    pace.wrote(5ms, now);
    while (!pace.quick(now)) now += 1ms;
  }
  now += 1min;
  pace.wrote(5ms, now);
  EXPECT_TRUE(pace.quick(now + 51ms));
}

}  // namespace
}  // namespace Nbdd
