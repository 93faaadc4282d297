#pragma once

#include <optional>

#include "nbdd/reservations/dialogues.h"

namespace Nbdd::Reservations {

/// What a connection that uses a remote server says about the lease that this host holds of it, beside what
/// else the inquiry has to ask. One handshake.
class Presentation {
 public:
  /// `inquiry` and `records` outlive this; no records, no leases.
  Presentation(Nbd::Extension::Inquiry& inquiry, Records* records, Channel channel);

  /// What the handshake is to ask; null if there is no lease to show to anybody.
  Nbd::Extension::Dialogue* dialogue();

  /// The handshake is over: a lease that the server knows no more is forgotten.
  void conclude();

 private:
  Records* const records_;
  std::optional<ProofDialogue> proof_;
};

}  // namespace Nbdd::Reservations
