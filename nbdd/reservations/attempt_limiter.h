#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Nbdd::Reservations {

/// The network that `address` (numeric) counts as when attempts are counted: an IPv4 address is one, and so
/// are all the addresses that one subscriber of IPv6 has, which is at least 64 bits of them.
std::string networkOf(const std::string& address);

/// Paces the attempts of each network to give a password. A few may be made at once; beyond them one at a
/// time, each some seconds after the one before. Who comes while too many wait already is turned away. A
/// right password takes nothing from that, and no network takes anything from another.
///
/// What is held is bounded: networks beyond a number share one measure.
class AttemptLimiter {
 public:
  using Clock = std::chrono::steady_clock;

  struct Measure {
    int atOnce;                    ///< attempts without a wait
    std::chrono::seconds pace;     ///< between those beyond
    std::chrono::seconds longest;  ///< that anybody is made to wait
    std::size_t networks;          ///< that are told apart
  };

  explicit AttemptLimiter(Measure measure) : measure_(measure) {}

  /// An attempt is about to be made: how long it has to wait; nothing if it must not be made.
  std::optional<Clock::duration> ask(const std::string& network, Clock::time_point now);

  /// The attempt was made and the password was right: its network starts afresh.
  void succeeded(const std::string& network);

  std::size_t networks() const { return spent_.size(); }

 private:
  Clock::time_point& spentBy(const std::string& network, Clock::time_point now);

  const Measure measure_;
  /// Until when each network has used its attempts up, at the pace of one after another; a time in the past
  /// is as good as none.
  std::unordered_map<std::string, Clock::time_point> spent_;
  Clock::time_point spentByOthers_;
};

}  // namespace Nbdd::Reservations
