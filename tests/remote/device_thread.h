#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "nbdd/io/event_loop.h"
#include "nbdd/io/scope.h"
#include "nbdd/remote/device.h"

namespace Nbdd::Remote {

/// A device on a thread of its own, for tests that block.
class DeviceThread {
 public:
  static constexpr std::chrono::seconds patience{20};

  explicit DeviceThread(Device::Options options, std::function<void(Request&)> takeOver = {})
      : device_(
            loop_, std::move(options),
            {.connected = [this] { note([](Seen& seen) { seen.connected++; }); },
             .waiting =
                 [this](const Control::Failure& why) {
                   note([&](Seen& seen) { seen.waiting.push_back(why); });
                 },
             .failed = [this](const Control::Failure& why) { note([&](Seen& seen) { seen.failed = why; }); },
             .takeOver = std::move(takeOver)}),
        thread_([this] { loop_.run(); }) {
    loop_.post([this] { device_.start(); });
  }
  ~DeviceThread() {
    loop_.post([this] { scope_.spawn(end()); });
    thread_.join();
  }
  DeviceThread(const DeviceThread&) = delete;
  DeviceThread& operator=(const DeviceThread&) = delete;

  struct Seen {
    int connected = 0;
    std::vector<Control::Failure> waiting;
    std::optional<Control::Failure> failed;
  };
  /// Waits until what the device has told makes `condition` true; false if it does not in time.
  bool await(const std::function<bool(const Seen&)>& condition, std::chrono::milliseconds limit = patience) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return condition(seen_); });
  }
  bool awaitConnected(int times = 1) {
    return await([=](const Seen& seen) { return seen.connected >= times; });
  }
  Seen seen() {
    const std::lock_guard lock(mutex_);
    return seen_;
  }

  /// A request that was asked and is answered some time.
  class Asked final : public Request {
    std::promise<Nbd::Error> promise_;

   public:
    void done(Nbd::Error error) override { promise_.set_value(error); }
    std::future<Nbd::Error> answer = promise_.get_future();
    std::vector<std::byte> memory;
    std::vector<Nbd::Extent> found;
  };
  std::unique_ptr<Asked> ask(Nbd::Command command, std::uint64_t offset, std::uint32_t length,
                             std::uint16_t flags = 0, std::byte fill = std::byte{0xee}) {
    auto asked = std::make_unique<Asked>();
    asked->command = command;
    asked->offset = offset;
    asked->length = length;
    asked->flags = flags;
    asked->memory.assign(length, fill);
    if (command == Nbd::Command::read) asked->destination = asked->memory;
    if (command == Nbd::Command::write) asked->payload = asked->memory;
    if (command == Nbd::Command::blockStatus) asked->extents = &asked->found;
    loop_.post([this, request = asked.get()] { device_.submit(*request); });
    return asked;
  }
  static std::optional<Nbd::Error> result(Asked& asked, std::chrono::milliseconds limit = patience) {
    if (asked.answer.wait_for(limit) != std::future_status::ready) return std::nullopt;
    return asked.answer.get();
  }
  /// Asks and waits; an answer that never comes is `perm`, which no test expects.
  Nbd::Error request(Nbd::Command command, std::uint64_t offset, std::uint32_t length,
                     std::uint16_t flags = 0, std::byte fill = std::byte{0xee}) {
    const auto asked = ask(command, offset, length, flags, fill);
    const auto answer = result(*asked);
    if (!answer) std::abort();  // the request is still in the device's hands
    return *answer;
  }

  /// Runs what uses the device on its thread; it has to end by itself, before or soon after this does.
  void spawn(std::function<Io::Task<void>(Io::EventLoop&, Device&)> user) {
    loop_.post([this, user = std::move(user)] { users_.spawn(user(loop_, device_)); });
  }

  void stop() {
    loop_.post([this] { device_.stop(); });
  }
  template <class Function>
  auto onLoop(Function function) {
    std::promise<decltype(function(device_))> result;
    loop_.post([&] { result.set_value(function(device_)); });
    return result.get_future().get();
  }

 private:
  void note(const std::function<void(Seen&)>& change) {
    {
      const std::lock_guard lock(mutex_);
      change(seen_);
    }
    changed_.notify_all();
  }
  Io::Task<void> end() {
    device_.stop();
    Io::Scope::Joined stopped = device_.stopped();
    co_await stopped;
    Io::Scope::Joined joined = users_.join();
    co_await joined;
    loop_.stop();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  Seen seen_;
  Io::EventLoop loop_;
  Device device_;
  Io::Scope scope_;
  Io::Scope users_;
  std::thread thread_;
};

}  // namespace Nbdd::Remote
