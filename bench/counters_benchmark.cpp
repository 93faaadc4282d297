// What statistics cost the data path: once for each turn of a connection, with any number of requests in it.
// Beside it stands the same turn without them; a request itself takes microseconds.

#include <benchmark/benchmark.h>

#include <cstdint>

#include "nbdd/exports/publication.h"

namespace {

using Nbdd::TransferCounters;

constexpr std::uint64_t requestBytes = 4096;

/// Adds up a turn of `state.range(0)` requests, as Transmission does.
TransferCounters::Batch countTurn(const benchmark::State& state) {
  TransferCounters::Batch batch;
  for (std::int64_t request = 0; request < state.range(0); ++request) {
    batch.transfers += 1;
    batch.bytes += requestBytes;
    batch.bytesTransferred += requestBytes;
    benchmark::DoNotOptimize(batch);
  }
  return batch;
}

void turnWithoutStatistics(benchmark::State& state) {
  while (state.KeepRunning()) {
    for (std::int64_t request = 0; request < state.range(0); ++request) {
      benchmark::DoNotOptimize(request);
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

/// All threads serve the same export, so they meet in its counters.
void turn(benchmark::State& state) {
  static TransferCounters counters;
  while (state.KeepRunning()) {
    counters.addSent(countTurn(state));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(turnWithoutStatistics)->Arg(1)->Arg(32);
BENCHMARK(turn)->Arg(1)->Arg(32)->ThreadRange(1, 2);
