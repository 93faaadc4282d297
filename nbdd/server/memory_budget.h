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
    /// Whether others wait for what this holds.
    bool contended() const { return budget_ != nullptr && !budget_->waiting_.empty(); }

   private:
    MemoryBudget* budget_ = nullptr;
    std::size_t bytes_ = 0;
  };

  class Waiting {
   public:
    Waiting(MemoryBudget& budget, std::size_t bytes, const void* owner)
        : budget_(budget), bytes_(bytes), owner_(owner) {}
    bool await_ready() {
      if (!budget_.waiting_.empty() || budget_.left_ < bytes_) {
        return false;
      }
      budget_.left_ -= bytes_;
      granted_ = true;
      return true;
    }
    void await_suspend(std::coroutine_handle<> waiter) {
      budget_.waiting_.push_back({.handle = waiter, .bytes = bytes_, .owner = owner_, .granted = &granted_});
    }
    Share await_resume() { return granted_ ? Share(budget_, bytes_) : Share(); }

   private:
    MemoryBudget& budget_;
    std::size_t bytes_;
    const void* owner_;
    bool granted_ = false;
  };

  /// Awaits `bytes` of the budget, or all of it if that is less, on behalf of `owner`.
  [[nodiscard]] Waiting take(std::size_t bytes, const void* owner) {
    return {*this, std::min(bytes, total_), owner};
  }

  /// The same at once, or an empty share.
  [[nodiscard]] Share tryTake(std::size_t bytes) {
    Waiting waiting = take(bytes, nullptr);
    return waiting.await_ready() ? waiting.await_resume() : Share();
  }

  /// Nobody waits on behalf of `owner` any more: those who did are resumed with empty shares.
  void cancel(const void* owner) {
    for (const Waiter& waiter : waiting_) {
      if (waiter.owner == owner) {
        loop_.defer([handle = waiter.handle] { handle.resume(); });
      }
    }
    std::erase_if(waiting_, [owner](const Waiter& waiter) { return waiter.owner == owner; });
    grant();
  }

 private:
  struct Waiter {
    std::coroutine_handle<> handle;
    std::size_t bytes;
    const void* owner;
    bool* granted;  // in the waiting coroutine's frame
  };

  void giveBack(std::size_t bytes) {
    left_ += bytes;
    grant();
  }

  void grant() {
    while (!waiting_.empty() && waiting_.front().bytes <= left_) {
      left_ -= waiting_.front().bytes;
      *waiting_.front().granted = true;
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
