#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "control/interface.h"
#include "nbdd/reservations/reservation_store.h"

namespace Nbdd::Reservations {

/// What this host has granted and holds, in memory and in the file. Any thread; a change waits for stable
/// storage.
class Records {
 public:
  /// `store` outlives this; `saved` is what was loaded from it.
  Records(Store& store, SavedReservations saved) : store_(store), saved_(std::move(saved)) {}

  SavedReservations read() const;

  /// Makes a change. After a failure (stateNotSaved) nothing has changed.
  Control::Result<void> change(const std::function<void(SavedReservations&)>& make);

  /// The leases of other servers that this host holds.
  std::vector<HeldLease> held() const;
  bool holdsAny() const;
  /// The one of the server with this UUID.
  std::optional<HeldLease> heldOf(const std::string& serverUuid) const;

  /// Saves the lease, in the place of any other of the same server, before the server was asked for it: so it
  /// is not lost if its last word is. Until `confirm` nobody here sees it.
  Control::Result<void> expect(const HeldLease& held);
  /// The server has granted it.
  void confirm(const LeaseId& lease);
  /// Forgets it, if this one is still held. Whether it was; a file that cannot be written is logged, and what
  /// is true in memory is written with the next change.
  bool forget(const LeaseId& lease);

 private:
  Store& store_;
  mutable std::mutex mutex_;
  SavedReservations saved_;     // guarded by mutex_
  std::set<LeaseId> expected_;  // guarded by mutex_: those of `saved_.held` that are not confirmed
};

}  // namespace Nbdd::Reservations
