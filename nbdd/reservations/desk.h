#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "control/interface.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/thread_pool.h"
#include "nbdd/reservations/attempt_limiter.h"
#include "nbdd/reservations/gate.h"
#include "nbdd/reservations/messages.h"
#include "nbdd/reservations/records.h"
#include "nbdd/reservations/reservation_states.h"

namespace Nbdd::Reservations {

/// One client's connection, as far as reservations are concerned.
struct Client {
  std::uint64_t id = 0;    ///< never another's, for as long as the process lives
  std::string address;     ///< numeric
  ChannelBinding binding;  ///< of its TLS channel
};

/// The answer to one of a client's questions.
struct Told {
  std::optional<Body> body;      ///< nothing: the question was malformed, or not in its place
  std::optional<LeaseId> lease;  ///< the client has just proven that it holds this one
};
using Tell = std::move_only_function<void(Told)>;

/// Where this server is reserved: answers those who want it, and the operator, and moves the gate as the
/// table of states says. Nothing here waits; hashing passwords is left to a thread aside. The control loop's
/// thread.
class Desk {
 public:
  struct Options {
    std::chrono::seconds lease;  ///< how long one lasts without being renewed
    std::uint32_t iterations;    ///< for new passwords
    AttemptLimiter::Measure attempts;
  };
  static Options usualOptions();

  /// All three outlive this.
  Desk(Io::EventLoop& loop, Gate& gate, Records& records, Options options);
  Desk(const Desk&) = delete;
  Desk& operator=(const Desk&) = delete;

  /// Brings back what was saved: a lease that was held goes on for its whole time, since its holder could not
  /// renew it meanwhile. Once, before the first client.
  void restore();

  // The operator.

  /// Another password leaves the lease as it is; none ends it, and switches reservation off.
  void setPassword(std::optional<std::string> password, Control::Answer<void> answer);
  /// Who holds this server; fails with notReserved when nobody does.
  Control::Result<Control::LocalServerReservationInfo> holder() const;

  // The clients.

  /// A client asks one of our kinds of questions. `tell` is called once, in this call or later, unless the
  /// client leaves before.
  void ask(const Client& client, Nbd::Extension::Kind kind, const Body& body, Tell tell);
  /// The client's handshake is over, however it ended.
  void left(std::uint64_t client);

 private:
  /// What a client has begun.
  struct Exchange {
    std::optional<ScramServer> scram;
    std::uint64_t passwordNumber = 0;
    std::optional<ProofBegin> proof;
    Nonce serverNonce{};
    std::optional<LeaseId> lease;  ///< proven
    std::unique_ptr<Io::Timer> turn;
  };

  /// Who the server is being cleared for.
  struct Claimant {
    Client client;
    Lease lease;
    std::string serverFinal;
    Tell tell;
  };

  void beginReserving(const Client& client, const Body& body, Tell tell);
  void startScram(const Client& client, const std::string& clientFirst, Tell tell);
  void finishReserving(const Client& client, const Body& body, Tell tell);
  void claim(const Client& client, ScramServer::Outcome outcome, Tell tell);
  void beginProof(const Client& client, const Body& body, Tell tell);
  void finishProof(const Client& client, const Body& body, Tell tell);
  Told holdOn(const Client& client, const GrantedLease& granted, const ProofContext& context);
  Told release(const Client& client, const GrantedLease& granted, const ProofContext& context);

  void apply(Event event);
  void carryOut(Effect effect);
  void tellClaimant(Reply reply);
  void cleared(std::uint64_t claim);
  void expired();
  void passwordMade(std::optional<Verifier> verifier, Control::Answer<void>& answer);
  std::optional<GrantedLease> granted() const { return records_.read().granted; }

  Io::EventLoop& loop_;
  Gate& gate_;
  Records& records_;
  const Options options_;
  State state_ = State::off;
  AttemptLimiter limiter_;
  std::map<std::uint64_t, Exchange> exchanges_;
  std::uint64_t passwordNumber_ = 0;  ///< which password it is: an exchange begun with another is void
  std::optional<Claimant> claimant_;
  std::uint64_t claim_ = 0;       ///< which clearing it is
  std::optional<LeaseId> lease_;  ///< held
  Io::Timer time_;
  Io::Clock::time_point until_{};
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  Io::ThreadPool hashing_{1};
};

}  // namespace Nbdd::Reservations
