// Reading and printing an address: what is printed for an address that was read can be read again and is the
// same, apart from the two forms that are meant to look different (mapped addresses and a single zero group
// at the end).

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "host/runtime/address_text.h"
#include "shell/addresses.h"

namespace {

using Services::Network::Definitions::IPAddress;

std::string print(const IPAddress& address) {
  const auto printer = StringPrinter::create();
  Shell::printIPAddress(address, printer);
  return std::string(printer->text()->view());
}

/// Whether the printed form of `address` spells it.
bool spellsItself(const IPAddress& address, std::string_view printed) {
  if (address.family == IPAddress::familyIPv4) {
    return true;
  }
  const bool mapped = printed.starts_with("::FFFF:") && printed.find('.') != std::string_view::npos;
  const std::string_view groups = printed.substr(0, printed.find('%'));
  return !mapped && (!groups.ends_with(':') || groups.ends_with("::"));
}

void check(const IPAddress& address, std::uint16_t port) {
  const std::string printed = print(address);
  if (spellsItself(address, printed) && Host::parseAddress(printed) != address) {
    std::abort();
  }
  const bool isIPv4 = address.family == IPAddress::familyIPv4;
  const std::string expected = (isIPv4 ? printed : "[" + printed + "]") + ":" + std::to_string(port);
  if (Shell::formatEndpoint({address, port})->view() != expected) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  const IPAddress parsed = Host::parseAddress(text);
  if (parsed.family == 0) {
    if (parsed != IPAddress()) {
      std::abort();
    }
  } else if (parsed.family == IPAddress::familyIPv4 || parsed.family == IPAddress::familyIPv6) {
    check(parsed, static_cast<std::uint16_t>(size));
  } else {
    std::abort();
  }

  // The same bytes as an address that no text may spell.
  IPAddress address;
  address.family = IPAddress::familyIPv6;
  const std::size_t groupBytes = std::min(size, sizeof address.groups);
  if (groupBytes > 0) {
    std::memcpy(address.groups.data(), data, groupBytes);
  }
  if (size >= sizeof address.groups + sizeof address.scope) {
    std::memcpy(&address.scope, data + sizeof address.groups, sizeof address.scope);
  }
  check(address, 10809);
  return 0;
}
