// simulation --seed N [--import] [--count N] [--bug NAME] [--trace]: runs seeds of the simulation outside of
// the tests, and tells what happened in one.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <map>
#include <string>

#include "tests/simulation/world/guard.h"
#include "tests/simulation/world/import_run.h"
#include "tests/simulation/world/run.h"

namespace {

/// Tells what came of one run; returns its steps.
template <class Outcome>
std::uint64_t tell(const Outcome& outcome, std::uint64_t seed, std::uint64_t& failures) {
  for (const std::string& note : outcome.notes) std::puts(note.c_str());
  if (outcome.failure) {
    ++failures;
    std::printf("seed %llu: %s\n", static_cast<unsigned long long>(seed), outcome.failure->c_str());
  }
  return outcome.steps;
}

}  // namespace

int main(int argc, char** argv) {
  Simulation::Options options;
  std::uint64_t count = 1;
  bool import = false;
  auto bugs = Simulation::bugNames();
  bugs.merge(Simulation::importBugNames());
  CLI::App app("Runs the connection logic of nbdd in a simulated world.", "simulation");
  app.add_option("--seed", options.seed, "The seed, or the first of them")->required();
  app.add_flag("--import", import, "An import and its server, instead of a server and its clients");
  app.add_option("--count", count, "How many seeds, one after the other");
  app.add_option("--bug", options.bug, "A mistake to put in")->transform(CLI::CheckedTransformer(bugs));
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
    steps += import ? tell(Simulation::simulateImport(options), options.seed, failures)
                    : tell(Simulation::simulate(options), options.seed, failures);
  }
  std::printf("%llu seeds, %llu failed, %llu steps\n", static_cast<unsigned long long>(count),
              static_cast<unsigned long long>(failures), static_cast<unsigned long long>(steps));
  return failures == 0 ? 0 : 1;
}
