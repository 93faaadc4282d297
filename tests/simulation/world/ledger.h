#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/simulation/world/world.h"

namespace Simulation {

/// What an import owes to the programs that use it, whatever its servers do. Every write has a number, which
/// its data repeat; so what stands in a block, and what was read, tells which write it was.
///
/// Checked are: a write lands on no block on which a write landed that was asked after this one was answered;
/// a good answer was earned at a server; no read gives what was overwritten before it was asked, or was never
/// written; a flush that is answered was carried out behind all that was answered before it was asked.
class Ledger {
 public:
  using Number = std::uint32_t;  // of a request; 0 stands for what was there at the beginning

  Ledger(World& world, std::size_t blocks) : world_(world), content_(blocks), landed_(blocks) {}

  std::size_t blocks() const { return content_.size(); }

  // Programs.
  Number asksWrite(std::size_t first, std::size_t count);
  Number asksRead(std::size_t first, std::size_t count);
  Number asksFlush();
  void answered(Number number, bool good, const std::vector<Number>& read = {});

  // Servers, which all work on the same content.
  void writes(Number number, std::size_t block);
  void flushes();
  Number content(std::size_t block) const { return content_[block]; }

  /// What is left when all is answered.
  void checkTheEnd();

  std::size_t unanswered() const { return unanswered_; }
  std::size_t goodAnswers() const { return goodAnswers_; }
  std::size_t landedTwice() const { return landedTwice_; }

 private:
  struct Request {
    std::size_t first = 0;
    std::size_t count = 0;
    bool isWrite = false;
    std::uint64_t asked = 0;     // ticks of the world
    std::uint64_t answered = 0;  // 0: it is not
    std::size_t landings = 0;    // blocks of it that were written, each time
  };

  Request& add(std::size_t first, std::size_t count, bool isWrite);
  void checkRead(const Request& read, std::size_t block, Number found);

  World& world_;
  std::vector<Request> requests_{1};         // by number
  std::vector<Number> content_;              // by block
  std::vector<std::vector<Number>> landed_;  // by block: all writes that ever landed, in order
  std::uint64_t flushed_ = 0;                // when a server last carried a flush out
  std::size_t unanswered_ = 0;
  std::size_t goodAnswers_ = 0;
  std::size_t landedTwice_ = 0;
};

}  // namespace Simulation
