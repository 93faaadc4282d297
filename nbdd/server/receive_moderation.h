#pragma once

#include <chrono>
#include <cstddef>

namespace Nbdd {

/// Decides how much a connection waits for before it is worth a turn.
///
/// A client with many small requests in flight sends them one by one. Who takes each as it comes pays the
/// turn (wait, receive, send) for each, and the client pays for waking us; who waits until several are there
/// does the same work at a fraction of the cost. But the client must have further requests to send while the
/// first ones wait, or both sides stand still. So the depth of its queue is measured now and then: nothing is
/// taken until nothing more comes, and what has come by then is the depth. A quarter of it is what turns wait
/// for from then on. A guard time ends each such wait, and when that happens too often, single requests are
/// enough again.
///
/// Pure: counts and sizes in, a size out. The caller sets it as the socket's low-water mark and runs the
/// timer.
class ReceiveModeration {
 public:
  /// How long to wait for `threshold()` before `guardExpired`. Longer than what lies between two requests of
  /// a busy client, far shorter than what a disk takes.
  static constexpr std::chrono::microseconds guardTime{50};

  /// A turn has taken `requests` whole requests of `bytes` bytes in all. Both may be 0.
  void turned(std::size_t requests, std::size_t bytes);

  /// Bytes worth the next turn; 1: any.
  [[nodiscard]] std::size_t threshold() const { return threshold_; }

  /// The wait has taken `guardTime`, and `available` bytes have arrived by now. True: wait on, as long again.
  /// False: `threshold()` is 1 now, until the next turn.
  [[nodiscard]] bool guardExpired(std::size_t available);

 private:
  enum class Phase { single, measuring, several };

  void beginSingle();
  void beginMeasuring();
  void settle(std::size_t measured);
  void waitFor(std::size_t requests);

  Phase phase_ = Phase::single;
  std::size_t threshold_ = 1;
  std::size_t requestSize_ = 1;  // bytes, the average of the last turn
  std::size_t turnsLeft_ = 0;    // before the depth is measured (again)
  std::size_t depth_ = 0;        // requests; 0: not known
  std::size_t strikes_ = 0;      // waits that the guard ended, less those that it did not
  std::size_t seen_ = 0;         // while measuring: bytes at the last look
  std::size_t quietLooks_ = 0;   // while measuring: looks since more arrived
  std::size_t pause_ = firstPause;
  std::size_t interval_ = firstPause;

  // In turns, doubling: before a client whose queue is not deep is measured again, and one whose queue is.
  static constexpr std::size_t firstPause = 256;
  static constexpr std::size_t longestPause = std::size_t{64} * 1024;
  static constexpr std::size_t longestInterval = std::size_t{8} * 1024;
};

}  // namespace Nbdd
