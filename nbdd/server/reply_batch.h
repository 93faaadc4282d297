#pragma once

#include <cstddef>
#include <span>

#include "nbd/contract.h"
#include "nbdd/server/sender.h"

namespace Nbdd {

/// Collects the replies of one turn in memory that all sessions of a worker share, and hands them to the
/// sender in one piece. Empty outside of a turn.
class ReplyBatch {
 public:
  ReplyBatch(std::span<std::byte> memory, Sender& sender) : memory_(memory), sender_(sender) {}

  /// Room for `size` bytes, which the caller fills at once. Sends what is there if it would not fit. `size`
  /// is at most the whole memory.
  std::span<std::byte> reserve(std::size_t size) {
    if (memory_.size() - used_ < size) {
      send();
    }
    return memory_.subspan(used_, size);
  }
  /// The first `size` bytes of the room last reserved belong to the batch now.
  void commit(std::size_t size) {
    Nbd::require(size <= memory_.size() - used_);
    used_ += size;
  }

  /// Sends what is there. `more`: something else follows at once.
  void send(bool more = false) {
    if (used_ > 0) {
      sender_.send(memory_.first(used_), more);
      used_ = 0;
    }
  }

  std::size_t size() const { return used_; }

 private:
  std::span<std::byte> memory_;
  Sender& sender_;
  std::size_t used_ = 0;
};

}  // namespace Nbdd
