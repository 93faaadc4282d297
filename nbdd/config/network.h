#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Nbdd {

/// The address of a host, of either family. An IPv4 address that came as an IPv6 one (::ffff:192.0.2.1) is an
/// IPv4 address: whoever is let in or kept out is so by both forms.
class HostAddress {
 public:
  /// Reads "192.0.2.1", "2001:db8::1", "::ffff:192.0.2.1"; what stands behind a '%' is not looked at. Nothing
  /// if it is no address.
  static std::optional<HostAddress> parse(std::string_view text);

  bool isIpv4() const { return ipv4_; }
  /// Canonical text.
  std::string text() const;

  friend bool operator==(const HostAddress&, const HostAddress&) = default;

 private:
  friend class Network;

  std::array<std::uint8_t, 16> bytes_{};  // of an IPv4 address the first four
  bool ipv4_ = false;
};

/// All addresses that begin alike: "192.0.2.0/24", "2001:db8::/32".
class Network {
 public:
  /// Reads a network, or one address, which is a network by itself. An IPv4 network may be written as an IPv6
  /// one. Nothing if it is none, or if bits behind the prefix are set: whoever wrote that meant something
  /// else.
  static std::optional<Network> parse(std::string_view text);

  bool contains(const HostAddress& address) const;
  /// Canonical text, which `parse` reads as the same.
  std::string text() const;

  friend bool operator==(const Network&, const Network&) = default;

 private:
  HostAddress base_;
  unsigned int length_ = 0;  // bits of the prefix
};

/// The networks from which clients may come. Without any, from everywhere.
using AllowList = std::vector<Network>;
bool admits(const AllowList& list, const HostAddress& address);

}  // namespace Nbdd
