#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "control/records.h"
#include "nbdd/discovery/txt_record.h"

namespace Nbdd::Discovery {

/// One announcement as it was heard on one link by one protocol (IPv4 or IPv6), and resolved.
struct Sighting {
  std::uint64_t id = 0;         // the responder's, unique while it runs
  std::string name{};           // the service's instance name
  std::string target{};         // the host name that the announcement points to
  std::string interfaceName{};  // of the link
  std::uint32_t interfaceIndex = 0;
  std::string address{};  // numeric; a link-local one with its zone
  std::uint16_t port = 0;
  ServerText text{};

  friend bool operator==(const Sighting&, const Sighting&) = default;
};

/// The servers that can be seen now, put together from their sightings: a server on several links, with
/// several addresses, or seen by IPv4 and IPv6 is one.
///
/// What makes two sightings one server is the UUID in their texts; without one, name, target and port.
class FoundServers {
 public:
  /// A new sighting, or another state of a known one. False: there are Limits::discoverySightings already,
  /// and this one is not kept.
  bool found(Sighting sighting);
  void lost(std::uint64_t id);
  void clear() { sightings_.clear(); }

  /// All servers but the one with the UUID `own`, by name. Each is reached at the address that most clients
  /// can use: IPv4 before IPv6 before link-local ones, then that of the interface with the lowest number.
  std::vector<Control::RemoteServerDescriptor> list(std::string_view own) const;

 private:
  std::map<std::uint64_t, Sighting> sightings_;  // by id
};

}  // namespace Nbdd::Discovery
