#pragma once

#include <netinet/in.h>

#include <expected>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "control/failure.h"
#include "control/records.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/file_descriptor.h"
#include "nbdd/server/server.h"

namespace Nbdd {

/// A socket address as text, for records and messages: numeric, with the scope's number behind an IPv6
/// link-local one.
Control::Endpoint endpointOf(const sockaddr_storage& address);

/// The listening sockets of the server. Accepts connections and hands them on. The control loop's thread.
class Listener final : private Io::EventHandler {
 public:
  using Accepted = std::move_only_function<void(Io::FileDescriptor socket, Control::Endpoint peer)>;

  /// Listens on every address of `configuration`, or fails and listens on none.
  static std::expected<std::unique_ptr<Listener>, Control::Failure> open(
      Io::EventLoop& loop, const ListenConfiguration& configuration, Accepted accepted);
  ~Listener() override;

  std::uint16_t port() const { return port_; }
  /// The sockets' own addresses.
  std::vector<Control::Endpoint> addresses() const;
  /// Where other hosts reach these sockets now.
  std::vector<Control::NetIfFirewallState> endpoints() const;

 private:
  struct Socket {
    Io::FileDescriptor descriptor;
    sockaddr_storage address;
    std::string congestionControl;  // for connections of other hosts; empty: as they come
  };

  Listener(Io::EventLoop& loop, std::vector<Socket> sockets, std::uint16_t port, Accepted accepted);

  static std::expected<std::vector<Socket>, Control::Failure> bindAll(
      const std::vector<sockaddr_storage>& addresses, std::uint16_t& port);
  bool reaches(const sockaddr_storage& hostAddress) const;
  int watchAll();
  void unwatchAll();
  void onEvents(std::uint32_t events) override;
  bool acceptFrom(const Socket& socket);

  Io::EventLoop& loop_;
  std::vector<Socket> sockets_;
  std::uint16_t port_;
  Accepted accepted_;
  Io::Timer resume_;
};

}  // namespace Nbdd
