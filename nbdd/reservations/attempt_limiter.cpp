#include "nbdd/reservations/attempt_limiter.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>

namespace Nbdd::Reservations {

std::string networkOf(const std::string& address) {
  in6_addr ipv6{};
  const std::string withoutZone = address.substr(0, address.find('%'));
  if (::inet_pton(AF_INET6, withoutZone.c_str(), &ipv6) != 1) return address;
  constexpr std::size_t subscriberOctets = 8;
  if (IN6_IS_ADDR_V4MAPPED(&ipv6)) return withoutZone.substr(withoutZone.rfind(':') + 1);
  std::fill(ipv6.s6_addr + subscriberOctets, ipv6.s6_addr + sizeof ipv6.s6_addr, std::uint8_t{0});
  std::array<char, INET6_ADDRSTRLEN> text{};
  return ::inet_ntop(AF_INET6, &ipv6, text.data(), text.size());
}

std::optional<AttemptLimiter::Clock::duration> AttemptLimiter::ask(const std::string& network,
                                                                   Clock::time_point now) {
  Clock::time_point& spent = spentBy(network, now);
  const Clock::time_point free = spent - (measure_.atOnce - 1) * measure_.pace;
  const Clock::duration wait = std::max(free - now, Clock::duration::zero());
  if (wait > measure_.longest) return std::nullopt;
  spent = std::max(spent, now) + measure_.pace;
  return wait;
}

void AttemptLimiter::succeeded(const std::string& network) { spent_.erase(network); }

AttemptLimiter::Clock::time_point& AttemptLimiter::spentBy(const std::string& network,
                                                           Clock::time_point now) {
  if (const auto known = spent_.find(network); known != spent_.end()) return known->second;
  if (spent_.size() >= measure_.networks) {
    std::erase_if(spent_, [now](const auto& entry) { return entry.second <= now; });
  }
  if (spent_.size() >= measure_.networks) return spentByOthers_;
  return spent_.emplace(network, now).first->second;
}

}  // namespace Nbdd::Reservations
