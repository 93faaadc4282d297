#pragma once

#include <coroutine>
#include <utility>

#include "nbdd/io/event_loop.h"

namespace Nbdd::Io {

/// Lets one coroutine wait until something it depends on has changed. The waiter is resumed at the end of the
/// loop's turn, never inside `notify`, and looks again at its condition. One loop's thread.
class Signal {
 public:
  explicit Signal(EventLoop& loop) : loop_(loop) {}

  void notify() {
    if (waiter_) {
      loop_.defer([waiter = std::exchange(waiter_, {})] { waiter.resume(); });
    }
  }

  class Waiting {
   public:
    explicit Waiting(Signal& signal) : signal_(signal) {}
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> waiter) noexcept { signal_.waiter_ = waiter; }
    void await_resume() const noexcept {}

   private:
    Signal& signal_;
  };

  /// Awaits the next `notify`.
  [[nodiscard]] Waiting wait() { return Waiting(*this); }

 private:
  EventLoop& loop_;
  std::coroutine_handle<> waiter_;
};

/// Awaits the end of the loop's turn: lets every other ready connection have its turn first.
class EndOfTurn {
 public:
  explicit EndOfTurn(EventLoop& loop) : loop_(loop) {}
  bool await_ready() const noexcept { return false; }
  void await_suspend(std::coroutine_handle<> waiter) {
    loop_.yield([waiter] { waiter.resume(); });
  }
  void await_resume() const noexcept {}

 private:
  EventLoop& loop_;
};

}  // namespace Nbdd::Io
