#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tests/simulation/world/import_run.h"
#include "tests/simulation/world/trials.h"

namespace Simulation {
namespace {

constexpr std::uint64_t shards = 4;
constexpr std::uint64_t seedsPerShard = instrumented ? 60 : 300;

Trials<ImportOutcome> trials() { return {simulateImport, " --import"}; }

class ImportSimulationTest : public ::testing::TestWithParam<std::uint64_t> {};

TEST_P(ImportSimulationTest, ProgramsGetWhatTheyAreOwedWhateverTheServerDoes) {
  const ImportTally tally = trials().expectNoFailure(GetParam() * seedsPerShard + 1, seedsPerShard);
  // A world in which nothing goes wrong would be content with any client.
  EXPECT_GT(tally.goodAnswers, seedsPerShard * 20);
  EXPECT_GT(tally.landedTwice, 0U);
  EXPECT_GT(tally.kills, 0U);
  EXPECT_GT(tally.freezes, 0U);
}

INSTANTIATE_TEST_SUITE_P(Shards, ImportSimulationTest, ::testing::Range(std::uint64_t{0}, shards));

class ImportBugTest : public ::testing::TestWithParam<std::string> {};

TEST_P(ImportBugTest, IsFound) { trials().expectFound(importBugNames().at(GetParam())); }

INSTANTIATE_TEST_SUITE_P(All, ImportBugTest, ::testing::ValuesIn(namesOf(importBugNames())), testName);

TEST(ImportSimulationDeterminism, ASeedIsOneRun) { trials().expectRepeatable(); }

}  // namespace
}  // namespace Simulation
