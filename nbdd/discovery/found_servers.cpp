#include "nbdd/discovery/found_servers.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "nbdd/limits.h"

namespace Nbdd::Discovery {

namespace {

/// Host names and names of services compare without regard to the case of ASCII letters.
std::string folded(std::string_view text) {
  std::string result(text);
  for (char& character : result) {
    if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
  }
  return result;
}

using Key = std::tuple<std::string, std::string, std::string, std::uint16_t>;

Key keyOf(const Sighting& sighting) {
  if (!sighting.text.uuid.empty()) return {sighting.text.uuid, {}, {}, 0};
  return {{}, folded(sighting.name), folded(sighting.target), sighting.port};
}

int reach(const std::string& address) {
  if (address.find(':') == std::string::npos) return 0;
  return address.find('%') == std::string::npos ? 1 : 2;
}

bool better(const Sighting* left, const Sighting* right) {
  const auto order = [](const Sighting& each) {
    return std::tuple(reach(each.address), each.interfaceIndex, std::string_view(each.address), each.port,
                      each.id);
  };
  return order(*left) < order(*right);
}

void addText(Control::Variant& properties, const char* name, const std::string& value) {
  if (!value.empty()) properties.push_back({name, value});
}

/// `sightings`: all of one server, the best first.
Control::RemoteServerDescriptor describe(const std::vector<const Sighting*>& sightings) {
  const Sighting& best = *sightings.front();
  Control::Variant addresses;
  for (const Sighting* const each : sightings) {
    Control::VariantEntry entry{each->interfaceName, each->address};
    if (std::ranges::find(addresses, entry) == addresses.end()) addresses.push_back(std::move(entry));
  }
  Control::Variant properties;
  addText(properties, "name", best.name);
  addText(properties, "host name", best.text.hostName.empty() ? best.target : best.text.hostName);
  addText(properties, "uuid", best.text.uuid);
  addText(properties, "version", best.text.version);
  addText(properties, "platform", best.text.platform);
  properties.push_back({"addresses", std::move(addresses)});
  return {.endpoint = {.address = best.address, .port = best.port},
          .properties = std::move(properties),
          .label = best.text.label.empty() ? best.name : best.text.label};
}

}  // namespace

bool FoundServers::found(Sighting sighting) {
  const bool known = sightings_.contains(sighting.id);
  if (!known && sightings_.size() >= Limits::discoverySightings) return false;
  sightings_.insert_or_assign(sighting.id, std::move(sighting));
  return true;
}

void FoundServers::lost(std::uint64_t id) { sightings_.erase(id); }

std::vector<Control::RemoteServerDescriptor> FoundServers::list(std::string_view own) const {
  std::map<Key, std::vector<const Sighting*>> servers;
  for (const auto& [id, sighting] : sightings_) {
    if (sighting.text.uuid.empty() || sighting.text.uuid != own)
      servers[keyOf(sighting)].push_back(&sighting);
  }
  // By what an operator reads first, and the same every time.
  std::map<std::tuple<std::string, std::string, std::uint16_t, Key>, Control::RemoteServerDescriptor> ordered;
  for (auto& [key, sightings] : servers) {
    std::ranges::sort(sightings, better);
    const Sighting& best = *sightings.front();
    ordered.emplace(std::tuple(folded(best.name), best.address, best.port, key), describe(sightings));
  }
  std::vector<Control::RemoteServerDescriptor> list;
  list.reserve(ordered.size());
  for (auto& [key, descriptor] : ordered) list.push_back(std::move(descriptor));
  return list;
}

}  // namespace Nbdd::Discovery
