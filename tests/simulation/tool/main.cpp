// simulation --seed N [--count N] [--bug NAME] [--trace]: runs seeds of the simulation outside of the tests,
// and tells what happened in one.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <map>
#include <string>

#include "tests/simulation/world/guard.h"
#include "tests/simulation/world/run.h"

int main(int argc, char** argv) {
  Simulation::Options options;
  std::uint64_t count = 1;
  CLI::App app("Runs the connection logic of nbdd in a simulated world.", "simulation");
  app.add_option("--seed", options.seed, "The seed, or the first of them")->required();
  app.add_option("--count", count, "How many seeds, one after the other");
  app.add_option("--bug", options.bug, "A mistake to put in")
      ->transform(CLI::CheckedTransformer(Simulation::bugNames()));
  app.add_flag("--trace", options.tracing, "Print everything that happens");
  CLI11_PARSE(app, argc, argv);

  Simulation::reportCrashes();
  Simulation::guardSystemCalls();
  std::uint64_t failures = 0;
  std::uint64_t steps = 0;
  for (const std::uint64_t end = options.seed + count; options.seed < end; ++options.seed) {
    if ((end - options.seed) % 25 == 0 || steps == 0) {
      Simulation::stayOnOneProcessor();
    }
    const Simulation::Outcome outcome = Simulation::simulate(options);
    for (const std::string& note : outcome.notes) {
      std::puts(note.c_str());
    }
    if (outcome.failure) {
      ++failures;
      std::printf("seed %llu: %s\n", static_cast<unsigned long long>(options.seed), outcome.failure->c_str());
    }
    steps += outcome.steps;
  }
  std::printf("%llu seeds, %llu failed, %llu steps\n", static_cast<unsigned long long>(count),
              static_cast<unsigned long long>(failures), static_cast<unsigned long long>(steps));
  return failures == 0 ? 0 : 1;
}
