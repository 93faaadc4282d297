#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>

#include "tests/simulation/world/run.h"
#include "tests/simulation/world/trials.h"

namespace Simulation {
namespace {

constexpr std::uint64_t shards = 8;
constexpr std::uint64_t seedsPerShard = instrumented ? 60 : 600;

Trials<Outcome> trials() { return {simulate, ""}; }

class SimulationTest : public ::testing::TestWithParam<std::uint64_t> {};

TEST_P(SimulationTest, EveryClientGetsWhatItIsOwed) {
  const Tally tally = trials().expectNoFailure(GetParam() * seedsPerShard + 1, seedsPerShard);
  // A world in which nothing goes wrong would be content with any server.
  EXPECT_GT(tally.successes, seedsPerShard * 10);
  EXPECT_GT(tally.refusals, 0U);
  EXPECT_GT(tally.errors, 0U);
  EXPECT_GT(tally.durableAnswers, 0U);
  EXPECT_GT(tally.failedSyncs, 0U);
  EXPECT_GT(tally.concurrentReads, 0U);
  EXPECT_GT(tally.changesOfDead, 0U);
}

INSTANTIATE_TEST_SUITE_P(Shards, SimulationTest, ::testing::Range(std::uint64_t{0}, shards));

class BugTest : public ::testing::TestWithParam<std::string> {};

TEST_P(BugTest, IsFound) { trials().expectFound(bugNames().at(GetParam())); }

INSTANTIATE_TEST_SUITE_P(All, BugTest, ::testing::ValuesIn(namesOf(bugNames())), testName);

TEST(SimulationDeterminism, ASeedIsOneRun) { trials().expectRepeatable(); }

// What was wrong once, by the seeds that found it. They do so as long as these runs stay what they are; the
// test of the unit (ExportTableTest) does for good.
TEST(SimulationRegression, ASessionThatWaitedWhileItsClientLeftComesAfterNoYoungerOne) {
  for (const std::uint64_t seed : {3830U, 3909U, 12861U}) trials().expectNoFailure(seed, 1);
}

// A system call that the simulation does not know must not pass in silence.
TEST(SimulationGuardDeathTest, ASystemCallThatIsNotSimulatedIsNoticed) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        prepare();
        World world(1, Bug::none, false);
        const int descriptor = world.add(std::make_shared<EventCounter>());
        ::fsync(descriptor);
      },
      "reached the kernel with a simulated descriptor");
}

TEST(SimulationGuardDeathTest, AClosedDescriptorIsNoticed) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        World world(1, Bug::none, false);
        const int descriptor = world.add(std::make_shared<EventCounter>());
        ::close(descriptor);
        ::close(descriptor);
      },
      "closed twice");
}

}  // namespace
}  // namespace Simulation
