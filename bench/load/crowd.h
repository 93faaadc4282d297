#pragma once

#include <sys/epoll.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench/load/connection.h"
#include "nbdd/io/file_descriptor.h"

namespace Bench {

/// When a load is measured: it begins before, and ends with the measurement.
struct Schedule {
  Clock::time_point begin;
  Clock::time_point end;
};

/// Some connections and the thread that drives them. What goes wrong is thrown as std::runtime_error: a load
/// with a connection less measures something else.
class Crowd {
 public:
  Crowd();

  /// Opens connections number `first` to `first + count - 1` and returns when all of them stand; some dozens
  /// at a time, so that no server's queue of new connections overflows.
  void open(const Target& target, std::size_t first, std::size_t count, std::chrono::seconds patience);

  /// Loads the server until the end of the schedule. The connections go on afterwards as they like: nothing
  /// is read any more.
  void run(const Load& load, const Schedule& schedule);

  /// One request on each connection, all at once; returns when all are answered.
  void askAll(const Load& load, std::chrono::seconds patience);

  [[nodiscard]] const Histogram& latencies() const { return workspace_.latencies; }
  [[nodiscard]] std::uint64_t errors() const { return workspace_.errors; }
  /// What each connection had answered while it was measured.
  [[nodiscard]] std::vector<std::uint64_t> requestsOfEach() const;
  /// Processor time of the thread in run(), as a share of its time.
  [[nodiscard]] double processorShare() const { return processorShare_; }

 private:
  void add(const Target& target, std::size_t number);
  /// Waits for up to 50 ms and lets every connection that is ready go on. Returns how many of them came to
  /// stand.
  std::size_t turn();

  Nbdd::Io::FileDescriptor epoll_;
  std::array<epoll_event, 256> events_{};
  Workspace workspace_;
  std::vector<std::unique_ptr<Connection>> connections_;
  double processorShare_ = 0;
};

}  // namespace Bench
