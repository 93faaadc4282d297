#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "nbdd/config/network.h"
#include "nbdd/reservations/limits.h"
#include "nbdd/tls/settings.h"

namespace Nbdd {

/// The port that the NBD protocol has by its registration.
inline constexpr std::uint16_t nbdPort = 10809;

/// What the operator may set in the configuration file; every setting has a default.
struct Configuration {
  /// Numeric addresses to listen on, in canonical form and without duplicates; an IPv6 address may name a
  /// zone
  /// ("fe80::1%eth0"). Empty: all IPv4 and IPv6 addresses of the host.
  std::vector<std::string> listen;
  /// TCP port; 0 takes any free one.
  std::uint16_t port = nbdPort;
  /// How long a reservation of this server lasts unless its holder renews it.
  std::chrono::seconds lease = Limits::usualLease;
  /// Where clients may come from. Empty: from everywhere.
  AllowList allow;
  /// Where the clients of single exports may come from, by the exports' names.
  std::map<std::string, AllowList> exportAllow;
  Tls::ServerSettings tls;
  Tls::ImportSettings importTls;

  /// Whether servers are found in the local network, and this one is announced there.
  bool discovery = true;
  /// The name under which this one is announced. Empty: the host's name.
  std::string label{};
  /// Names of the network interfaces on which that happens. Empty: all that do multicast.
  std::vector<std::string> interfaces{};
  /// How long others may remember the announcement without having heard it again.
  std::chrono::seconds timeToLive{120};

  friend bool operator==(const Configuration&, const Configuration&) = default;
};

/// Reads the TOML text of a configuration. `file` is how messages call it.
/// A failure is one sentence with file, line and column that says what to do.
std::expected<Configuration, std::string> parseConfiguration(std::string_view text, std::string_view file);

/// Reads the configuration file. One that does not exist gives the defaults, unless it is `required`.
std::expected<Configuration, std::string> loadConfiguration(const std::filesystem::path& file, bool required);

}  // namespace Nbdd
