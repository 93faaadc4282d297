#pragma once

#include <avahi-common/malloc.h>
#include <avahi-common/simple-watch.h>
#include <avahi-common/strlst.h>
#include <avahi-common/watch.h>
#include <avahi-core/core.h>
#include <avahi-core/lookup.h>
#include <avahi-core/publish.h>

#include <memory>

/// Owners of what the Avahi library makes.
namespace Nbdd::Discovery {

template <auto function>
struct Freed {
  template <class Object>
  void operator()(Object* object) const {
    function(object);
  }
};

/// A timer of the library's loop, which does not come with it.
struct FreedTimeout {
  const AvahiPoll* poll = nullptr;
  void operator()(AvahiTimeout* timeout) const { poll->timeout_free(timeout); }
};

/// A watched descriptor of the library's loop.
struct FreedWatch {
  const AvahiPoll* poll = nullptr;
  void operator()(AvahiWatch* watch) const { poll->watch_free(watch); }
};

using AvahiLoop = std::unique_ptr<AvahiSimplePoll, Freed<avahi_simple_poll_free>>;
using Multicast = std::unique_ptr<AvahiServer, Freed<avahi_server_free>>;
using EntryGroup = std::unique_ptr<AvahiSEntryGroup, Freed<avahi_s_entry_group_free>>;
using ServiceBrowser = std::unique_ptr<AvahiSServiceBrowser, Freed<avahi_s_service_browser_free>>;
using ServiceResolver = std::unique_ptr<AvahiSServiceResolver, Freed<avahi_s_service_resolver_free>>;
using AvahiText = std::unique_ptr<char, Freed<avahi_free>>;
using AvahiRecordOwner = std::unique_ptr<AvahiRecord, Freed<avahi_record_unref>>;
using AvahiTimer = std::unique_ptr<AvahiTimeout, FreedTimeout>;
using AvahiWatched = std::unique_ptr<AvahiWatch, FreedWatch>;

/// The type by which NBD servers are announced, and where.
inline constexpr const char* serviceType = "_nbd._tcp";
inline constexpr const char* localDomain = "local";

}  // namespace Nbdd::Discovery
