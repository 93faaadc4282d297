#include "nbdd/reservations/presentation.h"

#include <utility>

#include "nbdd/log/log.h"

namespace Nbdd::Reservations {

Presentation::Presentation(Nbd::Extension::Inquiry& inquiry, Records* records, Channel channel)
    : records_(records) {
  if (records_ != nullptr && records_->holdsAny()) {
    proof_.emplace(inquiry, *records_, Purpose::hold, std::move(channel));
  }
}

Nbd::Extension::Dialogue* Presentation::dialogue() { return proof_ ? &*proof_ : nullptr; }

void Presentation::conclude() {
  if (!proof_ || proof_->outcome() != ProofDialogue::Outcome::lost) return;
  const HeldLease& held = *proof_->held();
  if (!records_->forget(held.lease.id)) return;
  log(LogLevel::warning, "reservation-lost", "the reservation of {} port {} is lost: it ended there",
      escaped(held.server.address), held.server.port);
}

}  // namespace Nbdd::Reservations
