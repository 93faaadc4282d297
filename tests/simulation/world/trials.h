#pragma once

#include <fmt/core.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tests/simulation/world/guard.h"
#include "tests/simulation/world/run.h"

// What the tests of servers and those of imports do with seeds. Every run of the tests is the same: a failure
// that comes and goes helps nobody. New seeds are for `simulation --seed`, with --count.

namespace Simulation {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr bool instrumented = true;
#elif defined(__has_feature)
inline constexpr bool instrumented = __has_feature(thread_sanitizer) || __has_feature(address_sanitizer);
#else
inline constexpr bool instrumented = false;
#endif

/// What no world may do is noticed from here on.
inline void prepare() {
  static const bool guarded = guardSystemCalls();
  reportCrashes();
  ASSERT_TRUE(guarded) << "this kernel does not watch system calls";
}

/// Runs of `simulate`, which the tool makes when it is told `way`.
template <class Outcome>
class Trials {
 public:
  Trials(Outcome (*simulate)(const Options&), std::string_view way) : simulate_(simulate), way_(way) {
    prepare();
  }

  /// One run, on a processor that is free.
  Outcome run(const Options& options) const {
    static unsigned int runs = 0;
    if (runs++ % 25 == 0) stayOnOneProcessor();
    return simulate_(options);
  }

  /// Runs so many seeds, up to one that fails. Returns what they have met together.
  auto expectNoFailure(std::uint64_t first, std::uint64_t count) const {
    decltype(Outcome::tally) tally;
    for (std::uint64_t seed = first; seed < first + count && !::testing::Test::HasFailure(); ++seed) {
      const Options options{.seed = seed};
      const Outcome outcome = run(options);
      EXPECT_FALSE(outcome.failure) << report(options, *outcome.failure);
      tally += outcome.tally;
    }
    return tally;
  }

  /// A simulation that finds nothing may be blind. So each kind of mistake is made once, on purpose.
  void expectFound(Bug bug) const {
    for (std::uint64_t seed = 1; seed <= seedsForABug; ++seed) {
      if (!run({.seed = seed, .bug = bug}).failure) continue;
      // The same seed finds nothing where the mistake is not made: it was this mistake that was found.
      const Outcome without = run({.seed = seed});
      EXPECT_FALSE(without.failure) << *without.failure;
      ::testing::Test::RecordProperty("seed", std::to_string(seed));
      return;
    }
    ADD_FAILURE() << seedsForABug << " seeds have not found it";
  }

  /// The same seed is the same run.
  void expectRepeatable() const {
    for (std::uint64_t seed = 1; seed <= 40; ++seed) {
      const Outcome first = run({.seed = seed, .tracing = true});
      const Outcome second = run({.seed = seed, .tracing = true});
      ASSERT_EQ(first.fingerprint, second.fingerprint) << seed;
      ASSERT_EQ(first.notes, second.notes) << seed;
    }
  }

 private:
  // A mistake has to show within so many seeds. Most do within ten; the one that only two connections and a
  // third at the right moment bring about takes some sixty.
  static constexpr std::uint64_t seedsForABug = 400;
  static constexpr std::size_t shownNotes = 60;

  /// How to see a failure again, and what happened last.
  std::string report(Options options, const std::string& failure) const {
    options.tracing = true;
    const Outcome outcome = run(options);
    std::string text = fmt::format("seed {}: {}\n", options.seed, failure);
    const std::size_t count = outcome.notes.size();
    for (std::size_t index = count - std::min(count, shownNotes); index < count; ++index) {
      text += outcome.notes[index] + "\n";
    }
    return text + fmt::format("All of it: simulation{} --seed {} --trace\n", way_, options.seed);
  }

  Outcome (*simulate_)(const Options&);
  std::string_view way_;
};

inline std::vector<std::string> namesOf(const std::map<std::string, Bug>& bugs) {
  std::vector<std::string> names;
  for (const auto& [name, bug] : bugs) names.push_back(name);
  return names;
}

inline std::string testName(const ::testing::TestParamInfo<std::string>& info) {
  std::string name = info.param;
  std::erase(name, '-');
  return name;
}

}  // namespace Simulation
