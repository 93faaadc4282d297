#include "nbdd/discovery/host_links.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string_view>

namespace Nbdd::Discovery {

namespace {

using Addresses = std::unique_ptr<ifaddrs, decltype([](ifaddrs* list) { ::freeifaddrs(list); })>;

Addresses hostAddresses() {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return nullptr;
  return Addresses(list);
}

/// The numeric text of an IPv4 or IPv6 address; empty for any other.
std::string numericAddress(const sockaddr* address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const void* octets = nullptr;
  if (address != nullptr && address->sa_family == AF_INET) {
    octets = &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
  } else if (address != nullptr && address->sa_family == AF_INET6) {
    octets = &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
  }
  if (octets == nullptr || ::inet_ntop(address->sa_family, octets, text.data(), text.size()) == nullptr)
    return {};
  return text.data();
}

bool isLinkLocal(std::string_view address) {
  in6_addr octets{};
  return ::inet_pton(AF_INET6, std::string(address).c_str(), &octets) == 1 && IN6_IS_ADDR_LINKLOCAL(&octets);
}

}  // namespace

HostLinks hostLinks(std::span<const std::string> names) {
  constexpr unsigned int wanted = IFF_UP | IFF_MULTICAST;
  HostLinks links;
  const Addresses list = hostAddresses();
  for (const ifaddrs* each = list.get(); each != nullptr; each = each->ifa_next) {
    if ((each->ifa_flags & (wanted | IFF_LOOPBACK | IFF_POINTOPOINT)) != wanted) continue;
    if (!names.empty() && std::ranges::find(names, each->ifa_name) == names.end()) continue;
    const std::string address = numericAddress(each->ifa_addr);
    const std::uint32_t index = ::if_nametoindex(each->ifa_name);
    if (address.empty() || index == 0) continue;
    HostLink& link = links[index];
    link.name = each->ifa_name;
    link.index = index;
    if (std::ranges::find(link.addresses, address) == link.addresses.end()) link.addresses.push_back(address);
  }
  return links;
}

std::vector<std::string> loopbackNames() {
  std::vector<std::string> names;
  const Addresses list = hostAddresses();
  for (const ifaddrs* each = list.get(); each != nullptr; each = each->ifa_next) {
    if ((each->ifa_flags & IFF_LOOPBACK) == 0) continue;
    if (std::ranges::find(names, each->ifa_name) == names.end()) names.emplace_back(each->ifa_name);
  }
  return names;
}

bool isAddressOfAHost(std::string_view address) {
  const std::string numeric(address.substr(0, address.find('%')));
  in_addr four{};
  if (::inet_pton(AF_INET, numeric.c_str(), &four) == 1) {
    const std::uint32_t number = ntohl(four.s_addr);
    // 0.0.0.0/8 is this network, 127.0.0.0/8 this host, and from 224.0.0.0 on all are groups or reserved.
    return number >> 24 != 0 && number >> 24 != 127 && number >> 28 < 0xE;
  }
  in6_addr six{};
  if (::inet_pton(AF_INET6, numeric.c_str(), &six) != 1) return false;
  return !IN6_IS_ADDR_UNSPECIFIED(&six) && !IN6_IS_ADDR_LOOPBACK(&six) && !IN6_IS_ADDR_MULTICAST(&six) &&
         !IN6_IS_ADDR_V4MAPPED(&six) && !IN6_IS_ADDR_V4COMPAT(&six);
}

std::vector<std::string> reachableAddresses(const HostLink& link, std::span<const std::string> listening) {
  const auto listens = [&](std::string_view address) {
    return std::ranges::find(listening, address) != listening.end();
  };
  const bool globalIpv6 = std::ranges::any_of(link.addresses, [](const std::string& address) {
    return address.find(':') != std::string::npos && !isLinkLocal(address);
  });
  std::vector<std::string> reachable;
  for (const std::string& address : link.addresses) {
    const bool ipv6 = address.find(':') != std::string::npos;
    const bool any = listens(ipv6 ? "::" : "0.0.0.0") && !(globalIpv6 && isLinkLocal(address));
    const bool named = listens(address) || listens(address + "%" + link.name) ||
                       listens(address + "%" + std::to_string(link.index));
    if (any || named) reachable.push_back(address);
  }
  return reachable;
}

}  // namespace Nbdd::Discovery
