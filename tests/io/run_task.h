#pragma once

#include <optional>
#include <utility>

#include "nbdd/io/event_loop.h"
#include "nbdd/io/scope.h"
#include "nbdd/io/task.h"

namespace Nbdd::Io {

template <class T>
Task<void> storeResult(EventLoop& loop, Task<T> task, std::optional<T>& result) {
  T value = co_await task;
  result.emplace(std::move(value));
  loop.stop();
}

/// Runs `task` on `loop` to its end and returns what it yields.
template <class T>
T runTask(EventLoop& loop, Task<T> task) {
  std::optional<T> result;
  Scope scope;
  scope.spawn(storeResult(loop, std::move(task), result));
  loop.run();
  return std::move(*result);
}

}  // namespace Nbdd::Io
