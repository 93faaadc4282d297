#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "nbd/extension_inquiry.h"
#include "nbd/extension_peers.h"
#include "nbdd/reservations/messages.h"
#include "nbdd/reservations/records.h"

// What a client says to a server about reservations, inside of the handshake. Both dialogues begin with an
// inquiry, which learns who the server is, and go on only if there is something to say to this one.

namespace Nbdd::Reservations {

/// The channel that the connection uses by the time it is asked.
using Channel = std::function<ChannelBinding()>;

/// Shows a server that this host holds its lease, if it does. One connection.
class ProofDialogue final : public Nbd::Extension::Dialogue {
 public:
  enum class Outcome : std::uint8_t {
    none,     ///< this host holds no lease of that server
    proven,   ///< done, and the server has shown that it knows the lease too
    lost,     ///< the server says that there is no such lease any more
    refused,  ///< it could not, or would not; the lease may still be there
  };

  /// All outlive this.
  ProofDialogue(Nbd::Extension::Inquiry& before, const Records& records, Purpose purpose, Channel channel);

  // Once all is asked:
  Outcome outcome() const { return outcome_; }
  /// Of all outcomes but `none`.
  const std::optional<HeldLease>& held() const { return held_; }
  /// How long the lease lasts now, if it was proven.
  std::chrono::seconds time() const { return time_; }

  std::optional<Nbd::Extension::Question> next() override;
  std::uint16_t version() const override { return before_.version(); }
  bool take(Nbd::Bytes body) override;
  bool acknowledged() override;
  void refused(Nbd::Extension::Refusal refusal) override;
  bool suffices() const override { return before_.suffices(); }

 private:
  enum class Stage : std::uint8_t { before, nonce, proof, done };

  std::optional<Nbd::Extension::Question> begin();
  bool takeProven(Nbd::Bytes body);

  Nbd::Extension::Inquiry& before_;
  const Records& records_;
  const Channel channel_;
  Stage stage_ = Stage::before;
  ProofContext context_;
  std::optional<HeldLease> held_;
  bool answered_ = false;
  Outcome outcome_ = Outcome::none;
  std::chrono::seconds time_{};
};

/// Reserves a server for this host. A host that holds it already shows so, and then that it knows the
/// password. One connection; on a thread on which nobody waits for anything else, for it hashes the password.
class ReservingDialogue final : public Nbd::Extension::Dialogue {
 public:
  struct Wish {
    Control::Endpoint server;  ///< as the operator named it
    std::string password;      ///< prepared
  };

  /// All outlive this.
  ReservingDialogue(Nbd::Extension::Inquiry& before, Records& records, Wish wish, Channel channel);

  /// Once all is asked: the lease, or why there is none.
  Control::Result<std::chrono::seconds> result() const { return result_; }
  /// The lease that the server may have granted, if the connection ended before it could say so.
  std::optional<HeldLease> undecided() const;
  /// The one that it goes on with.
  const std::optional<HeldLease>& held() const { return held_; }

  std::optional<Nbd::Extension::Question> next() override;
  std::uint16_t version() const override { return proof_.version(); }
  bool take(Nbd::Bytes body) override;
  bool acknowledged() override;
  void refused(Nbd::Extension::Refusal refusal) override;
  bool suffices() const override { return true; }

 private:
  enum class Stage : std::uint8_t { before, first, final, done };

  std::optional<Nbd::Extension::Question> begin();
  std::optional<Nbd::Extension::Question> finish();
  bool takeReserved(const Reserved& answer);
  void fail(Status status);
  void fail(Control::FailureCode code, std::string message);

  Nbd::Extension::Inquiry& before_;
  Records& records_;
  const Wish wish_;
  const Channel channel_;
  ProofDialogue proof_;
  Stage stage_ = Stage::before;
  std::optional<ScramClient> scram_;
  std::string serverFirst_;
  std::optional<HeldLease> held_;
  bool expecting_ = false;
  bool answered_ = false;
  Control::Result<std::chrono::seconds> result_;
};

/// What a refusal means to the operator.
Control::Failure failureOf(Status status);

}  // namespace Nbdd::Reservations
