#pragma once

#include <sys/epoll.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <thread>
#include <utility>
#include <vector>

#include "nbdd/io/file_descriptor.h"

namespace Nbdd::Io {

using Function = std::move_only_function<void()>;
using Clock = std::chrono::steady_clock;

/// Told when a watched descriptor is ready. Lives at least until it is no longer watched.
class EventHandler {
 public:
  virtual ~EventHandler() = default;
  /// `events`: EPOLLIN, EPOLLOUT, … as epoll(7) gives them. Called on the loop's thread; may watch, unwatch
  /// and destroy any handler, itself included.
  virtual void onEvents(std::uint32_t events) = 0;
};

class Timer;

/// One thread's loop over descriptors, timers and posted functions.
///
/// Everything belongs to the thread that calls `run`, but for `post` and `stop`, which any thread may call.
/// Each turn: wait, handle the ready descriptors, fire timers, run what was posted, run what was deferred,
/// and what that deferred. What is deferred then belongs to the next turn.
class EventLoop {
 public:
  /// Throws std::system_error when the kernel gives no epoll or eventfd descriptor (start-up only).
  EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop();

  /// Runs until `stop`. What was posted before the stop has run when it returns.
  void run();
  /// Any thread.
  void stop();
  /// Any thread: runs `function` on the loop's thread, soon, never inside this call.
  void post(Function function);
  /// The loop's thread: runs `function` at the end of this turn, after every ready descriptor was handled.
  void defer(Function function);
  /// The same for whoever has more to do than fits into a turn: what was itself deferred waits for the end of
  /// the next turn.
  void yield(Function function);

  /// Watches `descriptor` for `events` (epoll flags, EPOLLET welcome). Returns 0 or an errno.
  [[nodiscard]] int watch(int descriptor, std::uint32_t events, EventHandler& handler);
  [[nodiscard]] int change(int descriptor, std::uint32_t events, EventHandler& handler);
  /// After this the handler is not called again, not even for events already fetched.
  void unwatch(int descriptor, EventHandler& handler);

  /// The time at which this turn began.
  Clock::time_point now() const { return now_; }

 private:
  friend class Timer;

  std::optional<timespec> timeToWait() const;
  void dispatch(int count);
  void runPosted();
  void fireTimers();
  void runDeferred();

  static constexpr int eventsPerTurn = 256;

  FileDescriptor epoll_;
  FileDescriptor wake_;
  std::array<epoll_event, eventsPerTurn> events_{};
  std::span<epoll_event> pending_;
  std::vector<Function> deferred_;
  std::vector<Function> running_;   // empty but while runDeferred does: keeps its memory
  std::vector<Function> nextTurn_;  // likewise
  bool runningDeferred_ = false;
  std::set<std::pair<Clock::time_point, Timer*>> timers_;
  Clock::time_point now_ = Clock::now();

  std::mutex mutex_;
  std::vector<Function> posted_;  // guarded by mutex_
  bool stopRequested_ = false;    // guarded by mutex_
};

/// Calls a function once, some time after `start`. Belongs to the loop's thread; destroying it cancels it.
class Timer {
 public:
  Timer(EventLoop& loop, Function function) : loop_(loop), function_(std::move(function)) {}
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  ~Timer() { cancel(); }

  /// Starts or restarts.
  void start(Clock::duration delay);
  void cancel();
  /// Stands still until `resume`, which lets it run for as long as was left. Both do nothing to a timer that
  /// does not run, or does not stand still; `start` and `cancel` end the standstill.
  void pause();
  void resume();
  bool running() const { return running_; }

 private:
  friend class EventLoop;

  EventLoop& loop_;
  Function function_;
  Clock::time_point due_{};
  std::optional<Clock::duration> left_;  // while it stands still
  bool running_ = false;
};

}  // namespace Nbdd::Io
