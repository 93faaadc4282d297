#pragma once

#include <coroutine>
#include <cstddef>
#include <stop_token>

#include "nbdd/io/task.h"

namespace Nbdd::Io {

/// Owns running coroutines: they are started here, can be asked to stop, and are awaited before the scope
/// may end. One scope belongs to one thread, that of its event loop.
///
/// Asking to stop only sets the stop token and runs its callbacks; each task ends itself, at a point where
/// nothing that the kernel still touches belongs to it.
class Scope {
 public:
  Scope() = default;
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;
  /// Every task must have ended.
  ~Scope();

  /// Starts `task` at once, on the caller's stack, up to its first suspension.
  void spawn(Task<void> task);

  /// How many tasks have not ended yet.
  std::size_t running() const { return running_; }

  void requestStop() { stop_.request_stop(); }
  bool stopRequested() const { return stop_.stop_requested(); }
  std::stop_token stopToken() const { return stop_.get_token(); }

  class Joined {
   public:
    explicit Joined(Scope& scope) : scope_(scope) {}
    bool await_ready() const noexcept { return scope_.running_ == 0; }
    void await_suspend(std::coroutine_handle<> waiter) noexcept { scope_.waiter_ = waiter; }
    void await_resume() const noexcept {}

   private:
    Scope& scope_;
  };

  /// Awaits the end of all tasks; one waiter at a time. It is resumed on the stack of the task that ended
  /// last, after that task's frame is gone.
  Joined join() { return Joined(*this); }

 private:
  struct Runner;
  static Runner run(Scope& scope, Task<void> task);
  void ended();

  std::stop_source stop_;
  std::size_t running_ = 0;
  std::coroutine_handle<> waiter_;
};

}  // namespace Nbdd::Io
