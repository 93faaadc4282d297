#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "control/interface.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/remote/security.h"
#include "nbdd/reservations/errand.h"
#include "nbdd/reservations/records.h"

namespace Nbdd::Reservations {

/// The leases of other servers that this host holds: takes them, keeps them by renewing them well before
/// their time is over, and gives them back. The control loop's thread.
class RemoteReservations {
 public:
  /// `records` outlives this. `self` is what servers are told of this host; `security` is how they are
  /// reached.
  RemoteReservations(Io::EventLoop& loop, Records& records, Nbd::Extension::Hello self,
                     std::shared_ptr<const Remote::SharedSecurity> security);
  RemoteReservations(const RemoteReservations&) = delete;
  RemoteReservations& operator=(const RemoteReservations&) = delete;

  /// Renews what was saved. Once, at the start.
  void restore();

  void reserve(Control::RemoteServerReservationRequest request, Control::Answer<void> answer);
  void unreserve(Control::Endpoint endpoint, Control::Answer<void> answer);
  std::vector<Control::RemoteServerReservationInfo> list() const;

  /// Whether there is something to keep.
  bool active() const { return records_.holdsAny() || !errands_.empty(); }

  /// Gives up what is under way; nothing new is begun. The leases stay.
  void close();

 private:
  /// What is known of a lease between two renewals.
  struct Keeping {
    LeaseId lease{};
    std::chrono::seconds time{};        ///< how long it lasts; zero until the server was heard of
    std::chrono::milliseconds pause{};  ///< before the next attempt, if the last one failed
    Io::Clock::time_point renewed{};
    std::unique_ptr<Io::Timer> next;
  };

  void setOut(Errand::Task task, Errand::Told told);
  void reserved(const Control::Endpoint& server, Errand::Report report, Control::Answer<void>& answer);
  void decide(Errand::Report report, Control::Answer<void> answer);
  void released(Errand::Report report, Control::Answer<void>& answer);
  void keep(const HeldLease& held, std::chrono::seconds time);
  void renewIn(const HeldLease& held, std::chrono::milliseconds delay);
  void renew(const std::string& uuid);
  void renewed(const HeldLease& held, Errand::Report report);
  void lost(const HeldLease& held);
  void forget(const HeldLease& held);

  Io::EventLoop& loop_;
  Records& records_;
  const Nbd::Extension::Hello self_;
  const std::shared_ptr<const Remote::SharedSecurity> security_;
  bool closed_ = false;
  std::map<std::uint64_t, std::unique_ptr<Errand>> errands_;
  std::uint64_t nextErrand_ = 0;
  std::map<std::string, Keeping> kept_;  ///< by the server's UUID
  std::minstd_rand random_{std::random_device{}()};
};

}  // namespace Nbdd::Reservations
