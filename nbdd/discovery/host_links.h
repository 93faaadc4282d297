#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Nbdd::Discovery {

/// A network interface by which others in its link can be reached, and its addresses.
struct HostLink {
  std::string name{};
  std::uint32_t index = 0;
  std::vector<std::string> addresses{};  // numeric, without zones

  friend bool operator==(const HostLink&, const HostLink&) = default;
};

/// By the interface's number.
using HostLinks = std::map<std::uint32_t, HostLink>;

/// The host's interfaces that are up and do multicast, loopback left out; only those of `names`, if there are
/// any.
HostLinks hostLinks(std::span<const std::string> names);

/// The names of loopback interfaces.
std::vector<std::string> loopbackNames();

/// The addresses of `link` at which a server is reached that listens on `listening` ("0.0.0.0" and "::": on
/// all). Link-local IPv6 addresses count where there is no other IPv6 one, or where they are named.
std::vector<std::string> reachableAddresses(const HostLink& link, std::span<const std::string> listening);

/// Whether a server in the network can have this numeric address (with or without a zone): not one that means
/// this very host, nobody, or everybody. Who announces such a one is mistaken, or wants us to ask ourselves.
bool isAddressOfAHost(std::string_view address);

}  // namespace Nbdd::Discovery
