#include "nbdd/config/network.h"

#include <arpa/inet.h>
#include <fmt/core.h>

#include <algorithm>
#include <charconv>
#include <memory>

namespace Nbdd {

namespace {

constexpr unsigned int ipv4Bits = 32;
constexpr unsigned int ipv6Bits = 128;
constexpr unsigned int mappedBits = ipv6Bits - ipv4Bits;  // of ::ffff:0:0/96

bool isMapped(const std::array<std::uint8_t, 16>& bytes) {
  constexpr std::array<std::uint8_t, 12> prefix{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  return std::equal(prefix.begin(), prefix.end(), bytes.begin());
}

std::array<std::uint8_t, 16> unmapped(const std::array<std::uint8_t, 16>& bytes) {
  std::array<std::uint8_t, 16> ipv4{};
  std::copy(bytes.begin() + 12, bytes.end(), ipv4.begin());
  return ipv4;
}

/// Whether the first `length` bits are the same.
bool beginAlike(const std::array<std::uint8_t, 16>& one, const std::array<std::uint8_t, 16>& other,
                unsigned int length) {
  const unsigned int whole = length / 8;
  if (!std::equal(one.begin(), one.begin() + whole, other.begin())) return false;
  const unsigned int rest = length % 8;
  return rest == 0 || ((one[whole] ^ other[whole]) >> (8 - rest)) == 0;
}

bool isZeroBehind(const std::array<std::uint8_t, 16>& bytes, unsigned int length) {
  for (unsigned int bit = length; bit < ipv6Bits; ++bit) {
    if ((bytes[bit / 8] >> (7 - bit % 8) & 1) != 0) return false;
  }
  return true;
}

/// The bytes as they are written, IPv4 or IPv6. Nothing if it is no address.
std::optional<std::array<std::uint8_t, 16>> readBytes(std::string_view text, bool& ipv4) {
  const std::string terminated(text);
  if (terminated.find('\0') != std::string::npos) return std::nullopt;
  std::array<std::uint8_t, 16> bytes{};
  ipv4 = ::inet_pton(AF_INET, terminated.c_str(), bytes.data()) == 1;
  if (!ipv4 && ::inet_pton(AF_INET6, terminated.c_str(), bytes.data()) != 1) return std::nullopt;
  return bytes;
}

}  // namespace

std::optional<HostAddress> HostAddress::parse(std::string_view text) {
  HostAddress address;
  const auto bytes = readBytes(text.substr(0, text.find('%')), address.ipv4_);
  if (!bytes) return std::nullopt;
  const bool mapped = !address.ipv4_ && isMapped(*bytes);
  address.bytes_ = mapped ? unmapped(*bytes) : *bytes;
  address.ipv4_ = address.ipv4_ || mapped;
  return address;
}

std::string HostAddress::text() const {
  std::array<char, INET6_ADDRSTRLEN> text{};
  ::inet_ntop(ipv4_ ? AF_INET : AF_INET6, bytes_.data(), text.data(), text.size());
  return text.data();
}

std::optional<Network> Network::parse(std::string_view text) {
  const std::size_t slash = text.find('/');
  Network network;
  const auto bytes = readBytes(text.substr(0, slash), network.base_.ipv4_);
  if (!bytes) return std::nullopt;
  const unsigned int bits = network.base_.ipv4_ ? ipv4Bits : ipv6Bits;
  network.length_ = bits;
  if (slash != std::string_view::npos) {
    const std::string_view digits = text.substr(slash + 1);
    const char* const end = std::to_address(digits.end());
    const auto [stopped, error] = std::from_chars(std::to_address(digits.begin()), end, network.length_);
    if (error != std::errc{} || stopped != end || network.length_ > bits) return std::nullopt;
  }
  network.base_.bytes_ = *bytes;
  if (!network.base_.ipv4_ && isMapped(*bytes) && network.length_ >= mappedBits) {
    network.base_.bytes_ = unmapped(*bytes);
    network.base_.ipv4_ = true;
    network.length_ -= mappedBits;
  }
  if (!isZeroBehind(network.base_.bytes_, network.length_)) return std::nullopt;
  return network;
}

bool Network::contains(const HostAddress& address) const {
  return address.ipv4_ == base_.ipv4_ && beginAlike(address.bytes_, base_.bytes_, length_);
}

std::string Network::text() const { return fmt::format("{}/{}", base_.text(), length_); }

bool admits(const AllowList& list, const HostAddress& address) {
  return list.empty() ||
         std::ranges::any_of(list, [&](const Network& network) { return network.contains(address); });
}

}  // namespace Nbdd
