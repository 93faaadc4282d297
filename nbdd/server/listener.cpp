#include "nbdd/server/listener.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "nbdd/io/listening.h"
#include "nbdd/limits.h"
#include "nbdd/log/log.h"

namespace Nbdd {

namespace {

using Control::Failure;
using Control::FailureCode;

constexpr std::chrono::seconds acceptPause{1};
constexpr int acceptsPerTurn = 64;
constexpr int freePortAttempts = 16;

const sockaddr_in& asIpv4(const sockaddr_storage& address) {
  return reinterpret_cast<const sockaddr_in&>(address);
}
const sockaddr_in6& asIpv6(const sockaddr_storage& address) {
  return reinterpret_cast<const sockaddr_in6&>(address);
}

void setPort(sockaddr_storage& address, std::uint16_t port) {
  if (address.ss_family == AF_INET) {
    reinterpret_cast<sockaddr_in&>(address).sin_port = htons(port);
  } else {
    reinterpret_cast<sockaddr_in6&>(address).sin6_port = htons(port);
  }
}

socklen_t lengthOf(const sockaddr_storage& address) {
  return address.ss_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

bool isWildcard(const sockaddr_storage& address) {
  return address.ss_family == AF_INET ? asIpv4(address).sin_addr.s_addr == htonl(INADDR_ANY)
                                      : IN6_IS_ADDR_UNSPECIFIED(&asIpv6(address).sin6_addr) != 0;
}

bool isSameHost(const sockaddr_storage& one, const sockaddr_storage& other) {
  if (one.ss_family != other.ss_family) {
    return false;
  }
  if (one.ss_family == AF_INET) {
    return asIpv4(one).sin_addr.s_addr == asIpv4(other).sin_addr.s_addr;
  }
  return IN6_ARE_ADDR_EQUAL(&asIpv6(one).sin6_addr, &asIpv6(other).sin6_addr) &&
         asIpv6(one).sin6_scope_id == asIpv6(other).sin6_scope_id;
}

std::expected<sockaddr_storage, Failure> parseAddress(const std::string& text) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_PASSIVE;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(text.c_str(), nullptr, &hints, &found) != 0) {
    return std::unexpected(
        Failure{FailureCode::addressNotAvailable,
                fmt::format("\"{}\" is no IP address of this host to listen on", escaped(text))});
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, &::freeaddrinfo);
  sockaddr_storage address{};
  std::memcpy(&address, found->ai_addr, std::min<std::size_t>(found->ai_addrlen, sizeof address));
  return address;
}

Failure listenFailure(int error, const sockaddr_storage& address) {
  const Control::Endpoint endpoint = endpointOf(address);
  const std::string where = address.ss_family == AF_INET
                                ? fmt::format("{}:{}", endpoint.address, endpoint.port)
                                : fmt::format("[{}]:{}", endpoint.address, endpoint.port);
  switch (error) {
    case EADDRINUSE:
      return {FailureCode::portInUse, fmt::format("{} is taken by another program", where)};
    case EADDRNOTAVAIL:
    case ENODEV:
      return {FailureCode::addressNotAvailable,
              fmt::format("this host has no address to listen on as {}", where)};
    case EACCES:
    case EPERM:
      return {FailureCode::listenDenied, fmt::format("no privilege to listen on {}", where)};
    default:
      return {FailureCode::listenFailed,
              fmt::format("cannot listen on {}: {}", where, std::generic_category().message(error))};
  }
}

/// A socket that listens on `address`, or an errno.
std::expected<Io::FileDescriptor, int> listenOn(const sockaddr_storage& address) {
  Io::FileDescriptor socket(::socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) {
    return std::unexpected(errno);
  }
  const int on = 1;
  // IPv4 has a socket of its own, so that IPv4 clients show as such.
  if (::setsockopt(socket.number(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      (address.ss_family == AF_INET6 &&
       ::setsockopt(socket.number(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) != 0) ||
      ::bind(socket.number(), reinterpret_cast<const sockaddr*>(&address), lengthOf(address)) != 0 ||
      ::listen(socket.number(), Limits::listenBacklog) != 0) {
    return std::unexpected(errno);
  }
  return socket;
}

// How a connection paces what it sends is for a path between hosts. Within one host there is none, and a
// congestion control that paces by timers (bbr, the default of some systems) more than halves the speed of
// large reads. A socket that once paced goes on doing so, whatever it is told later: listeners begin without,
// and the connections of other hosts get the system's choice when they are accepted.

/// The system's choice of congestion control, if it paces: `listener` no longer follows it then. Else empty.
std::string leaveCongestionControl(int listener) {
  // As long as the kernel's own names (TCP_CA_NAME_MAX). Every system has reno, and allows it to everybody.
  std::array<char, 16> name{};
  socklen_t length = name.size() - 1;
  if (::getsockopt(listener, IPPROTO_TCP, TCP_CONGESTION, name.data(), &length) != 0) {
    return {};
  }
  if (!std::string_view(name.data()).starts_with("bbr")) {
    return {};
  }
  constexpr std::string_view withoutPacing = "reno";
  ::setsockopt(listener, IPPROTO_TCP, TCP_CONGESTION, withoutPacing.data(), withoutPacing.size());
  return name.data();
}

bool isLoopback(const sockaddr_storage& address) {
  return address.ss_family == AF_INET ? (ntohl(asIpv4(address).sin_addr.s_addr) >> 24U) == IN_LOOPBACKNET
                                      : IN6_IS_ADDR_LOOPBACK(&asIpv6(address).sin6_addr) != 0;
}

/// Whether the connection stays within this host.
bool isLocal(int socket, const sockaddr_storage& peer) {
  sockaddr_storage own{};
  socklen_t length = sizeof own;
  return isLoopback(peer) ||
         (::getsockname(socket, reinterpret_cast<sockaddr*>(&own), &length) == 0 && isSameHost(own, peer));
}

void prepareConnection(int socket, const sockaddr_storage& peer, const std::string& congestionControl) {
  if (!congestionControl.empty() && !isLocal(socket, peer)) {
    ::setsockopt(socket, IPPROTO_TCP, TCP_CONGESTION, congestionControl.data(),
                 static_cast<socklen_t>(congestionControl.size()));
  }
  const int on = 1;
  ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  // A client whose host vanished without a word is noticed after some two minutes.
  const int idleSeconds = 60;
  const int intervalSeconds = 15;
  const int probes = 4;
  ::setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
  ::setsockopt(socket, IPPROTO_TCP, TCP_KEEPIDLE, &idleSeconds, sizeof idleSeconds);
  ::setsockopt(socket, IPPROTO_TCP, TCP_KEEPINTVL, &intervalSeconds, sizeof intervalSeconds);
  ::setsockopt(socket, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
}

}  // namespace

Control::Endpoint endpointOf(const sockaddr_storage& address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (address.ss_family == AF_INET) {
    ::inet_ntop(AF_INET, &asIpv4(address).sin_addr, text.data(), text.size());
    return {.address = text.data(), .port = ntohs(asIpv4(address).sin_port)};
  }
  const sockaddr_in6& ipv6 = asIpv6(address);
  ::inet_ntop(AF_INET6, &ipv6.sin6_addr, text.data(), text.size());
  std::string host = text.data();
  if (ipv6.sin6_scope_id != 0) {
    host += fmt::format("%{}", ipv6.sin6_scope_id);
  }
  return {.address = std::move(host), .port = ntohs(ipv6.sin6_port)};
}

std::expected<std::unique_ptr<Listener>, Failure> Listener::open(Io::EventLoop& loop,
                                                                 const ListenConfiguration& configuration,
                                                                 Accepted accepted) {
  std::vector<std::string> texts = configuration.addresses;
  const bool everywhere = texts.empty();
  if (everywhere) {
    texts = {"0.0.0.0", "::"};
  }
  std::vector<sockaddr_storage> addresses;
  for (const std::string& text : texts) {
    const std::expected<sockaddr_storage, Failure> address = parseAddress(text);
    if (!address) {
      return std::unexpected(address.error());
    }
    addresses.push_back(*address);
  }
  if (everywhere && !Io::FileDescriptor(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0))) {
    addresses.pop_back();  // a host without IPv6 is reached everywhere by IPv4
  }
  std::uint16_t port = configuration.port;
  std::expected<std::vector<Socket>, Failure> sockets = bindAll(addresses, port);
  // Asked for any port, the first address picks one that may be taken on another.
  for (int attempt = 1; !sockets && configuration.port == 0 &&
                        sockets.error().code == FailureCode::portInUse && attempt < freePortAttempts;
       ++attempt) {
    port = 0;
    sockets = bindAll(addresses, port);
  }
  if (!sockets) {
    return std::unexpected(sockets.error());
  }
  auto listener =
      std::unique_ptr<Listener>(new Listener(loop, std::move(*sockets), port, std::move(accepted)));
  if (const int error = listener->watchAll(); error != 0) {
    return std::unexpected(
        Failure{FailureCode::listenFailed,
                fmt::format("cannot wait for connections: {}", std::generic_category().message(error))});
  }
  return listener;
}

std::expected<std::vector<Listener::Socket>, Failure> Listener::bindAll(
    const std::vector<sockaddr_storage>& addresses, std::uint16_t& port) {
  std::vector<Socket> sockets;
  for (sockaddr_storage address : addresses) {
    setPort(address, port);
    std::expected<Io::FileDescriptor, int> descriptor = listenOn(address);
    if (!descriptor) {
      return std::unexpected(listenFailure(descriptor.error(), address));
    }
    socklen_t length = sizeof address;
    ::getsockname(descriptor->number(), reinterpret_cast<sockaddr*>(&address), &length);
    port = endpointOf(address).port;
    std::string congestionControl = leaveCongestionControl(descriptor->number());
    sockets.push_back({.descriptor = std::move(*descriptor),
                       .address = address,
                       .congestionControl = std::move(congestionControl)});
  }
  return sockets;
}

Listener::Listener(Io::EventLoop& loop, std::vector<Socket> sockets, std::uint16_t port, Accepted accepted)
    : loop_(loop),
      sockets_(std::move(sockets)),
      port_(port),
      accepted_(std::move(accepted)),
      resume_(loop, [this] {
        if (watchAll() != 0) {
          resume_.start(acceptPause);
        }
      }) {}

Listener::~Listener() { unwatchAll(); }

int Listener::watchAll() {
  for (const Socket& socket : sockets_) {
    if (const int error = loop_.watch(socket.descriptor.number(), EPOLLIN, *this);
        error != 0 && error != EEXIST) {
      return error;
    }
  }
  return 0;
}

void Listener::unwatchAll() {
  for (const Socket& socket : sockets_) {
    loop_.unwatch(socket.descriptor.number(), *this);
  }
}

void Listener::onEvents(std::uint32_t /*events*/) {
  for (const Socket& socket : sockets_) {
    if (!acceptFrom(socket)) {
      // Out of descriptors or memory. Trying again at once would only burn the processor.
      unwatchAll();
      resume_.start(acceptPause);
      return;
    }
  }
}

/// Accepts what waits. False: the system has nothing left to accept it with.
bool Listener::acceptFrom(const Socket& socket) {
  for (int count = 0; count < acceptsPerTurn; ++count) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    Io::FileDescriptor connection(::accept4(socket.descriptor.number(), reinterpret_cast<sockaddr*>(&peer),
                                            &length, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!connection) {
      const int error = errno;
      if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
        if (!Io::isConnectionWaiting(socket.descriptor.number())) {
          return true;
        }
        log(LogLevel::warning, "accept-failed", "cannot accept connections for now: {}",
            std::generic_category().message(error));
        return false;
      }
      if (error == EAGAIN || error == EWOULDBLOCK) {
        return true;
      }
      continue;  // this one was gone before it was accepted
    }
    prepareConnection(connection.number(), peer, socket.congestionControl);
    accepted_(std::move(connection), endpointOf(peer));
  }
  return true;
}

bool Listener::reaches(const sockaddr_storage& hostAddress) const {
  return std::ranges::any_of(sockets_, [&](const Socket& socket) {
    return socket.address.ss_family == hostAddress.ss_family &&
           (isWildcard(socket.address) || isSameHost(socket.address, hostAddress));
  });
}

std::vector<Control::Endpoint> Listener::addresses() const {
  std::vector<Control::Endpoint> addresses;
  addresses.reserve(sockets_.size());
  for (const Socket& socket : sockets_) {
    addresses.push_back(endpointOf(socket.address));
  }
  return addresses;
}

std::vector<Control::NetIfFirewallState> Listener::endpoints() const {
  ifaddrs* first = nullptr;
  if (::getifaddrs(&first) != 0) {
    return {};
  }
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(first, &::freeifaddrs);
  std::vector<Control::NetIfFirewallState> endpoints;
  for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || (entry->ifa_flags & IFF_UP) == 0 ||
        (entry->ifa_flags & IFF_LOOPBACK) != 0) {
      continue;
    }
    sockaddr_storage address{};
    if (entry->ifa_addr->sa_family == AF_INET) {
      std::memcpy(&address, entry->ifa_addr, sizeof(sockaddr_in));
    } else if (entry->ifa_addr->sa_family == AF_INET6) {
      std::memcpy(&address, entry->ifa_addr, sizeof(sockaddr_in6));
    } else {
      continue;
    }
    if (reaches(address)) {
      setPort(address, port_);
      endpoints.push_back({.endpoint = endpointOf(address), .interface = entry->ifa_name});
    }
  }
  return endpoints;
}

}  // namespace Nbdd
