#pragma once

#include <chrono>
#include <cstddef>

namespace Nbdd {

/// Decides whether a program's socket has to be watched, or is only looked at now and then.
///
/// A program with many requests under way sends them one by one. Who is woken by each takes them in ones and
/// twos, passes them on as such, and the program pays for every wake-up. TCP sockets can wait for several
/// (ReceiveModeration); Unix sockets know no low-water mark. But while the server has requests of this
/// program its answers wake us in any case, and what the program has sent by then is taken along. So a
/// program that was seen with a deep queue is not watched meanwhile: its socket is looked at when the server
/// has answered, or after `lookTime`, whichever comes first, and watched again when there was nothing.
/// Requests to a slow server shall not wait for each other: when it was too often the time that ended a wait,
/// the program is watched for a while.
///
/// Pure: counts in, a decision out. The caller runs the timer.
class ProgramWatch {
 public:
  /// How long a request may wait for an answer to an earlier one, to be taken along. Longer than a server
  /// takes that has the data in memory and shares a busy host with us, shorter than what a network of several
  /// hops or a disk takes.
  static constexpr std::chrono::microseconds lookTime{200};

  /// All that had arrived was taken; `atServer` requests of the program, which need `bytes` of memory, have
  /// no answer yet.
  void turned(std::size_t atServer, std::size_t bytes);

  /// Whether the program is to be watched while `atServer` of its requests have no answer.
  [[nodiscard]] bool isNeeded(std::size_t atServer) const { return deepTurns_ == 0 || atServer == 0; }

  /// Requests were found when the server had not answered for `lookTime`.
  void keptWaiting();

 private:
  // In turns, doubling: how long programs of a slow server are watched whatever their depth.
  static constexpr std::size_t firstPause = 256;
  static constexpr std::size_t longestPause = std::size_t{64} * 1024;

  std::size_t deepTurns_ = 0;   // left in which the program counts as one with a deep queue
  std::size_t strikes_ = 0;     // waits that the time ended, less those that it did not
  std::size_t pauseLeft_ = 0;   // turns before the depth is looked at again
  std::size_t pause_ = 0;       // the last one
  std::size_t turnsSince_ = 0;  // the last pause
};

}  // namespace Nbdd
