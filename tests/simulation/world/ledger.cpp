#include "tests/simulation/world/ledger.h"

#include <algorithm>

namespace Simulation {

Ledger::Request& Ledger::add(std::size_t first, std::size_t count, bool isWrite) {
  ++unanswered_;
  requests_.push_back({.first = first, .count = count, .isWrite = isWrite, .asked = world_.tick()});
  return requests_.back();
}

Ledger::Number Ledger::asksWrite(std::size_t first, std::size_t count) {
  add(first, count, true);
  return static_cast<Number>(requests_.size() - 1);
}

Ledger::Number Ledger::asksRead(std::size_t first, std::size_t count) {
  add(first, count, false);
  return static_cast<Number>(requests_.size() - 1);
}

Ledger::Number Ledger::asksFlush() { return asksRead(0, 0); }

void Ledger::answered(Number number, bool good, const std::vector<Number>& read) {
  Request& request = requests_[number];
  if (request.answered != 0) {
    return world_.fail(fmt::format("request {} is answered twice", number));
  }
  request.answered = world_.tick();
  --unanswered_;
  if (!good) {
    return;
  }
  ++goodAnswers_;
  if (request.isWrite) {
    for (std::size_t block = request.first; block < request.first + request.count; ++block) {
      if (std::ranges::find(landed_[block], number) == landed_[block].end()) {
        world_.fail(fmt::format("write {} is answered, and no server has carried it out", number));
      }
    }
  } else if (request.count == 0 && flushed_ < request.asked) {
    world_.fail(fmt::format("flush {} is answered, and no server has carried it out", number));
  }
  for (std::size_t index = 0; index < read.size(); ++index) {
    checkRead(request, request.first + index, read[index]);
  }
}

/// `found` may stand in `block` unless another write was both asked after `found` was answered, and answered
/// before the read was asked.
void Ledger::checkRead(const Request& read, std::size_t block, Number found) {
  if (found != 0 &&
      (found >= requests_.size() || !requests_[found].isWrite || block < requests_[found].first ||
       block >= requests_[found].first + requests_[found].count)) {
    return world_.fail(fmt::format("block {} is read as {}, which was never written there", block, found));
  }
  for (const Number newer : landed_[block]) {
    const bool isOverwritten =
        found == 0 || (requests_[found].answered != 0 && requests_[found].answered < requests_[newer].asked);
    if (isOverwritten && requests_[newer].answered != 0 && requests_[newer].answered < read.asked) {
      return world_.fail(
          fmt::format("block {} is read as {}, which {} had overwritten before", block, found, newer));
    }
  }
}

void Ledger::writes(Number number, std::size_t block) {
  world_.tick();
  const Request& request = requests_[number];
  for (const Number newer : landed_[block]) {
    if (request.answered != 0 && request.answered < requests_[newer].asked) {
      world_.fail(
          fmt::format("write {} lands in block {} once more, on the newer write {}", number, block, newer));
    }
  }
  if (std::ranges::find(landed_[block], number) != landed_[block].end()) {
    ++landedTwice_;
  }
  landed_[block].push_back(number);
  content_[block] = number;
}

void Ledger::flushes() { flushed_ = world_.tick(); }

void Ledger::checkTheEnd() {
  if (unanswered_ != 0) {
    world_.fail(fmt::format("{} requests were never answered", unanswered_));
  }
  const Request end{.asked = world_.tick()};
  for (std::size_t block = 0; block < content_.size(); ++block) {
    checkRead(end, block, content_[block]);
  }
}

}  // namespace Simulation
