#include "nbdd/io/scope.h"

#include <exception>

namespace Nbdd::Io {

// A frame that frees itself at its end and then tells the scope.
struct Scope::Runner {
  struct promise_type {
    Scope& scope;

    explicit promise_type(Scope& owner, Task<void>&) : scope(owner) {}
    Runner get_return_object() { return {std::coroutine_handle<promise_type>::from_promise(*this)}; }
    std::suspend_always initial_suspend() const noexcept { return {}; }
    auto final_suspend() noexcept {
      struct Ending {
        bool await_ready() const noexcept { return false; }
        void await_suspend(std::coroutine_handle<promise_type> self) const noexcept {
          Scope& owner = self.promise().scope;
          self.destroy();
          owner.ended();
        }
        void await_resume() const noexcept {}
      };
      return Ending{};
    }
    void return_void() const noexcept {}
    [[noreturn]] void unhandled_exception() const noexcept { std::terminate(); }
  };

  std::coroutine_handle<promise_type> handle;
};

Scope::Runner Scope::run(Scope& /*scope*/, Task<void> task) { co_await task; }

Scope::~Scope() {
  if (running_ != 0) {
    std::terminate();
  }
}

void Scope::spawn(Task<void> task) {
  ++running_;
  const Runner runner = run(*this, std::move(task));
  runner.handle.resume();
}

void Scope::ended() {
  --running_;
  if (running_ == 0 && waiter_) {
    std::exchange(waiter_, {}).resume();
  }
}

}  // namespace Nbdd::Io
