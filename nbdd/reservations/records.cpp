#include "nbdd/reservations/records.h"

#include <fmt/core.h>

#include <algorithm>
#include <utility>

#include "nbdd/log/log.h"
#include "nbdd/reservations/limits.h"

namespace Nbdd::Reservations {

SavedReservations Records::read() const {
  const std::lock_guard lock(mutex_);
  return saved_;
}

Control::Result<void> Records::change(const std::function<void(SavedReservations&)>& make) {
  const std::lock_guard lock(mutex_);
  SavedReservations changed = saved_;
  make(changed);
  if (auto stored = store_.save(changed); !stored) {
    log(LogLevel::error, "reservations-not-saved", "{}", stored.error().message);
    return stored;
  }
  saved_ = std::move(changed);
  return {};
}

std::vector<HeldLease> Records::held() const {
  const std::lock_guard lock(mutex_);
  std::vector<HeldLease> held = saved_.held;
  std::erase_if(held, [this](const HeldLease& one) { return expected_.contains(one.lease.id); });
  return held;
}

bool Records::holdsAny() const { return !held().empty(); }

std::optional<HeldLease> Records::heldOf(const std::string& serverUuid) const {
  const std::vector<HeldLease> all = held();
  const auto found = std::ranges::find(all, serverUuid, &HeldLease::uuid);
  return found == all.end() ? std::nullopt : std::optional(*found);
}

Control::Result<void> Records::expect(const HeldLease& held) {
  {
    const std::lock_guard lock(mutex_);
    const bool replaces = std::ranges::find(saved_.held, held.uuid, &HeldLease::uuid) != saved_.held.end();
    if (!replaces && saved_.held.size() >= Limits::heldLeases) {
      return std::unexpected(Control::Failure{
          Control::FailureCode::limitReached,
          fmt::format("this host holds {} reservations: give one back first", saved_.held.size())});
    }
    expected_.insert(held.lease.id);
  }
  auto saved = change([&held](SavedReservations& all) {
    std::erase_if(all.held, [&](const HeldLease& other) { return other.uuid == held.uuid; });
    all.held.push_back(held);
  });
  if (!saved) confirm(held.lease.id);  // there is nothing to wait for
  return saved;
}

void Records::confirm(const LeaseId& lease) {
  const std::lock_guard lock(mutex_);
  expected_.erase(lease);
}

bool Records::forget(const LeaseId& lease) {
  const std::lock_guard lock(mutex_);
  expected_.erase(lease);
  const auto isIt = [&lease](const HeldLease& held) { return held.lease.id == lease; };
  if (std::erase_if(saved_.held, isIt) == 0) return false;
  if (auto stored = store_.save(saved_); !stored) {
    log(LogLevel::error, "reservations-not-saved", "{}", stored.error().message);
  }
  return true;
}

}  // namespace Nbdd::Reservations
