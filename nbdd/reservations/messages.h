#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "nbd/bytes.h"
#include "nbd/extension.h"
#include "nbdd/reservations/lease.h"

/// What holder and server say to one another in the extension, as bytes. docs/extension.md is the definition.
///
/// Every decoder takes the body of one message and returns nothing unless all of it is what the encoder of
/// the same name could have written.
namespace Nbdd::Reservations {

/// The kinds of the extension's messages that are ours. Each is one question and one message of answer.
namespace Kind {
inline constexpr auto beginReserving = static_cast<Nbd::Extension::Kind>(0x10);
inline constexpr auto finishReserving = static_cast<Nbd::Extension::Kind>(0x11);
inline constexpr auto beginProof = static_cast<Nbd::Extension::Kind>(0x12);
inline constexpr auto finishProof = static_cast<Nbd::Extension::Kind>(0x13);
}  // namespace Kind

/// The first word of every answer. A number that no name has is a refusal of a later version.
enum class Status : std::uint16_t {
  granted = 0,  ///< done: go on, or it is yours
  renewed = 1,  ///< the lease that this connection has proven goes on
  wrongPassword = 2,
  reservedByOther = 3,
  disabled = 4,         ///< the server cannot be reserved
  tooManyAttempts = 5,  ///< from that network; later
  leaseLost = 6,        ///< there is no such lease any more
  proofRefused = 7,     ///< there is, but the proof is wrong
  failed = 8,           ///< the server could not do it; later
};

using Body = std::vector<std::byte>;

/// The bodies of beginReserving and finishReserving are a message of SCRAM each, as it is.
std::optional<std::string> decodeScramMessage(Nbd::Bytes body);
Body encodeScramMessage(std::string_view message);

/// The answer to beginReserving; the message stands behind `granted` alone.
struct ReservingBegun {
  Status status = Status::failed;
  std::string serverFirst = {};

  friend bool operator==(const ReservingBegun&, const ReservingBegun&) = default;
};
Body encode(const ReservingBegun& answer);
std::optional<ReservingBegun> decodeReservingBegun(Nbd::Bytes body);

/// The answer to finishReserving; the rest stands behind `granted` and `renewed` alone.
struct Reserved {
  Status status = Status::failed;
  std::chrono::seconds time{};  ///< how long the lease lasts unless it is renewed
  std::string serverFinal = {};

  friend bool operator==(const Reserved&, const Reserved&) = default;
};
Body encode(const Reserved& answer);
std::optional<Reserved> decodeReserved(Nbd::Bytes body);

/// The body of beginProof.
struct ProofBegin {
  LeaseId lease{};
  Nonce clientNonce{};

  friend bool operator==(const ProofBegin&, const ProofBegin&) = default;
};
Body encode(const ProofBegin& question);
std::optional<ProofBegin> decodeProofBegin(Nbd::Bytes body);

/// The answer to beginProof is the server's nonce, whether or not there is such a lease.
Body encode(const Nonce& nonce);
std::optional<Nonce> decodeNonce(Nbd::Bytes body);

/// The body of finishProof.
struct ProofFinish {
  Purpose purpose = Purpose::hold;
  Proof proof{};

  friend bool operator==(const ProofFinish&, const ProofFinish&) = default;
};
Body encode(const ProofFinish& question);
std::optional<ProofFinish> decodeProofFinish(Nbd::Bytes body);

/// The answer to finishProof; the rest stands behind `granted` alone.
struct Proven {
  Status status = Status::failed;
  std::chrono::seconds time{};  ///< how long the lease lasts now; of a released one nothing
  Proof serverProof{};

  friend bool operator==(const Proven&, const Proven&) = default;
};
Body encode(const Proven& answer);
std::optional<Proven> decodeProven(Nbd::Bytes body);

}  // namespace Nbdd::Reservations
