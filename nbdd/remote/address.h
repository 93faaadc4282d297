#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <expected>
#include <string>
#include <vector>

#include "control/failure.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/signal.h"
#include "nbdd/io/task.h"

namespace Nbdd::Remote {

/// An address that a socket can be connected to.
struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t length = 0;

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

using Addresses = std::expected<std::vector<SocketAddress>, Control::Failure>;

/// The address that `host` is ("192.0.2.7", "2001:db8::1", "fe80::1%2"), or nothing if it is none. Does not
/// wait.
std::vector<SocketAddress> parseAddress(const std::string& host, std::uint16_t port);

/// Looks the addresses of a host's name up, which may take as long as the resolver likes, on a thread aside.
/// The thread goes on, for nobody, when this is destroyed before.
class Lookup {
 public:
  /// Starts it. `wake` is notified on the loop's thread when there is a result; both outlive this.
  Lookup(Io::EventLoop& loop, Io::Signal& wake, std::string host, std::uint16_t port);
  Lookup(const Lookup&) = delete;
  Lookup& operator=(const Lookup&) = delete;
  ~Lookup();

  bool done() const;
  Addresses take();

 private:
  struct Shared;
  std::shared_ptr<Shared> shared_;
};

}  // namespace Nbdd::Remote
