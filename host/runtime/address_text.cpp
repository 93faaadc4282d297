#include "host/runtime/address_text.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <system_error>

namespace Host {

namespace {

using Services::Network::Definitions::IPAddress;

static_assert(IPAddress::familyIPv4 == AF_INET && IPAddress::familyIPv6 == AF_INET6);

/// The number of a scope, which is written as that number or as an interface's name.
std::optional<std::uint32_t> scopeNumber(std::string_view text) {
  std::uint32_t number = 0;
  const char* const start = text.data();
  const char* const end = start + text.size();
  const auto [stop, error] = std::from_chars(start, end, number);
  if (error == std::errc() && stop == end) {
    return number;
  }
  number = if_nametoindex(std::string(text).c_str());
  return number == 0 ? std::nullopt : std::optional(number);
}

std::optional<IPAddress> parseIPv4(std::string_view text) {
  in_addr parsed{};
  if (inet_pton(AF_INET, std::string(text).c_str(), &parsed) != 1) {
    return std::nullopt;
  }
  return IPAddress::ofIPv4(ntohl(parsed.s_addr));
}

std::optional<IPAddress> parseIPv6(std::string_view text) {
  if (text.starts_with('[') && text.ends_with(']')) {
    text = text.substr(1, text.size() - 2);
  }
  IPAddress address;
  address.family = IPAddress::familyIPv6;
  if (const auto percent = text.find('%'); percent != std::string_view::npos) {
    const auto scope = scopeNumber(text.substr(percent + 1));
    if (!scope) {
      return std::nullopt;
    }
    address.scope = *scope;
    text = text.substr(0, percent);
  }
  in6_addr parsed{};
  if (inet_pton(AF_INET6, std::string(text).c_str(), &parsed) != 1) {
    return std::nullopt;
  }
  for (std::size_t i = 0; i < address.groups.size(); ++i) {
    address.groups.at(i) =
        static_cast<std::uint16_t>(parsed.s6_addr[2 * i] << 8U | parsed.s6_addr[2 * i + 1]);
  }
  return address;
}

}  // namespace

IPAddress parseAddress(std::string_view text) {
  // The library functions below would stop at a NUL and take what stands before it.
  if (text.find('\0') != std::string_view::npos) {
    return {};
  }
  if (const auto address = parseIPv4(text)) {
    return *address;
  }
  return parseIPv6(text).value_or(IPAddress());
}

}  // namespace Host
