#pragma once

#include <chrono>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "control/records.h"
#include "nbdd/reservations/lease.h"
#include "nbdd/reservations/scram.h"

namespace Nbdd::Reservations {

/// The lease that this server has granted.
struct GrantedLease {
  Lease lease;
  std::string holder;  ///< the address that the holder was last heard of from

  friend bool operator==(const GrantedLease&, const GrantedLease&) = default;
};

/// A lease of another server that this host holds, or may hold: it is saved before the server has said so.
struct HeldLease {
  Control::Endpoint server;  ///< as the operator named it, the port never 0
  std::string uuid;          ///< the server's
  Lease lease;

  friend bool operator==(const HeldLease&, const HeldLease&) = default;
};

/// What reservations leave behind for the next start of the service.
struct SavedReservations {
  std::optional<Verifier> verifier;     ///< none: this server cannot be reserved
  std::optional<GrantedLease> granted;  ///< only with a verifier
  std::vector<HeldLease> held;

  friend bool operator==(const SavedReservations&, const SavedReservations&) = default;
};

/// The JSON text of the file.
std::string printReservations(const SavedReservations& saved);

/// Reads such a text, as strictly as `parseState`: a failure is told in words that complete "the file … ".
std::expected<SavedReservations, std::string> parseReservations(std::string_view text);

}  // namespace Nbdd::Reservations
