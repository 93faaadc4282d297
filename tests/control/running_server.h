#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

#include "control/client.h"
#include "nbdd/control/control_server.h"
#include "nbdd/control/listening_socket.h"
#include "tests/control/fake_service.h"

namespace Control::Testing {

/// A directory of its own, gone at the end.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string name = "/tmp/talvek-control-XXXXXX";
    path_ = ::mkdtemp(name.data());
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory() { std::filesystem::remove_all(path_); }

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

/// A control server with a fake service, on a thread of its own.
class RunningServer {
 public:
  RunningServer() : RunningServer(Nbdd::ControlAccess{.owner = ::geteuid(), .group = {}}) {}

  explicit RunningServer(Nbdd::ControlAccess access) : access_(access) { start(); }
  RunningServer(const RunningServer&) = delete;
  RunningServer& operator=(const RunningServer&) = delete;
  ~RunningServer() { stop(); }

  std::string path() const { return directory_.path() + "/socket"; }

  Client connect() const {
    auto client = Client::connect(path(), Client::Clock::now() + std::chrono::seconds(10));
    if (!client) std::abort();
    client->setTimeout(std::chrono::seconds(30));
    return std::move(*client);
  }

  /// Runs `function` on the server's thread and gives what it gives.
  template <class Function>
  auto onThread(Function function) -> decltype(function()) {
    std::packaged_task<decltype(function())()> task(std::move(function));
    auto result = task.get_future();
    loop_.post([&task] { task(); });
    return result.get();
  }

  std::vector<std::string> calls() {
    return onThread([this] { return service_.calls; });
  }
  std::size_t connections() {
    return onThread([this] { return server_->connections(); });
  }
  /// The fake service; use it on the server's thread only.
  FakeService& service() { return service_; }

  void start() {
    auto listener = Nbdd::listenOnControlSocket(path(), {});
    if (!listener) std::abort();
    Identity identity{.vendor = "Talvek", .product = "nbdd", .version = "1", .url = "https://example.org"};
    server_.emplace(loop_, service_, identity, std::move(*listener), access_);
    thread_ = std::thread([this] { loop_.run(); });
  }

  /// Asks the server to stop and waits until it has.
  void stop() {
    if (!thread_.joinable()) return;
    Nbdd::Io::Scope stopping;
    loop_.post([this, &stopping] { stopping.spawn(stopAll(*this)); });
    thread_.join();
    server_.reset();
  }

 private:
  static Nbdd::Io::Task<void> stopAll(RunningServer& self) {
    auto stopped = self.server_->stop();
    co_await stopped;
    self.loop_.stop();
  }

  TemporaryDirectory directory_;
  Nbdd::ControlAccess access_;
  FakeService service_;
  Nbdd::Io::EventLoop loop_;
  std::optional<Nbdd::ControlServer> server_;
  std::thread thread_;
};

}  // namespace Control::Testing
