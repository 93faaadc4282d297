#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <tuple>

#include "nbdd/discovery/avahi.h"
#include "nbdd/discovery/messages.h"

namespace Nbdd::Discovery {

/// Looks for NBD servers on all links, and follows each: where it is, and whether it still is.
class Browser {
 public:
  using Send = std::function<void(Report)>;

  Browser(AvahiServer& multicast, const AvahiPoll& poll, Send send);
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;
  ~Browser();

  /// Asks everybody once more. The library asks less and less often by itself, up to an hour apart.
  void askAgain();

 private:
  /// One announcement, by what it was heard on.
  struct Heard {
    AvahiIfIndex interface = AVAHI_IF_UNSPEC;
    AvahiProtocol protocol = AVAHI_PROTO_UNSPEC;
    std::string name;
    auto operator<=>(const Heard&) const = default;
  };

  struct Followed {
    Browser& browser;
    const Heard heard;
    const std::uint64_t id;
    ServiceResolver resolver;
    AvahiTimer retry;
    std::chrono::seconds pause;
    bool reported = false;  // as found
    bool settled = false;   // it has been found once, or not in time
  };

  static void onBrowsed(AvahiSServiceBrowser* browser, AvahiIfIndex interface, AvahiProtocol protocol,
                        AvahiBrowserEvent event, const char* name, const char* type, const char* domain,
                        AvahiLookupResultFlags flags, void* self);
  static void onResolved(AvahiSServiceResolver* resolver, AvahiIfIndex interface, AvahiProtocol protocol,
                         AvahiResolverEvent event, const char* name, const char* type, const char* domain,
                         const char* target, const AvahiAddress* address, std::uint16_t port,
                         AvahiStringList* text, AvahiLookupResultFlags flags, void* followed);
  static void onAllAnswered(AvahiTimeout* timeout, void* self);
  static void onRetry(AvahiTimeout* timeout, void* followed);

  void appeared(Heard heard);
  void disappeared(const Heard& heard);
  void resolve(Followed& followed);
  void found(Followed& followed, Sighting sighting);
  void notFound(Followed& followed);
  void settle(Followed& followed);
  void tellIfSearched();

  AvahiServer& multicast_;
  const AvahiPoll& poll_;
  const Send send_;
  std::uint64_t nextId_ = 1;
  std::map<Heard, Followed> followed_;
  std::map<std::pair<AvahiIfIndex, AvahiProtocol>, std::size_t> counts_;  // of followed_
  std::size_t unsettled_ = 0;
  AvahiTimer secondAnswers_;
  bool everybodyAnswered_ = false;
  bool told_ = false;
  ServiceBrowser browser_;
};

}  // namespace Nbdd::Discovery
