#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <cstdlib>
#include <expected>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <utility>

#include "nbdd/io/event_loop.h"
#include "nbdd/io/scope.h"
#include "nbdd/io/stream.h"
#include "nbdd/io/thread_pool.h"
#include "nbdd/tls/handshake.h"

namespace Nbdd::Tls {

using Shaken = std::expected<Peer, std::string>;

/// The two ends of a connection on one loop, and keys to secure it with.
class SecuredPair : public ::testing::Test {
 protected:
  SecuredPair() {
    char place[] = "/tmp/tls-test-XXXXXX";
    if (::mkdtemp(place) == nullptr) std::abort();
    directory_ = place;
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) != 0) std::abort();
    // So little that much of what is sent has to wait.
    const int size = 32 * 1024;
    for (const int end : ends) ::setsockopt(end, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    server_.emplace(loop_, Io::FileDescriptor(ends[0]));
    client_.emplace(loop_, Io::FileDescriptor(ends[1]));
  }
  ~SecuredPair() override { std::filesystem::remove_all(directory_); }

  std::string keyFile(const std::string& name, char digit) const {
    const std::string file = (directory_ / (name + digit)).native();
    std::ofstream(file) << name << ':' << std::string(64, digit) << '\n';
    return file;
  }
  std::shared_ptr<const Credentials> serverCredentials(ServerSettings settings = {}) const {
    settings.mode = Nbd::TlsMode::required;
    settings.keys = keyFile("alice", 'a');
    return Credentials::load(settings).value();
  }
  std::shared_ptr<const Credentials> clientCredentials(char digit = 'a',
                                                       const std::string& user = "alice") const {
    return Credentials::load(ImportSettings{.mode = Nbd::TlsMode::required,
                                            .directory = {},
                                            .keys = keyFile(user, digit),
                                            .user = user})
        .value();
  }

  static Io::Task<void> shake(Io::Stream& stream, std::optional<Aside> aside,
                              std::shared_ptr<const Credentials> credentials, std::optional<Shaken>& result) {
    auto shaking = shakeHands(stream, std::move(aside), std::move(credentials));
    result = co_await shaking;
    if (!*result) stream.shutDown();
  }
  Aside aside() { return {.pool = pool_, .deadline = deadline_, .givenUp = givenUp_.get_token()}; }
  /// Makes both handshakes, the server's on a pool.
  std::pair<Shaken, Shaken> shakeBoth(std::shared_ptr<const Credentials> server,
                                      std::shared_ptr<const Credentials> client) {
    std::optional<Shaken> servers;
    std::optional<Shaken> clients;
    scope_.spawn(shake(*server_, aside(), std::move(server), servers));
    scope_.spawn(shake(*client_, std::nullopt, std::move(client), clients));
    runAll();
    return {std::move(*servers), std::move(*clients)};
  }

  /// Runs the loop until all that was spawned has ended.
  void runAll() {
    stopping_.spawn(stopWhenDone());
    loop_.run();
  }
  Io::Task<void> stopWhenDone() {
    Io::Scope::Joined joined = scope_.join();
    co_await joined;
    loop_.stop();
  }

  std::filesystem::path directory_;
  Io::EventLoop loop_;
  Io::Timer deadline_{loop_, [this] {
                        late_ = true;
                        server_->interruptReading();
                      }};
  bool late_ = false;  // the deadline has passed
  std::stop_source givenUp_;
  Io::ThreadPool pool_{1};
  Io::Scope scope_;
  Io::Scope stopping_;
  std::optional<Io::Stream> server_;
  std::optional<Io::Stream> client_;
};

}  // namespace Nbdd::Tls
