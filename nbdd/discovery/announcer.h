#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "nbdd/discovery/avahi.h"
#include "nbdd/discovery/host_links.h"
#include "nbdd/discovery/messages.h"

namespace Nbdd::Discovery {

/// Announces one server, on every link by which it is reached, and says goodbye at the end of its life.
///
/// The host name that the announcement points to is the server's own, not the host's: nothing that a
/// responder beside us announces can be in conflict with it, and it has just the addresses that are listened
/// on.
class Announcer {
 public:
  using Log = std::function<void(LogLevel, std::string)>;

  Announcer(AvahiServer& multicast, Announcement announcement, Log log);

  const Announcement& announcement() const { return announcement_; }

  /// Announces on these links, as far as they have changed; withdraws on all others.
  void announceOn(const HostLinks& links);

 private:
  /// What is announced on one link.
  struct Place {
    EntryGroup group;
    std::vector<std::string> addresses;
  };

  static void onState(AvahiServer* server, AvahiSEntryGroup* group, AvahiEntryGroupState state, void* self);
  void fill(std::uint32_t interface, Place& place);
  int add(const Place& place, std::uint32_t interface, const char* name, std::uint16_t type, bool unique,
          const std::function<bool(AvahiRecord&)>& set);
  int addService(const Place& place, std::uint32_t interface);
  int addAddress(const Place& place, std::uint32_t interface, const std::string& address);
  void takeAnotherName();

  AvahiServer& multicast_;
  const Announcement announcement_;
  const Log log_;
  std::string name_;          // the one that nobody else has
  const std::string target_;  // with its domain
  bool established_ = false;
  int conflicts_ = 0;
  std::map<std::uint32_t, Place> places_;  // by the interface's number
};

}  // namespace Nbdd::Discovery
