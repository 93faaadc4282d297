#pragma once

#include <algorithm>
#include <coroutine>
#include <cstddef>
#include <deque>
#include <utility>

#include "nbdd/io/event_loop.h"

namespace Nbdd {

/// Memory for data that wait for storage or for slow readers, which the connections of one worker share. Who
/// asks for more than is left waits in line; nobody overtakes. One loop's thread.
class MemoryBudget {
 public:
  MemoryBudget(Io::EventLoop& loop, std::size_t bytes) : loop_(loop), left_(bytes), total_(bytes) {}

  /// A share of the budget, given back at the end of its life.
  class Share {
   public:
    Share() = default;
    Share(MemoryBudget& budget, std::size_t bytes) : budget_(&budget), bytes_(bytes) {}
    Share(Share&& other) noexcept
        : budget_(std::exchange(other.budget_, nullptr)), bytes_(std::exchange(other.bytes_, 0)) {}
    Share& operator=(Share&& other) noexcept {
      std::swap(budget_, other.budget_);
      std::swap(bytes_, other.bytes_);
      return *this;
    }
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;
    ~Share() {
      if (budget_ != nullptr) {
        budget_->giveBack(bytes_);
      }
    }
    explicit operator bool() const { return budget_ != nullptr; }

   private:
    MemoryBudget* budget_ = nullptr;
    std::size_t bytes_ = 0;
  };

  class Waiting {
   public:
    Waiting(MemoryBudget& budget, std::size_t bytes) : budget_(budget), bytes_(bytes) {}
    bool await_ready() {
      if (budget_.waiting_.empty() && budget_.left_ >= bytes_) {
        budget_.left_ -= bytes_;
        return true;
      }
      return false;
    }
    void await_suspend(std::coroutine_handle<> waiter) { budget_.waiting_.push_back({waiter, bytes_}); }
    Share await_resume() { return {budget_, bytes_}; }

   private:
    MemoryBudget& budget_;
    std::size_t bytes_;
  };

  /// Awaits `bytes` of the budget, or all of it if that is less.
  [[nodiscard]] Waiting take(std::size_t bytes) { return {*this, std::min(bytes, total_)}; }

  /// The same at once, or an empty share.
  [[nodiscard]] Share tryTake(std::size_t bytes) {
    Waiting waiting = take(bytes);
    return waiting.await_ready() ? waiting.await_resume() : Share();
  }

 private:
  struct Waiter {
    std::coroutine_handle<> handle;
    std::size_t bytes;
  };

  void giveBack(std::size_t bytes) {
    left_ += bytes;
    while (!waiting_.empty() && waiting_.front().bytes <= left_) {
      left_ -= waiting_.front().bytes;
      loop_.defer([handle = waiting_.front().handle] { handle.resume(); });
      waiting_.pop_front();
    }
  }

  Io::EventLoop& loop_;
  std::size_t left_;
  std::size_t total_;
  std::deque<Waiter> waiting_;
};

}  // namespace Nbdd
