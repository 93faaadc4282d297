#pragma once

#include <sys/socket.h>

#include <expected>
#include <string>
#include <string_view>

namespace Bench {

/// Where an export is found.
struct Target {
  sockaddr_storage address{};
  socklen_t addressLength = 0;
  std::string exportName;
};

/// Reads `nbd://HOST[:PORT]/[NAME]`, percent-encoding included, and looks the host up. The error is a
/// sentence for people.
std::expected<Target, std::string> parseTarget(std::string_view uri);

}  // namespace Bench
