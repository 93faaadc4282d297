// What it costs to look through the exports of one server with a DiskSpec expression. A server may have a
// hundred thousand; an operator shall not notice that.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "diskspec/expression.h"
#include "nbdd/server/export_search.h"

namespace {

using namespace Nbdd;

constexpr std::uint32_t exportCount = 100'000;
constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20U;

/// Exports with the names and sizes of virtual disks.
Publications manyExports() {
  Publications exports;
  for (std::uint32_t number = 0; number < exportCount; ++number) {
    OpenNode node;
    node.size = (number % 64 + 1) * 512 * mebibyte;
    node.readOnly = number % 10 == 0;
    exports.push_back(std::make_shared<const Publication>(
        Publication{.id = Control::ExportId{number + 1},
                    .name = "vm-" + std::to_string(number) + "-root.img",
                    .description = {},
                    .uuid = "c0ffee00-0000-4000-8000-" + std::to_string(100'000'000'000 + number),
                    .storage = std::make_shared<Storage>(std::move(node)),
                    .counters = std::make_shared<TransferCounters>()}));
  }
  return exports;
}

const Publications& exportsOnce() {
  static const Publications exports = manyExports();
  return exports;
}

void search(benchmark::State& state, const std::string& text) {
  const auto expression = DiskSpec::compile(text);
  if (!expression) {
    state.SkipWithError("the expression does not compile");
    return;
  }
  std::size_t found = 0;
  while (state.KeepRunning()) {
    const auto selected = selectExports(
        *expression, exportsOnce(), [](Control::ExportId) { return std::size_t{0}; },
        std::chrono::steady_clock::time_point::max());
    found = selected->size();
    benchmark::DoNotOptimize(found);
  }
  state.counters["found"] = static_cast<double>(found);
}

void compileExpression(benchmark::State& state) {
  while (state.KeepRunning()) {
    auto expression = DiskSpec::compile("size >= 10G and name ~ vm-* and not readonly");
    benchmark::DoNotOptimize(expression);
  }
}

BENCHMARK_CAPTURE(search, numbers, "size >= 10G and clients == 0 and not readonly")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(search, glob, "size >= 10G and name ~ vm-*9-root.* and not readonly")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(search, regular, "name =~ '^vm-[0-9]*(17|42)-' or uuid ~ *99")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(search, hostile, "name =~ '(v+m+-*)+[0-9]*(.*)(.*)(.*)[^g]$' or name ~ *1*2*3*4*5*6*7*")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(compileExpression)->Unit(benchmark::kMicrosecond);

}  // namespace
