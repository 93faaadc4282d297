#include "nbdd/exports/write_pace.h"

#include <algorithm>

namespace Nbdd {

namespace {

constexpr std::int64_t firstPause = std::chrono::nanoseconds(std::chrono::milliseconds(50)).count();
constexpr std::int64_t longestPause = std::chrono::nanoseconds(std::chrono::seconds(30)).count();

}  // namespace

void WritePace::slow(Clock::time_point now) {
  // Two workers may be slow at once: then one of the two pauses counts.
  const std::int64_t last = pause_.load(std::memory_order_relaxed);
  const std::int64_t sinceLast = ticks(now) - slowUntil_.load(std::memory_order_relaxed);
  // Who was quick for as long as he had been kept away before is a beginner again.
  const std::int64_t pause = last == 0 || sinceLast > last ? firstPause : std::min(2 * last, longestPause);
  pause_.store(pause, std::memory_order_relaxed);
  slowUntil_.store(ticks(now) + pause, std::memory_order_relaxed);
}

}  // namespace Nbdd
