#include "shell/tear_down.h"

#include <gtest/gtest.h>

#include "tests/support/scripted_platform.h"

using Support::Platform;

namespace {

void first() { Platform::current().record("first"); }
void second() { Platform::current().record("second"); }
void third() { Platform::current().record("third"); }

void registersAnother() {
  Platform::current().record("registers another");
  EXPECT_EQ(Shell::registerTearDown(first), 0);
}

}  // namespace

TEST(TearDown, RunsTheNewestFirst) {
  Platform platform;
  EXPECT_EQ(Shell::registerTearDown(first), 0);
  EXPECT_EQ(Shell::registerTearDown(second), 0);
  EXPECT_EQ(Shell::registerTearDown(third), 0);
  Shell::runTearDown();
  EXPECT_EQ(platform.journal, "{third}{second}{first}");
}

TEST(TearDown, RunsEveryFunctionOnce) {
  Platform platform;
  EXPECT_EQ(Shell::registerTearDown(first), 0);
  EXPECT_EQ(Shell::registerTearDown(first), 0);
  Shell::runTearDown();
  Shell::runTearDown();
  EXPECT_EQ(platform.journal, "{first}{first}");
}

TEST(TearDown, HoldsTheLockAroundEachStepAndFreesBeforeItCalls) {
  Platform platform;
  platform.traceTearDown();
  EXPECT_EQ(Shell::registerTearDown(first), 0);
  EXPECT_EQ(Shell::registerTearDown(second), 0);
  EXPECT_EQ(platform.journal, "{lock}{unlock}{lock}{unlock}");
  platform.journal.clear();
  Shell::runTearDown();
  EXPECT_EQ(platform.journal,
            "{lock}{free}{second}{unlock}"
            "{lock}{free}{first}{unlock}"
            "{lock}{unlock}");
}

TEST(TearDown, RunsWhatAFunctionRegisters) {
  Platform platform;
  EXPECT_EQ(Shell::registerTearDown(second), 0);
  EXPECT_EQ(Shell::registerTearDown(registersAnother), 0);
  Shell::runTearDown();
  EXPECT_EQ(platform.journal, "{registers another}{first}{second}");
}

TEST(TearDown, SaysThatThereIsNoMemory) {
  Platform platform;
  platform.limitHeap(1);
  EXPECT_EQ(Shell::registerTearDown(first), 0);
  EXPECT_EQ(Shell::registerTearDown(second), -1);
  Shell::runTearDown();
  EXPECT_EQ(platform.journal, "{first}");
}
