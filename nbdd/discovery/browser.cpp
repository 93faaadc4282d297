#include "nbdd/discovery/browser.h"

#include <avahi-common/address.h>
#include <avahi-common/error.h>
#include <avahi-common/timeval.h>
#include <fmt/core.h>
#include <net/if.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>
#include <vector>

#include "nbdd/discovery/host_links.h"
#include "nbdd/limits.h"

namespace Nbdd::Discovery {

namespace {

/// Pauses before somebody who was announced, and could not be found, is looked for again.
constexpr std::chrono::seconds firstPause{10};
constexpr std::chrono::seconds longestPause{300};

/// The library has everybody for now when the first question is a second old, and then asks the second time.
/// Whoever told everybody just before the first does not tell again within a second, and packets are lost: so
/// the answers to the second count too.
constexpr unsigned int secondAnswersMilliseconds = 300;

/// By what the domain says, which is multicast. With AVAHI_LOOKUP_USE_MULTICAST the library ended the process
/// on some of the broken packets that the system tests send.
constexpr AvahiLookupFlags asTheDomainSays{};

std::string interfaceName(AvahiIfIndex interface) {
  std::array<char, IF_NAMESIZE> name{};
  if (::if_indextoname(static_cast<unsigned int>(interface), name.data()) == nullptr)
    return fmt::format("{}", interface);
  return displayText(name.data(), Limits::discoveryTextLength);
}

std::string addressText(const AvahiAddress& address, AvahiIfIndex interface) {
  std::array<char, AVAHI_ADDRESS_STR_MAX> text{};
  avahi_address_snprint(text.data(), text.size(), &address);
  const bool linkLocal = address.proto == AVAHI_PROTO_INET6 && address.data.ipv6.address[0] == 0xFE &&
                         (address.data.ipv6.address[1] & 0xC0) == 0x80;
  return linkLocal ? fmt::format("{}%{}", text.data(), interfaceName(interface)) : text.data();
}

ServerText textOf(AvahiStringList* list) {
  std::vector<std::string_view> strings;
  for (; list != nullptr; list = avahi_string_list_get_next(list)) {
    strings.emplace_back(reinterpret_cast<const char*>(avahi_string_list_get_text(list)),
                         avahi_string_list_get_size(list));
  }
  // The library keeps them from the last to the first.
  std::ranges::reverse(strings);
  return decodeText(strings);
}

}  // namespace

Browser::Browser(AvahiServer& multicast, const AvahiPoll& poll, Send send)
    : multicast_(multicast),
      poll_(poll),
      send_(std::move(send)),
      secondAnswers_(poll.timeout_new(&poll, nullptr, &Browser::onAllAnswered, this), {&poll}) {
  askAgain();
}

void Browser::askAgain() {
  // A new browser sees everything that is known as new; nothing is lost in between.
  browser_.reset();
  browser_.reset(avahi_s_service_browser_new(&multicast_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, serviceType,
                                             localDomain, asTheDomainSays, &Browser::onBrowsed, this));
  if (browser_) return;
  send_(Remark{LogLevel::warning, fmt::format("the local network cannot be searched: {}",
                                              avahi_strerror(avahi_server_errno(&multicast_)))});
}

Browser::~Browser() = default;

void Browser::onBrowsed(AvahiSServiceBrowser* /*browser*/, AvahiIfIndex interface, AvahiProtocol protocol,
                        AvahiBrowserEvent event, const char* name, const char* /*type*/,
                        const char* /*domain*/, AvahiLookupResultFlags flags, void* self) {
  Browser& browser = *static_cast<Browser*>(self);
  switch (event) {
    case AVAHI_BROWSER_NEW:
      // What this very responder announces is nobody else's.
      if ((flags & AVAHI_LOOKUP_RESULT_LOCAL) == 0) browser.appeared({interface, protocol, name});
      break;
    case AVAHI_BROWSER_REMOVE:
      browser.disappeared({interface, protocol, name});
      break;
    case AVAHI_BROWSER_ALL_FOR_NOW: {
      timeval soon{};
      avahi_elapse_time(&soon, secondAnswersMilliseconds, 0);
      browser.poll_.timeout_update(browser.secondAnswers_.get(), &soon);
      break;
    }
    case AVAHI_BROWSER_FAILURE:
      browser.send_(
          Remark{LogLevel::warning, fmt::format("the local network cannot be searched: {}",
                                                avahi_strerror(avahi_server_errno(&browser.multicast_)))});
      break;
    case AVAHI_BROWSER_CACHE_EXHAUSTED:
      break;
  }
}

void Browser::appeared(Heard heard) {
  std::size_t& count = counts_[{heard.interface, heard.protocol}];
  if (count >= Limits::discoveryFollowed) {
    send_(Remark{LogLevel::warning,
                 fmt::format("more than {} servers are announced on {}: the others are left out",
                             Limits::discoveryFollowed, interfaceName(heard.interface))});
    return;
  }
  const auto [entry, added] = followed_.try_emplace(
      heard,
      Followed{
          .browser = *this, .heard = heard, .id = nextId_, .resolver = {}, .retry = {}, .pause = firstPause});
  if (!added) return;
  ++nextId_;
  ++count;
  ++unsettled_;
  Followed& followed = entry->second;
  // At once, but not before what came in the same packet was understood: it is likely to hold all the
  // answers.
  timeval now{};
  avahi_elapse_time(&now, 0, 0);
  followed.retry = AvahiTimer(poll_.timeout_new(&poll_, &now, &Browser::onRetry, &followed), {&poll_});
}

void Browser::disappeared(const Heard& heard) {
  const auto entry = followed_.find(heard);
  if (entry == followed_.end()) return;
  settle(entry->second);
  if (entry->second.reported) send_(Lost{entry->second.id});
  followed_.erase(entry);
  --counts_[{heard.interface, heard.protocol}];
  tellIfSearched();
}

void Browser::onAllAnswered(AvahiTimeout* /*timeout*/, void* self) {
  Browser& browser = *static_cast<Browser*>(self);
  browser.everybodyAnswered_ = true;
  browser.tellIfSearched();
}

void Browser::onRetry(AvahiTimeout* /*timeout*/, void* followed) {
  Followed& each = *static_cast<Followed*>(followed);
  each.retry.reset();
  each.browser.resolve(each);
}

void Browser::resolve(Followed& followed) {
  followed.resolver.reset(avahi_s_service_resolver_new(
      &multicast_, followed.heard.interface, followed.heard.protocol, followed.heard.name.c_str(),
      serviceType, localDomain, AVAHI_PROTO_UNSPEC, asTheDomainSays, &Browser::onResolved, &followed));
  if (!followed.resolver) notFound(followed);
}

void Browser::onResolved(AvahiSServiceResolver* /*resolver*/, AvahiIfIndex interface,
                         AvahiProtocol /*protocol*/, AvahiResolverEvent event, const char* name,
                         const char* /*type*/, const char* /*domain*/, const char* target,
                         const AvahiAddress* address, std::uint16_t port, AvahiStringList* text,
                         AvahiLookupResultFlags /*flags*/, void* followed) {
  Followed& each = *static_cast<Followed*>(followed);
  if (event != AVAHI_RESOLVER_FOUND || address == nullptr || port == 0) return each.browser.notFound(each);
  const std::string numeric = addressText(*address, interface);
  if (!isAddressOfAHost(numeric)) return each.browser.notFound(each);
  each.browser.found(each, {.id = each.id,
                            .name = displayText(name, Limits::discoveryTextLength),
                            .target = displayText(target, Limits::discoveryTextLength),
                            .interfaceName = interfaceName(interface),
                            .interfaceIndex = static_cast<std::uint32_t>(std::max(interface, 0)),
                            .address = numeric,
                            .port = port,
                            .text = textOf(text)});
}

void Browser::found(Followed& followed, Sighting sighting) {
  followed.reported = true;
  followed.pause = firstPause;
  send_(std::move(sighting));
  settle(followed);
  tellIfSearched();
}

void Browser::notFound(Followed& followed) {
  if (std::exchange(followed.reported, false)) send_(Lost{followed.id});
  followed.resolver.reset();
  timeval later{};
  avahi_elapse_time(&later, static_cast<unsigned int>(std::chrono::milliseconds(followed.pause).count()), 0);
  followed.pause = std::min(2 * followed.pause, longestPause);
  followed.retry = AvahiTimer(poll_.timeout_new(&poll_, &later, &Browser::onRetry, &followed), {&poll_});
  settle(followed);
  tellIfSearched();
}

void Browser::settle(Followed& followed) {
  if (!std::exchange(followed.settled, true)) --unsettled_;
}

void Browser::tellIfSearched() {
  if (everybodyAnswered_ && unsettled_ == 0 && !std::exchange(told_, true)) send_(Searched{});
}

}  // namespace Nbdd::Discovery
