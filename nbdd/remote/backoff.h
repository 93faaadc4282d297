#pragma once

#include <algorithm>
#include <chrono>
#include <random>

#include "nbdd/limits.h"

namespace Nbdd::Remote {

/// The pauses between attempts to reach a server: each twice the one before up to a longest, and shortened by
/// chance by up to a half, so that many clients of a server that comes back do not come all at once.
class Backoff {
 public:
  struct Pauses {
    std::chrono::milliseconds first = Limits::reconnectFirst;
    std::chrono::milliseconds longest = Limits::reconnectLongest;
  };

  Backoff(Pauses pauses, std::uint32_t seed) : pauses_(pauses), random_(seed), next_(pauses.first) {}

  std::chrono::milliseconds next() {
    const std::chrono::milliseconds most = next_;
    next_ = std::min(2 * next_, pauses_.longest);
    std::uniform_int_distribution<std::int64_t> part(most.count() / 2, most.count());
    return std::chrono::milliseconds(part(random_));
  }
  void reset() { next_ = pauses_.first; }

 private:
  Pauses pauses_;
  std::mt19937 random_;
  std::chrono::milliseconds next_;
};

}  // namespace Nbdd::Remote
