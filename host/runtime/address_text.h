#pragma once

#include <string_view>

#include "platform/network.h"

namespace Host {

/// The address that `text` spells, by the rules of `IPAddress::parse`; all zero if it spells none. Looks up
/// the name of a network interface in a scope, and nothing else, on the running system.
[[nodiscard]] Services::Network::Definitions::IPAddress parseAddress(std::string_view text);

}  // namespace Host
