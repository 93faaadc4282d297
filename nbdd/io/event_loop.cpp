#include "nbdd/io/event_loop.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <system_error>

namespace Nbdd::Io {

EventLoop::EventLoop()
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!epoll_ || !wake_) {
    throw std::system_error(errno, std::generic_category(), "cannot create an event loop");
  }
  epoll_event event{};
  // Edge-triggered: each write to it wakes the loop anew, so it need not be read.
  event.events = EPOLLIN | EPOLLET;
  event.data.ptr = nullptr;
  if (::epoll_ctl(epoll_.number(), EPOLL_CTL_ADD, wake_.number(), &event) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot create an event loop");
  }
}

EventLoop::~EventLoop() = default;

void EventLoop::run() {
  for (;;) {
    const std::optional<timespec> limit = timeToWait();
    const int count =
        ::epoll_pwait2(epoll_.number(), events_.data(), eventsPerTurn, limit ? &*limit : nullptr, nullptr);
    now_ = Clock::now();
    dispatch(std::max(count, 0));
    fireTimers();
    runPosted();
    runDeferred();
    const std::lock_guard lock(mutex_);
    if (stopRequested_ && posted_.empty() && deferred_.empty()) {
      stopRequested_ = false;
      return;
    }
  }
}

// Both wake the loop under the lock: without it the loop could see the request, end and be destroyed before
// the wake-up is written.

void EventLoop::stop() {
  const std::lock_guard lock(mutex_);
  stopRequested_ = true;
  ::eventfd_write(wake_.number(), 1);
}

void EventLoop::post(Function function) {
  const std::lock_guard lock(mutex_);
  posted_.push_back(std::move(function));
  if (posted_.size() == 1) {
    ::eventfd_write(wake_.number(), 1);
  }
}

void EventLoop::defer(Function function) { deferred_.push_back(std::move(function)); }

void EventLoop::yield(Function function) {
  (runningDeferred_ ? nextTurn_ : deferred_).push_back(std::move(function));
}

int EventLoop::watch(int descriptor, std::uint32_t events, EventHandler& handler) {
  epoll_event event{};
  event.events = events;
  event.data.ptr = &handler;
  return ::epoll_ctl(epoll_.number(), EPOLL_CTL_ADD, descriptor, &event) == 0 ? 0 : errno;
}

int EventLoop::change(int descriptor, std::uint32_t events, EventHandler& handler) {
  epoll_event event{};
  event.events = events;
  event.data.ptr = &handler;
  return ::epoll_ctl(epoll_.number(), EPOLL_CTL_MOD, descriptor, &event) == 0 ? 0 : errno;
}

void EventLoop::unwatch(int descriptor, EventHandler& handler) {
  ::epoll_ctl(epoll_.number(), EPOLL_CTL_DEL, descriptor, nullptr);
  for (epoll_event& event : pending_) {
    if (event.data.ptr == &handler) {
      event.events = 0;
    }
  }
}

/// Until the next timer; nothing if there is none.
std::optional<timespec> EventLoop::timeToWait() const {
  using std::chrono::nanoseconds;
  if (!deferred_.empty()) {
    return timespec{};
  }
  if (timers_.empty()) {
    return std::nullopt;
  }
  const auto left = std::max(nanoseconds(timers_.begin()->first - Clock::now()), nanoseconds(0));
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
  return timespec{.tv_sec = seconds.count(), .tv_nsec = nanoseconds(left - seconds).count()};
}

void EventLoop::dispatch(int count) {
  pending_ = std::span(events_).first(static_cast<std::size_t>(count));
  while (!pending_.empty()) {
    const epoll_event event = pending_.front();
    pending_ = pending_.subspan(1);
    if (event.data.ptr != nullptr && event.events != 0) {
      static_cast<EventHandler*>(event.data.ptr)->onEvents(event.events);
    }
  }
}

void EventLoop::runPosted() {
  std::vector<Function> functions;
  {
    const std::lock_guard lock(mutex_);
    functions.swap(posted_);
  }
  for (Function& function : functions) {
    function();
  }
}

void EventLoop::fireTimers() {
  while (!timers_.empty() && timers_.begin()->first <= now_) {
    Timer& timer = *timers_.begin()->second;
    timer.cancel();
    timer.function_();
  }
}

/// What is deferred by what was deferred belongs to this turn still: answers that leave let a program go on,
/// its requests are taken, and they leave too. But not for ever, for the descriptors wait.
void EventLoop::runDeferred() {
  constexpr int rounds = 2;
  runningDeferred_ = true;
  for (int round = 0; round < rounds && !deferred_.empty(); ++round) {
    running_.swap(deferred_);
    for (Function& function : running_) {
      function();
    }
    running_.clear();
  }
  runningDeferred_ = false;
  std::ranges::move(nextTurn_, std::back_inserter(deferred_));
  nextTurn_.clear();
}

void Timer::start(Clock::duration delay) {
  cancel();
  due_ = Clock::now() + delay;
  loop_.timers_.emplace(due_, this);
  running_ = true;
}

void Timer::pause() {
  if (running_) {
    const Clock::duration left = due_ - Clock::now();
    cancel();
    left_ = left;
  }
}

void Timer::resume() {
  if (left_) {
    start(*left_);
  }
}

void Timer::cancel() {
  left_.reset();
  if (running_) {
    loop_.timers_.erase({due_, this});
    running_ = false;
  }
}

}  // namespace Nbdd::Io
