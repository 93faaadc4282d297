#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace Nbdd {

/// Whether writes to the page cache of a file are quick enough to be made within a turn of a loop.
///
/// They nearly always are: a copy, a few microseconds, far less than to hand them to another thread and back.
/// But when dirty pages have piled up, or the file system waits for its journal, a write takes as long as a
/// disk does, and a loop has other clients. One slow write is enough to leave them to the engine for a while,
/// and for longer each time that it happens again. Any thread.
class WritePace {
 public:
  using Clock = std::chrono::steady_clock;

  /// A write that takes longer than this is slow: as long as some hundred requests of others.
  static constexpr std::chrono::microseconds slowWrite{1000};

  bool quick(Clock::time_point now) const { return ticks(now) >= slowUntil_.load(std::memory_order_relaxed); }

  /// A write made within a turn has ended at `now` and taken that long.
  void wrote(Clock::duration taken, Clock::time_point now) {
    if (taken > slowWrite) [[unlikely]] {
      slow(now);
    }
  }

 private:
  static std::int64_t ticks(Clock::time_point time) {
    return std::chrono::nanoseconds(time.time_since_epoch()).count();
  }
  void slow(Clock::time_point now);

  std::atomic<std::int64_t> slowUntil_ = 0;  // nanoseconds of the clock
  std::atomic<std::int64_t> pause_ = 0;      // the last one, nanoseconds
};

}  // namespace Nbdd
