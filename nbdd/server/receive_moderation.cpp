#include "nbdd/server/receive_moderation.h"

#include <algorithm>

namespace Nbdd {

namespace {

/// Deeper queues are not told apart: no turn waits for more than a part of this.
constexpr std::size_t deepest = 32;

/// The part of its depth that a client may have waiting here while the rest keeps both sides busy.
constexpr std::size_t partOfDepth = 4;

/// A client with fewer in flight than this gains nothing, and one that is kept waiting loses much.
constexpr std::size_t shallowest = 16;

/// However large the requests: waiting for more saves nothing any more.
constexpr std::size_t largestThreshold = std::size_t{128} * 1024;

/// Looks without anything new that end a measurement: a client may have been kept from the processor.
constexpr std::size_t quietLooksToEnd = 2;

/// One wait in vain weighs as much as so many good ones, and so many in a row are too much.
constexpr std::size_t strikeWeight = 8;
constexpr std::size_t strikesAllowed = 4;

}  // namespace

void ReceiveModeration::turned(std::size_t requests, std::size_t bytes) {
  if (requests == 0) {
    return;
  }
  requestSize_ = std::max<std::size_t>(bytes / requests, 1);
  turnsLeft_ -= turnsLeft_ > 0 ? 1 : 0;
  strikes_ -= strikes_ > 0 ? 1 : 0;
  if (phase_ == Phase::measuring) {
    settle(requests);
  } else if (turnsLeft_ == 0 && (phase_ == Phase::several || requests > 1)) {
    beginMeasuring();
  } else if (phase_ == Phase::several) {
    waitFor(depth_ / partOfDepth);
  }
}

bool ReceiveModeration::guardExpired(std::size_t available) {
  if (phase_ == Phase::measuring) {
    quietLooks_ = available > seen_ ? 0 : quietLooks_ + 1;
    seen_ = std::max(seen_, available);
    if (quietLooks_ < quietLooksToEnd) {
      return true;
    }
    settle(available / requestSize_);
  } else {
    strikes_ += strikeWeight;
    if (strikes_ > strikeWeight * strikesAllowed) {
      beginSingle();
    }
  }
  threshold_ = 1;  // what is there is all there is for now
  return false;
}

void ReceiveModeration::beginSingle() {
  phase_ = Phase::single;
  threshold_ = 1;
  depth_ = 0;
  turnsLeft_ = pause_;
  pause_ = std::min(2 * pause_, longestPause);
  interval_ = firstPause;
}

void ReceiveModeration::beginMeasuring() {
  phase_ = Phase::measuring;
  seen_ = 0;
  quietLooks_ = 0;
  waitFor(deepest);
}

void ReceiveModeration::settle(std::size_t measured) {
  // A client that was interrupted while it sent is deeper than it looks. If it is not, the guard tells.
  depth_ = std::max(std::min(measured, deepest), depth_ - depth_ / partOfDepth);
  if (depth_ < shallowest) {
    beginSingle();
    return;
  }
  phase_ = Phase::several;
  strikes_ = 0;
  turnsLeft_ = interval_;
  interval_ = std::min(2 * interval_, longestInterval);
  pause_ = firstPause;
  waitFor(depth_ / partOfDepth);
}

void ReceiveModeration::waitFor(std::size_t requests) {
  threshold_ = std::min(requests * requestSize_, largestThreshold);
}

}  // namespace Nbdd
