#include "nbdd/imports/program_watch.h"

#include <algorithm>

namespace Nbdd {

namespace {

/// Requests at the server at once that make a queue deep. With fewer there is little to take along, and a
/// program that is not watched would wait for its own answers.
constexpr std::size_t deep = 16;

/// Average of bytes beyond which requests cost so much themselves that wake-ups do not matter.
constexpr std::size_t large = std::size_t{16} * 1024;

/// Turns for which a queue that was deep counts as deep: its requests are seldom all at the server at once.
constexpr std::size_t deepMemory = 64;

/// One wait in vain weighs as much as so many good ones, and so many in a row are too much.
constexpr std::size_t strikeWeight = 8;
constexpr std::size_t strikesAllowed = 4;

/// A pause that follows the last one within so many times its length is twice as long.
constexpr std::size_t soon = 8;

}  // namespace

void ProgramWatch::turned(std::size_t atServer, std::size_t bytes) {
  if (pauseLeft_ > 0) {
    --pauseLeft_;
    return;
  }
  ++turnsSince_;
  strikes_ -= strikes_ > 0 ? 1 : 0;
  if (atServer >= deep && bytes <= atServer * large) {
    deepTurns_ = deepMemory;
  } else if (deepTurns_ > 0) {
    --deepTurns_;
  }
}

void ProgramWatch::keptWaiting() {
  strikes_ += strikeWeight;
  if (strikes_ <= strikeWeight * strikesAllowed) return;
  const bool again = pause_ > 0 && turnsSince_ < soon * pause_;
  pause_ = again ? std::min(2 * pause_, longestPause) : firstPause;
  pauseLeft_ = pause_;
  turnsSince_ = 0;
  strikes_ = 0;
  deepTurns_ = 0;
}

}  // namespace Nbdd
