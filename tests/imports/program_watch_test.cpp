#include "nbdd/imports/program_watch.h"

#include <gtest/gtest.h>

namespace Nbdd {
namespace {

constexpr std::size_t page = 4096;

void turn(ProgramWatch& watch, std::size_t atServer) { watch.turned(atServer, atServer * page); }

void turns(ProgramWatch& watch, std::size_t count, std::size_t atServer) {
  for (std::size_t done = 0; done < count; ++done) turn(watch, atServer);
}

/// Has requests wait for a slow server until the program is watched; returns how often that was.
std::size_t waitsOf(ProgramWatch& watch) {
  std::size_t waits = 0;
  while (!watch.isNeeded(32)) {
    watch.keptWaiting();
    ++waits;
  }
  return waits;
}

/// Turns of a deep program until it need not be watched any more.
std::size_t pauseOf(ProgramWatch& watch) {
  std::size_t taken = 0;
  while (watch.isNeeded(32)) {
    turn(watch, 32);
    ++taken;
  }
  return taken;
}

TEST(ProgramWatch, AProgramWithFewRequestsIsAlwaysWatched) {
  ProgramWatch watch;
  for (std::size_t count = 0; count < 10'000; ++count) {
    turn(watch, count % 15 + 1);
    ASSERT_TRUE(watch.isNeeded(count % 15 + 1));
  }
}

TEST(ProgramWatch, ADeepProgramIsWatchedOnlyWhenTheServerHasNothingOfIt) {
  ProgramWatch watch;
  turn(watch, 16);
  EXPECT_FALSE(watch.isNeeded(16));
  EXPECT_FALSE(watch.isNeeded(1));
  EXPECT_TRUE(watch.isNeeded(0));
}

TEST(ProgramWatch, AProgramThatIsDeepNoLongerIsWatchedAgain) {
  ProgramWatch watch;
  turn(watch, 32);
  turns(watch, 300, 4);
  EXPECT_TRUE(watch.isNeeded(4));
  turn(watch, 32);
  EXPECT_FALSE(watch.isNeeded(4));
}

TEST(ProgramWatch, LargeRequestsAreNotCollected) {
  ProgramWatch watch;
  watch.turned(32, 32 * 16 * page);
  EXPECT_TRUE(watch.isNeeded(32));
}

TEST(ProgramWatch, AWaitNowAndThenIsForgiven) {
  ProgramWatch watch;
  for (std::size_t count = 0; count < 1'000; ++count) {
    turns(watch, 20, 32);
    watch.keptWaiting();
    ASSERT_FALSE(watch.isNeeded(32));
  }
}

TEST(ProgramWatch, TheProgramOfASlowServerIsWatched) {
  ProgramWatch watch;
  turn(watch, 32);
  EXPECT_LT(waitsOf(watch), 10U);
  EXPECT_TRUE(watch.isNeeded(32));
}

TEST(ProgramWatch, ASlowServerIsTriedLessAndLessOften) {
  ProgramWatch watch;
  std::size_t before = 0;
  for (std::size_t count = 0; count < 6; ++count) {
    turn(watch, 32);
    waitsOf(watch);
    const std::size_t pause = pauseOf(watch);
    EXPECT_GT(pause, before);
    before = pause;
  }
}

TEST(ProgramWatch, AServerThatWasQuickForLongIsTriedSoonAgain) {
  ProgramWatch watch;
  turn(watch, 32);
  waitsOf(watch);
  const std::size_t first = pauseOf(watch);
  for (std::size_t count = 0; count < 20; ++count) {
    waitsOf(watch);
    EXPECT_GT(pauseOf(watch), first);
  }
  turns(watch, 1'000'000, 32);
  waitsOf(watch);
  EXPECT_EQ(pauseOf(watch), first);
}

}  // namespace
}  // namespace Nbdd
