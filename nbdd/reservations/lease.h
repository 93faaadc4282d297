#pragma once

#include <cstdint>
#include <string>

#include "nbdd/reservations/key.h"
#include "nbdd/reservations/scram.h"

// A lease is known to two: the server that granted it and the host that holds it. Both made its key from the
// exchange in which it was granted, and the key never travels. Its holder shows later, on any connection,
// that he has it: both sides draw a nonce, and he sends a code over both that only the key can make.

namespace Nbdd::Reservations {

/// Names a lease; no secret.
using LeaseId = Octets<16>;
using Nonce = Octets<32>;
using Proof = Octets<32>;

struct Lease {
  LeaseId id{};
  Key key;

  friend bool operator==(const Lease&, const Lease&) = default;
};

/// The lease with this key. Its id follows from the key, so that the holder knows it even if the server's
/// last word in the exchange was lost on the way.
Lease leaseWith(const Key& key);

/// What a holder proves his lease for.
enum class Purpose : std::uint8_t {
  hold = 1,     ///< renew it, and use the server on this connection as its holder
  release = 2,  ///< end it
};

/// One run of the proof: what both sides said, and the channel that they said it over.
struct ProofContext {
  Purpose purpose = Purpose::hold;
  Nonce clientNonce{};
  Nonce serverNonce{};
  ChannelBinding binding;
};

/// What the holder sends, and the server's answer to it; different, so that neither can be the other's.
Proof holderProof(const Lease& lease, const ProofContext& context);
Proof serverProof(const Lease& lease, const ProofContext& context);

/// The id as hexadecimal digits, for the log.
std::string toText(const LeaseId& id);

}  // namespace Nbdd::Reservations
