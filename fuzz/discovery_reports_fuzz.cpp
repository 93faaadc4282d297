// Reports, one a line: those that are taken read the same when they are sent again, and the view that they
// make up lists every server once, within its bounds.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>
#include <variant>

#include "nbdd/discovery/found_servers.h"
#include "nbdd/discovery/messages.h"

using namespace Nbdd::Discovery;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  FoundServers servers;
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    const auto report = decodeReport(line);
    if (!report) continue;
    if (decodeReport(encode(*report)) != *report) std::abort();
    if (const auto* const sighting = std::get_if<Sighting>(&*report)) servers.found(*sighting);
    if (const auto* const lost = std::get_if<Lost>(&*report)) servers.lost(lost->id);
  }
  std::set<std::string> uuids;
  for (const auto& server : servers.list("0b5cbd4c-6f5a-4c5e-9a3e-3f6f1a2b3c4d")) {
    if (server.endpoint.address.empty()) std::abort();
    for (const auto& property : server.properties) {
      if (property.name != "uuid") continue;
      const std::string& uuid = std::get<std::string>(property.value);
      if (uuid == "0b5cbd4c-6f5a-4c5e-9a3e-3f6f1a2b3c4d" || !uuids.insert(uuid).second) std::abort();
    }
  }
  if (const auto wish = decodeWish({reinterpret_cast<const char*>(data), size}); wish) {
    if (decodeWish(encode(*wish)) != *wish) std::abort();
  }
  return 0;
}
