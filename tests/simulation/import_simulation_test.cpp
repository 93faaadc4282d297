#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tests/simulation/world/guard.h"
#include "tests/simulation/world/import_run.h"

namespace Simulation {
namespace {

constexpr std::uint64_t shards = 4;
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool instrumented = true;
#elif defined(__has_feature)
constexpr bool instrumented = __has_feature(thread_sanitizer) || __has_feature(address_sanitizer);
#else
constexpr bool instrumented = false;
#endif
constexpr std::uint64_t seedsPerShard = instrumented ? 60 : 300;
constexpr std::uint64_t seedsForABug = 400;
constexpr std::size_t shownNotes = 60;

ImportOutcome run(const Options& options) {
  static const bool guarded = guardSystemCalls();
  EXPECT_TRUE(guarded) << "this kernel does not watch system calls";
  static unsigned int runs = 0;
  if (runs++ % 25 == 0) {
    reportCrashes();
    stayOnOneProcessor();
  }
  return simulateImport(options);
}

/// How to see a failure again, and what happened last.
std::string report(const Options& options, const std::string& failure) {
  Options again = options;
  again.tracing = true;
  const ImportOutcome outcome = run(again);
  std::string text = fmt::format("seed {}: {}\n", options.seed, failure);
  const std::size_t count = outcome.notes.size();
  for (std::size_t index = count - std::min(count, shownNotes); index < count; ++index) {
    text += outcome.notes[index] + "\n";
  }
  return text + fmt::format("All of it: simulation --import --seed {} --trace\n", options.seed);
}

class ImportSimulationTest : public ::testing::TestWithParam<std::uint64_t> {};

TEST_P(ImportSimulationTest, ProgramsGetWhatTheyAreOwedWhateverTheServerDoes) {
  ImportTally tally;
  const std::uint64_t first = GetParam() * seedsPerShard + 1;
  for (std::uint64_t seed = first; seed < first + seedsPerShard; ++seed) {
    const Options options{.seed = seed};
    const ImportOutcome outcome = run(options);
    ASSERT_FALSE(outcome.failure) << report(options, *outcome.failure);
    tally += outcome.tally;
  }
  // A world in which nothing goes wrong would be content with any client.
  EXPECT_GT(tally.goodAnswers, seedsPerShard * 20);
  EXPECT_GT(tally.landedTwice, 0U);
  EXPECT_GT(tally.kills, 0U);
  EXPECT_GT(tally.freezes, 0U);
}

INSTANTIATE_TEST_SUITE_P(Shards, ImportSimulationTest, ::testing::Range(std::uint64_t{0}, shards));

class ImportBugTest : public ::testing::TestWithParam<std::string> {};

TEST_P(ImportBugTest, IsFound) {
  const Bug bug = importBugNames().at(GetParam());
  for (std::uint64_t seed = 1; seed <= seedsForABug; ++seed) {
    const ImportOutcome outcome = run({.seed = seed, .bug = bug});
    if (outcome.failure) {
      const ImportOutcome without = run({.seed = seed});
      EXPECT_FALSE(without.failure) << *without.failure;
      RecordProperty("seed", std::to_string(seed));
      return;
    }
  }
  FAIL() << seedsForABug << " seeds have not found it";
}

std::vector<std::string> allBugs() {
  std::vector<std::string> names;
  for (const auto& [name, bug] : importBugNames()) {
    names.push_back(name);
  }
  return names;
}

std::string testName(const ::testing::TestParamInfo<std::string>& info) {
  std::string name = info.param;
  std::erase(name, '-');
  return name;
}

INSTANTIATE_TEST_SUITE_P(All, ImportBugTest, ::testing::ValuesIn(allBugs()), testName);

TEST(ImportSimulationDeterminism, ASeedIsOneRun) {
  for (std::uint64_t seed = 1; seed <= 40; ++seed) {
    const ImportOutcome first = run({.seed = seed, .tracing = true});
    const ImportOutcome second = run({.seed = seed, .tracing = true});
    ASSERT_EQ(first.fingerprint, second.fingerprint) << seed;
    ASSERT_EQ(first.notes, second.notes) << seed;
  }
}

}  // namespace
}  // namespace Simulation
