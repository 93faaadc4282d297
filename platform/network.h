#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/string.h"

namespace Services::Network::Definitions {

/// An IPv4 or IPv6 address. All zero is what no address looks like.
struct IPAddress {
  /// The value of `family` that means IPv4; every other value means IPv6.
  static constexpr std::uint32_t familyIPv4 = 2;
  /// The value of `family` that `parse` gives to an IPv6 address.
  static constexpr std::uint32_t familyIPv6 = 10;

  std::uint32_t family = 0;

  /// The 16 bytes of address storage as numbers of 16 bits. For IPv6 the eight groups, the leftmost in text
  /// first. For IPv4 the first two hold one number of 32 bits, low half first, whose highest byte is the
  /// first octet.
  std::array<std::uint16_t, 8> groups{};

  /// The scope (zone) number of an IPv6 address, 0 if it has none.
  std::uint32_t scope = 0;

  /// Reads an address as people write it: "192.0.2.1", "2001:db8::1", "fe80::1%2" or "fe80::1%eth0" (the
  /// scope as a decimal number or as the name of a local network interface); an IPv6 address may stand in
  /// square brackets. Anything else, an empty Ref included, gives an address that is all zero. Does not block
  /// and asks no name server.
  [[nodiscard]] static IPAddress parse(const Ref<String>& text);

  /// The number of 32 bits made of the group `low` (low half) and the one behind it (high half).
  [[nodiscard]] constexpr std::uint32_t pair(std::size_t low) const {
    return static_cast<std::uint32_t>(groups.at(low)) | static_cast<std::uint32_t>(groups.at(low + 1)) << 16U;
  }

  /// The IPv4 address `number`, whose highest byte is the first octet.
  [[nodiscard]] static constexpr IPAddress ofIPv4(std::uint32_t number) {
    IPAddress address;
    address.family = familyIPv4;
    address.groups[0] = static_cast<std::uint16_t>(number & 0xFFFFU);
    address.groups[1] = static_cast<std::uint16_t>(number >> 16U);
    return address;
  }

  friend bool operator==(const IPAddress&, const IPAddress&) = default;
};

/// An address and a TCP port, 0 if none is given.
struct IPEndpoint {
  IPAddress address;
  std::uint16_t port = 0;

  friend bool operator==(const IPEndpoint&, const IPEndpoint&) = default;
};

}  // namespace Services::Network::Definitions
