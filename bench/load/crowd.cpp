#include "bench/load/crowd.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <expected>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace Bench {

namespace {

// A server's queue of new connections may be ten long. What overflows it waits until TCP tries again:
// seconds, or for ever.
constexpr std::size_t handshakesAtOnce = 8;

constexpr int longestWaitMilliseconds = 50;

std::chrono::nanoseconds processorTime() {
  timespec time{};
  static_cast<void>(::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time));
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace

Crowd::Crowd() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
  if (!epoll_) {
    throw std::system_error(errno, std::generic_category(), "epoll_create1");
  }
}

void Crowd::add(const Target& target, std::size_t number) {
  std::expected<std::unique_ptr<Connection>, std::string> connection = Connection::open(target, number);
  if (!connection) {
    throw std::runtime_error("connection " + std::to_string(number) + ": " + connection.error());
  }
  epoll_event event{};
  event.events = EPOLLIN | EPOLLOUT | EPOLLET;
  event.data.ptr = connection->get();
  if (::epoll_ctl(epoll_.number(), EPOLL_CTL_ADD, (*connection)->descriptor(), &event) != 0) {
    throw std::system_error(errno, std::generic_category(), "epoll_ctl");
  }
  connections_.push_back(std::move(*connection));
}

std::size_t Crowd::turn() {
  const int count = ::epoll_wait(epoll_.number(), events_.data(), static_cast<int>(events_.size()),
                                 longestWaitMilliseconds);
  std::size_t cameToStand = 0;
  for (int index = 0; index < count; ++index) {
    auto& connection = *static_cast<Connection*>(events_[static_cast<std::size_t>(index)].data.ptr);
    const Connection::State before = connection.state();
    connection.onReady(workspace_);
    if (connection.state() == Connection::State::failed) {
      throw std::runtime_error("a connection failed: " + connection.failure());
    }
    cameToStand += connection.state() == Connection::State::standing && before != connection.state() ? 1 : 0;
  }
  return cameToStand;
}

void Crowd::open(const Target& target, std::size_t first, std::size_t count, std::chrono::seconds patience) {
  const Clock::time_point deadline = Clock::now() + patience;
  connections_.reserve(count);
  std::size_t standing = 0;
  while (standing < count) {
    while (connections_.size() < count && connections_.size() - standing < handshakesAtOnce) {
      add(target, first + connections_.size());
    }
    standing += turn();
    if (Clock::now() > deadline) {
      throw std::runtime_error("only " + std::to_string(standing) + " of " + std::to_string(count) +
                               " connections stand after " + std::to_string(patience.count()) + " s");
    }
  }
}

void Crowd::run(const Load& load, const Schedule& schedule) {
  const Clock::time_point started = Clock::now();
  const std::chrono::nanoseconds processorBefore = processorTime();
  for (const std::unique_ptr<Connection>& connection : connections_) {
    connection->begin(load, workspace_);
    if (connection->state() == Connection::State::failed) {
      throw std::runtime_error("a connection failed: " + connection->failure());
    }
  }
  Clock::time_point now = started;
  while (now < schedule.end) {
    workspace_.measuring = now >= schedule.begin;
    turn();
    now = Clock::now();
  }
  workspace_.measuring = false;
  processorShare_ = std::chrono::duration<double>(processorTime() - processorBefore) /
                    std::chrono::duration<double>(now - started);
}

void Crowd::askAll(const Load& load, std::chrono::seconds patience) {
  const Clock::time_point deadline = Clock::now() + patience;
  workspace_.measuring = true;
  for (const std::unique_ptr<Connection>& connection : connections_) {
    connection->ask(load, workspace_);
  }
  std::size_t answered = 0;
  while (answered < connections_.size()) {
    answered += turn();
    if (Clock::now() > deadline) {
      throw std::runtime_error("only " + std::to_string(answered) + " of " +
                               std::to_string(connections_.size()) + " connections were answered");
    }
  }
  workspace_.measuring = false;
}

std::vector<std::uint64_t> Crowd::requestsOfEach() const {
  std::vector<std::uint64_t> requests(connections_.size());
  std::ranges::transform(connections_, requests.begin(), [](const std::unique_ptr<Connection>& connection) {
    return connection->requests();
  });
  return requests;
}

}  // namespace Bench
