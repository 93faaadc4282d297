// A network and an address, one in each half of the input: taken, with texts that are taken again, or
// refused. Both forms of an IPv4 address are in the same networks.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "nbdd/config/network.h"

namespace {

void expect(bool promise) {
  if (!promise) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::size_t middle = text.find('\n');
  const auto network = Nbdd::Network::parse(text.substr(0, middle));
  if (network) expect(Nbdd::Network::parse(network->text()) == network);
  if (middle == std::string_view::npos) return 0;
  const auto address = Nbdd::HostAddress::parse(text.substr(middle + 1));
  if (!address) return 0;
  expect(Nbdd::HostAddress::parse(address->text()) == address);
  if (address->isIpv4()) expect(Nbdd::HostAddress::parse("::ffff:" + address->text()) == address);
  expect(Nbdd::Network::parse(address->text())->contains(*address));
  if (network) {
    const bool inside = Nbdd::admits({*network}, *address);
    expect(inside == network->contains(*address));
  }
  return 0;
}
