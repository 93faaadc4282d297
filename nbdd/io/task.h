#pragma once

// Coroutines that are awaited by exactly one owner.
//
// A Task is lazy: nothing runs before it is awaited or handed to a Scope. When it ends, control passes
// straight to the coroutine that awaits it, so a chain of awaits costs no trip through the event loop.
// Operating errors travel as values; an exception that reaches the edge of a coroutine is a programmer's
// error and ends the process.

#include <coroutine>
#include <cstdlib>
#include <exception>
#include <optional>
#include <utility>

namespace Nbdd::Io {

template <class T>
class Task;

namespace Detail {

struct TaskPromiseBase {
  std::coroutine_handle<> continuation;

  struct FinalAwaiter {
    bool await_ready() const noexcept { return false; }
    template <class Promise>
    std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> self) const noexcept {
      const std::coroutine_handle<> next = self.promise().continuation;
      return next ? next : std::noop_coroutine();
    }
    void await_resume() const noexcept {}
  };

  std::suspend_always initial_suspend() const noexcept { return {}; }
  FinalAwaiter final_suspend() const noexcept { return {}; }
  [[noreturn]] void unhandled_exception() const noexcept { std::terminate(); }
};

template <class T>
struct TaskPromise : TaskPromiseBase {
  std::optional<T> value;

  Task<T> get_return_object();
  void return_value(T result) { value.emplace(std::move(result)); }
};

template <>
struct TaskPromise<void> : TaskPromiseBase {
  Task<void> get_return_object();
  void return_void() const noexcept {}
};

}  // namespace Detail

/// A coroutine that yields one T to the one coroutine that awaits it. Destroying a Task destroys the
/// coroutine's frame; that is allowed only before it started or after it ended.
template <class T = void>
class [[nodiscard]] Task {
 public:
  using promise_type = Detail::TaskPromise<T>;
  using Handle = std::coroutine_handle<promise_type>;

  explicit Task(Handle handle) : handle_(handle) {}
  Task(Task&& other) noexcept : handle_(std::exchange(other.handle_, {})) {}
  Task& operator=(Task&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
  ~Task() {
    if (handle_) {
      handle_.destroy();
    }
  }

  bool await_ready() const noexcept { return false; }
  std::coroutine_handle<> await_suspend(std::coroutine_handle<> awaiting) noexcept {
    handle_.promise().continuation = awaiting;
    return handle_;
  }
  T await_resume() {
    if constexpr (!std::is_void_v<T>) {
      return std::move(*handle_.promise().value);
    }
  }

 private:
  Handle handle_;
};

namespace Detail {

template <class T>
Task<T> TaskPromise<T>::get_return_object() {
  return Task<T>(std::coroutine_handle<TaskPromise<T>>::from_promise(*this));
}

inline Task<void> TaskPromise<void>::get_return_object() {
  return Task<void>(std::coroutine_handle<TaskPromise<void>>::from_promise(*this));
}

}  // namespace Detail

}  // namespace Nbdd::Io
