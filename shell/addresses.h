#pragma once

#include <cstdint>

#include "platform/char_printer.h"
#include "platform/network.h"
#include "platform/string.h"

/// The text forms of network addresses.
namespace Shell {

using Services::Network::Definitions::IPAddress;
using Services::Network::Definitions::IPEndpoint;

/// Prints four bytes as an IPv4 address, from `byte3` down to `byte0`, and returns the printer.
Ref<CharPrinter> printIPv4(std::uint8_t byte0, std::uint8_t byte1, std::uint8_t byte2, std::uint8_t byte3,
                           Ref<CharPrinter> printer);

/// Prints an address and returns the printer.
///
/// IPv4 is dotted decimal. IPv6 has its groups in upper-case hexadecimal without leading zeros; the first run
/// of two or more zero groups becomes "::", also when a later one is longer. A zero group 7 with no run
/// before it becomes one
/// ":", as the low half of the scope, which lies right behind, counts as the group after it; if that is not
/// zero, group 7 is an ordinary group. An IPv4-mapped address is "::FFFF:" and the dotted bytes of group 7,
/// then group 6, the high byte of each first. A scope follows as "%" and its number.
Ref<CharPrinter> printIPAddress(const IPAddress& address, Ref<CharPrinter> printer);

/// The address as `printIPAddress` prints it.
[[nodiscard]] Ref<String> formatAddress(const IPAddress& address);

/// The address, in square brackets unless it is IPv4, a colon and the port.
[[nodiscard]] Ref<String> formatEndpoint(const IPEndpoint& endpoint);

}  // namespace Shell
