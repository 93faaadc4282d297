// Many NBD clients in one program: what fio and the stock clients do not do.
//
// It opens N connections to one export, and when all stand it loads the server on all of them at once: each
// keeps a constant number of requests under way, at random places. A warm-up comes first, then what is
// measured: requests per second, how long a request takes, and how even the server's favour is. Other clients
// that are bad neighbours (one that never reads its replies, one that asks for far too much) may run beside.
// It shares the machine with the server, so it is made cheap: some microseconds for each request, nearly all
// of them in the kernel; its own processor time is part of the result.
//
// A script that measures the server meanwhile follows it line by line:
//
//   standing             all connections stand; with --stay it waits for a line on standard input
//   measuring            the warm-up is over
//   {"requests": …}      the result; with --stay all connections stand until standard input ends
//
// With --idle there is no load: each line on standard input makes all connections ask once.

#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <expected>
#include <future>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/load/connection.h"
#include "bench/load/crowd.h"
#include "bench/load/histogram.h"
#include "bench/load/target.h"

namespace Bench {

namespace {

// A greedy client has all of this under way; a stalled one sends so many requests as long as the server takes
// them.
constexpr Load greedyLoad{.depth = 256, .blockSize = 1024 * 1024};
constexpr Load stalledLoad{.depth = 64 * 1024, .blockSize = 1024 * 1024, .reads = false};

struct Options {
  std::string uri;
  std::size_t connections = 1;
  std::size_t threads = 1;
  Load load;
  std::size_t greedy = 0;
  std::size_t stalled = 0;
  double seconds = 4;
  double warmUp = 1;
  std::chrono::seconds patience{60};
  bool idle = false;
  bool stay = false;
};

void declare(CLI::App& app, Options& options) {
  app.add_option("uri", options.uri, "nbd://HOST[:PORT]/[NAME]")->required();
  app.add_option("-n,--connections", options.connections, "connections (default 1)")
      ->check(CLI::Range(1, 1'000'000));
  app.add_option("--threads", options.threads, "threads that share them (default 1)")
      ->check(CLI::Range(1, 64));
  app.add_option("--depth", options.load.depth, "requests that each keeps under way (default 1)")
      ->check(CLI::Range(1, 65'536));
  app.add_option("--block-size", options.load.blockSize, "bytes of a request (default 4096)")
      ->check(CLI::Range(1, 32 * 1024 * 1024));
  app.add_flag("--write", options.load.write, "write instead of reading");
  app.add_option("--seconds", options.seconds, "how long to measure (default 4)")->check(CLI::PositiveNumber);
  app.add_option("--warm-up", options.warmUp, "seconds of the same load before that (default 1)")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--greedy", options.greedy, "clients beside that keep 256 reads of 1 MiB under way");
  app.add_option("--stalled", options.stalled, "clients beside that ask for all they can and never read");
  app.add_option("--patience", options.patience, "seconds until all connections must stand (default 60)");
  app.add_flag("--idle", options.idle, "no load; one request on each connection for each line on stdin");
  app.add_flag("--stay", options.stay, "wait for a line on stdin before the load, for its end afterwards");
}

void raiseDescriptorLimit() {
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) == 0) {
    files.rlim_cur = files.rlim_max;
    static_cast<void>(::setrlimit(RLIMIT_NOFILE, &files));
  }
}

void say(const std::string& line) { std::cout << line << std::endl; }

bool lineComes() {
  std::string line;
  return static_cast<bool>(std::getline(std::cin, line));
}

double microseconds(std::chrono::nanoseconds duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

using Crowds = std::vector<std::unique_ptr<Crowd>>;

/// What all crowds together measured.
class Result {
 public:
  explicit Result(const Crowds& crowds) {
    for (const std::unique_ptr<Crowd>& crowd : crowds) {
      latencies_.add(crowd->latencies());
      errors_ += crowd->errors();
      const std::vector<std::uint64_t> requests = crowd->requestsOfEach();
      requestsOfEach_.insert(requestsOfEach_.end(), requests.begin(), requests.end());
      processorShares_.push_back(crowd->processorShare());
    }
    std::ranges::sort(requestsOfEach_);
  }

  [[nodiscard]] nlohmann::json toJson(const Load& load, double seconds) const {
    const double requests = static_cast<double>(latencies_.count());
    return {{"requests", latencies_.count()},
            {"errors", errors_},
            {"seconds", seconds},
            {"requestsPerSecond", requests / seconds},
            {"bytesPerSecond", requests * load.blockSize / seconds},
            {"latency", latencyJson()},
            {"requestsPerConnection",
             {{"min", requestsOfEach_.front()}, {"median", fromLeast(0.5)}, {"max", requestsOfEach_.back()}}},
            {"meanLatencyPerConnection",
             {{"median", meanLatency(fromLeast(0.5), load, seconds)},
              {"p99", meanLatency(fromLeast(0.01), load, seconds)},
              {"max", meanLatency(requestsOfEach_.front(), load, seconds)}}},
            {"processorShareOfThreads", processorShares_}};
  }

  /// In microseconds.
  [[nodiscard]] nlohmann::json latencyJson() const {
    return {{"p50", microseconds(latencies_.quantile(0.5))},
            {"p99", microseconds(latencies_.quantile(0.99))},
            {"p99.9", microseconds(latencies_.quantile(0.999))},
            {"max", microseconds(latencies_.largest())}};
  }

  [[nodiscard]] std::uint64_t errors() const { return errors_; }

 private:
  /// The connection that stands at that share of the way from the worst served to the best.
  [[nodiscard]] std::uint64_t fromLeast(double share) const {
    return requestsOfEach_[static_cast<std::size_t>(share * static_cast<double>(requestsOfEach_.size() - 1))];
  }

  /// In microseconds, of a connection that was answered so often: at a constant depth the one follows from
  /// the other. One that was never answered counts as answered at the very end.
  static double meanLatency(std::uint64_t requests, const Load& load, double seconds) {
    return seconds * 1e6 * load.depth / static_cast<double>(std::max<std::uint64_t>(requests, 1));
  }

  Histogram latencies_;
  std::uint64_t errors_ = 0;
  std::vector<std::uint64_t> requestsOfEach_;
  std::vector<double> processorShares_;
};

/// Divides the connections evenly among the threads.
Crowds openAll(const Options& options, const Target& target) {
  Crowds crowds;
  std::size_t opened = 0;
  const std::size_t threads = std::min(options.threads, options.connections);
  for (std::size_t index = 0; index < threads; ++index) {
    const std::size_t upTo = options.connections * (index + 1) / threads;
    crowds.push_back(std::make_unique<Crowd>());
    crowds.back()->open(target, opened, upTo - opened, options.patience);
    opened = upTo;
  }
  return crowds;
}

std::unique_ptr<Crowd> openNeighbours(std::size_t count, const Target& target,
                                      std::chrono::seconds patience) {
  auto crowd = std::make_unique<Crowd>();
  crowd->open(target, 0, count, patience);
  return crowd;
}

void idle(const Options& options, const Crowds& crowds) {
  while (lineComes()) {
    for (const std::unique_ptr<Crowd>& crowd : crowds) {
      crowd->askAll(options.load, options.patience);
    }
    const Result result(crowds);
    say(nlohmann::json{
        {"answered", options.connections}, {"errors", result.errors()}, {"latency", result.latencyJson()}}
            .dump());
  }
}

int load(const Options& options, const Crowds& crowds, const Target& target) {
  const std::unique_ptr<Crowd> stalled = openNeighbours(options.stalled, target, options.patience);
  const std::unique_ptr<Crowd> greedy = openNeighbours(options.greedy, target, options.patience);
  const auto asDuration = [](double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  };
  Schedule schedule{.begin = Clock::now() + asDuration(options.warmUp), .end = {}};
  schedule.end = schedule.begin + asDuration(options.seconds);

  // The destructor of each future waits for its thread, whatever is thrown here.
  std::vector<std::future<void>> running;
  const auto start = [&](Crowd& crowd, const Load& what) {
    running.push_back(
        std::async(std::launch::async, [&crowd, &what, &schedule] { crowd.run(what, schedule); }));
  };
  for (const std::unique_ptr<Crowd>& crowd : crowds) {
    start(*crowd, options.load);
  }
  if (options.stalled > 0) {
    start(*stalled, stalledLoad);
  }
  if (options.greedy > 0) {
    start(*greedy, greedyLoad);
  }
  std::this_thread::sleep_until(schedule.begin);
  say("measuring");
  for (std::future<void>& thread : running) {
    thread.get();
  }

  const Result result(crowds);
  nlohmann::json json = result.toJson(options.load, options.seconds);
  json["connections"] = options.connections;
  if (options.greedy > 0) {
    json["greedyBytesPerSecond"] =
        static_cast<double>(greedy->latencies().count()) * greedyLoad.blockSize / options.seconds;
  }
  say(json.dump());
  while (options.stay && lineComes()) {
  }
  return result.errors() == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int run(const Options& options) {
  raiseDescriptorLimit();
  const std::expected<Target, std::string> target = parseTarget(options.uri);
  if (!target) {
    throw std::runtime_error(target.error());
  }
  const Crowds crowds = openAll(options, *target);
  say("standing");
  if (options.idle) {
    idle(options, crowds);
    return EXIT_SUCCESS;
  }
  if (options.stay && !lineComes()) {
    return EXIT_SUCCESS;
  }
  return load(options, crowds, *target);
}

}  // namespace

}  // namespace Bench

int main(int argc, char** argv) {
  CLI::App app("Loads an NBD server with many clients at once and measures how they fare.");
  Bench::Options options;
  Bench::declare(app, options);
  CLI11_PARSE(app, argc, argv);
  try {
    return Bench::run(options);
  } catch (const std::exception& error) {
    std::cerr << "load_clients: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
}
