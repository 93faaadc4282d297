#include "nbdd/discovery/announcer.h"

#include <arpa/inet.h>
#include <avahi-common/alternative.h>
#include <avahi-common/domain.h>
#include <avahi-common/error.h>
#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <utility>

#include "nbdd/limits.h"

namespace Nbdd::Discovery {

namespace {

/// The name by which DNS-SD lists the types of services that there are (RFC 6763, section 9).
constexpr const char* allTypes = "_services._dns-sd._udp.local";

constexpr const char* fullType = "_nbd._tcp.local";

/// The longest name of a service: one label of a domain name.
constexpr std::size_t longestName = 63;

std::string fullName(const std::string& name) {
  std::array<char, AVAHI_DOMAIN_NAME_MAX> full{};
  const int error = avahi_service_name_join(full.data(), full.size(), name.c_str(), serviceType, localDomain);
  return error == AVAHI_OK ? full.data() : std::string();
}

}  // namespace

Announcer::Announcer(AvahiServer& multicast, Announcement announcement, Log log)
    : multicast_(multicast),
      announcement_(std::move(announcement)),
      log_(std::move(log)),
      name_(cutText(announcement_.name, longestName)),
      target_(announcement_.target + "." + localDomain) {}

void Announcer::announceOn(const HostLinks& links) {
  for (auto place = places_.begin(); place != places_.end();) {
    place = links.contains(place->first) ? std::next(place) : places_.erase(place);
  }
  for (const auto& [interface, link] : links) {
    std::vector<std::string> addresses = reachableAddresses(link, announcement_.addresses);
    if (addresses.empty()) {
      places_.erase(interface);
      continue;
    }
    Place& place = places_[interface];
    if (place.group && place.addresses == addresses) continue;
    place.addresses = std::move(addresses);
    fill(interface, place);
  }
}

void Announcer::fill(std::uint32_t interface, Place& place) {
  // A group that never got its records has none that could be withdrawn, so each begins anew.
  place.group.reset(avahi_s_entry_group_new(&multicast_, &Announcer::onState, this));
  int error = place.group ? addService(place, interface) : AVAHI_ERR_NO_MEMORY;
  for (const std::string& address : place.addresses) {
    if (error == AVAHI_OK) error = addAddress(place, interface, address);
  }
  if (error == AVAHI_OK) error = avahi_s_entry_group_commit(place.group.get());
  if (error != AVAHI_OK) {
    log_(LogLevel::warning, fmt::format("the server cannot be announced: {}", avahi_strerror(error)));
  }
}

int Announcer::add(const Place& place, std::uint32_t interface, const char* name, std::uint16_t type,
                   bool unique, const std::function<bool(AvahiRecord&)>& set) {
  const AvahiRecordOwner record(avahi_record_new_full(
      name, AVAHI_DNS_CLASS_IN, type, static_cast<std::uint32_t>(announcement_.timeToLive.count())));
  if (!record || !set(*record)) return AVAHI_ERR_INVALID_RECORD;
  return avahi_server_add(&multicast_, place.group.get(), static_cast<AvahiIfIndex>(interface),
                          AVAHI_PROTO_UNSPEC, unique ? AVAHI_PUBLISH_UNIQUE : AVAHI_PUBLISH_ALLOW_MULTIPLE,
                          record.get());
}

int Announcer::addService(const Place& place, std::uint32_t interface) {
  const std::string full = fullName(name_);
  if (full.empty()) return AVAHI_ERR_INVALID_SERVICE_NAME;
  const auto pointTo = [](const char* target) {
    return [target](AvahiRecord& record) { return (record.data.ptr.name = avahi_strdup(target)) != nullptr; };
  };
  const auto service = [this](AvahiRecord& record) {
    record.data.srv = {
        .priority = 0, .weight = 0, .port = announcement_.port, .name = avahi_strdup(target_.c_str())};
    return record.data.srv.name != nullptr;
  };
  const auto text = [this](AvahiRecord& record) {
    // Each goes in front of the others, and they are sent from the end.
    for (const std::string& string : announcement_.text) {
      record.data.txt.string_list = avahi_string_list_add(record.data.txt.string_list, string.c_str());
    }
    return true;
  };
  int error = add(place, interface, allTypes, AVAHI_DNS_TYPE_PTR, false, pointTo(fullType));
  if (error == AVAHI_OK)
    error = add(place, interface, fullType, AVAHI_DNS_TYPE_PTR, false, pointTo(full.c_str()));
  if (error == AVAHI_OK) error = add(place, interface, full.c_str(), AVAHI_DNS_TYPE_SRV, true, service);
  if (error == AVAHI_OK) error = add(place, interface, full.c_str(), AVAHI_DNS_TYPE_TXT, true, text);
  return error;
}

// Several of our own interfaces may be on one link. Addresses that are not claimed as the only ones cannot be
// in conflict there, and nobody else has a name like this.
int Announcer::addAddress(const Place& place, std::uint32_t interface, const std::string& address) {
  const bool ipv6 = address.find(':') != std::string::npos;
  return add(place, interface, target_.c_str(), ipv6 ? AVAHI_DNS_TYPE_AAAA : AVAHI_DNS_TYPE_A, false,
             [&](AvahiRecord& record) {
               void* const octets = ipv6 ? static_cast<void*>(&record.data.aaaa.address)
                                         : static_cast<void*>(&record.data.a.address);
               return ::inet_pton(ipv6 ? AF_INET6 : AF_INET, address.c_str(), octets) == 1;
             });
}

void Announcer::onState(AvahiServer* /*server*/, AvahiSEntryGroup* group, AvahiEntryGroupState state,
                        void* self) {
  Announcer& announcer = *static_cast<Announcer*>(self);
  if (state == AVAHI_ENTRY_GROUP_COLLISION) {
    announcer.takeAnotherName();
  } else if (state == AVAHI_ENTRY_GROUP_FAILURE) {
    announcer.log_(LogLevel::warning, "the server cannot be announced on one of its interfaces");
  } else if (state == AVAHI_ENTRY_GROUP_ESTABLISHED && !std::exchange(announcer.established_, true)) {
    announcer.log_(LogLevel::info, fmt::format("the server is announced as \"{}\"", announcer.name_));
  }
  static_cast<void>(group);
}

void Announcer::takeAnotherName() {
  if (++conflicts_ > Limits::discoveryConflicts) {
    log_(LogLevel::warning, "others claim every name that the server takes: it is not announced any more");
    places_.clear();
    return;
  }
  const AvahiText other(avahi_alternative_service_name(name_.c_str()));
  if (!other) return;
  log_(LogLevel::notice, fmt::format("somebody else is announced as \"{}\"", name_));
  name_ = other.get();
  established_ = false;
  for (auto& [interface, place] : places_) fill(interface, place);
}

}  // namespace Nbdd::Discovery
