#include "nbdd/reservations/desk.h"

#include <fmt/core.h>

#include <utility>

#include "nbdd/log/log.h"
#include "nbdd/reservations/digest.h"
#include "nbdd/reservations/limits.h"

namespace Nbdd::Reservations {

namespace {

using Control::Failure;
using Control::FailureCode;

Told malformed() { return {}; }

template <class Answer>
Told told(const Answer& answer) {
  return {.body = encode(answer), .lease = {}};
}

Status statusOf(Reply reply) {
  switch (reply) {
    case Reply::done:
      return Status::granted;
    case Reply::renewed:
      return Status::renewed;
    case Reply::reservedByOther:
      return Status::reservedByOther;
    case Reply::disabled:
      return Status::disabled;
    case Reply::none:
    case Reply::later:
    case Reply::failed:
      break;
  }
  return Status::failed;
}

}  // namespace

Desk::Options Desk::usualOptions() {
  return {.lease = Limits::usualLease,
          .iterations = Limits::passwordIterations,
          .attempts = {.atOnce = Limits::passwordAttempts,
                       .pace = Limits::passwordPace,
                       .longest = Limits::passwordWait,
                       .networks = Limits::passwordNetworks}};
}

Desk::Desk(Io::EventLoop& loop, Gate& gate, Records& records, Options options)
    : loop_(loop),
      gate_(gate),
      records_(records),
      options_(options),
      limiter_(options.attempts),
      time_(loop, [this] { expired(); }) {}

void Desk::restore() {
  const SavedReservations saved = records_.read();
  if (!saved.verifier) return;
  state_ = State::free;
  if (!saved.granted) return;
  state_ = State::held;
  lease_ = saved.granted->lease.id;
  log(LogLevel::notice, "reservation-restored", "the server is still reserved by {}",
      escaped(saved.granted->holder));
  carryOut(Effect::grant);
}

// --- States

void Desk::apply(Event event) {
  const Transition* const row = findTransition(state_, event);
  if (row == nullptr) return;
  state_ = row->to;
  carryOut(row->effect);
  if (row->toldClaimant != Reply::none) tellClaimant(row->toldClaimant);
}

void Desk::carryOut(Effect effect) {
  switch (effect) {
    case Effect::none:
      return;
    case Effect::clear:
      gate_.clear([this, alive = std::weak_ptr(alive_), claim = ++claim_] {
        if (alive.lock()) cleared(claim);
      });
      return;
    case Effect::grant:
      gate_.admitOnly(*lease_);
      [[fallthrough]];
    case Effect::renew:
      time_.start(options_.lease);
      until_ = loop_.now() + options_.lease;
      return;
    case Effect::abandon:
      gate_.admitAll();
      return;
    case Effect::end:
      time_.cancel();
      gate_.admitAll();
      gate_.endHolder(*lease_);
      lease_.reset();
      return;
  }
}

void Desk::tellClaimant(Reply reply) {
  if (!claimant_) return;
  Claimant claimant = *std::exchange(claimant_, std::nullopt);
  claimant.tell(told(Reserved{
      .status = statusOf(reply), .time = options_.lease, .serverFinal = std::move(claimant.serverFinal)}));
}

/// The last client has ended: from here on nothing of it can reach the storage.
void Desk::cleared(std::uint64_t claim) {
  if (claim != claim_ || state_ != State::clearing) return;
  const Claimant& claimant = *claimant_;
  const auto saved = records_.change([&](SavedReservations& all) {
    all.granted = GrantedLease{.lease = claimant.lease, .holder = claimant.client.address};
  });
  if (saved) {
    lease_ = claimant.lease.id;
    log(LogLevel::notice, "reserved", "the server is reserved by {}", escaped(claimant.client.address));
  }
  apply(saved ? Event::cleared : Event::notSaved);
}

void Desk::expired() {
  const std::optional<GrantedLease> over = granted();
  log(LogLevel::notice, "reservation-expired", "{} was not heard of for {} s: the server is free again",
      over ? escaped(over->holder) : "the holder", options_.lease.count());
  // If that cannot be saved, a restart brings the lease back, and its time runs out once more.
  static_cast<void>(records_.change([](SavedReservations& all) { all.granted.reset(); }));
  apply(Event::expired);
}

// --- The operator

void Desk::setPassword(std::optional<std::string> password, Control::Answer<void> answer) {
  if (!password) return passwordMade(std::nullopt, answer);
  std::optional<std::string> prepared = preparePassword(*password);
  if (!prepared) {
    return answer(
        std::unexpected(Failure{FailureCode::invalidArgument,
                                fmt::format("a password has 1 to {} bytes of text without control characters",
                                            Limits::passwordLength)}));
  }
  hashing_.submit([this, alive = std::weak_ptr(alive_), &loop = loop_, prepared = *std::move(prepared),
                   iterations = options_.iterations, answer = std::move(answer)]() mutable {
    Verifier verifier = makeVerifier(prepared, iterations);
    loop.post([this, alive = std::move(alive), verifier = std::move(verifier),
               answer = std::move(answer)]() mutable {
      if (alive.lock()) passwordMade(std::move(verifier), answer);
    });
  });
}

void Desk::passwordMade(std::optional<Verifier> verifier, Control::Answer<void>& answer) {
  const auto saved = records_.change([&](SavedReservations& all) {
    all.verifier = verifier;
    if (!verifier) all.granted.reset();
  });
  if (!saved) return answer(std::unexpected(saved.error()));
  ++passwordNumber_;
  log(LogLevel::notice, "password-changed", "{}",
      verifier ? "the server can be reserved with a new password" : "the server cannot be reserved any more");
  apply(verifier ? Event::passwordSet : Event::passwordTaken);
  answer({});
}

Control::Result<Control::LocalServerReservationInfo> Desk::holder() const {
  const std::optional<GrantedLease> lease = granted();
  if (state_ != State::held || !lease) {
    return std::unexpected(Failure{FailureCode::notReserved, "nobody has reserved this server"});
  }
  const auto left = std::chrono::duration_cast<std::chrono::seconds>(until_ - Io::Clock::now());
  return Control::LocalServerReservationInfo{
      .endpoint = {.address = lease->holder},
      .properties = {{.name = "leaseSeconds", .value = static_cast<std::uint64_t>(options_.lease.count())},
                     {.name = "remainingSeconds",
                      .value = static_cast<std::uint64_t>(std::max<std::int64_t>(left.count(), 0))}}};
}

// --- The clients

void Desk::ask(const Client& client, Nbd::Extension::Kind kind, const Body& body, Tell tell) {
  if (kind == Kind::beginReserving) return beginReserving(client, body, std::move(tell));
  if (kind == Kind::finishReserving) return finishReserving(client, body, std::move(tell));
  if (kind == Kind::beginProof) return beginProof(client, body, std::move(tell));
  if (kind == Kind::finishProof) return finishProof(client, body, std::move(tell));
  tell(malformed());
}

void Desk::left(std::uint64_t client) {
  exchanges_.erase(client);
  if (claimant_ && claimant_->client.id == client) {
    claimant_.reset();
    apply(Event::claimantLeft);
  }
}

void Desk::beginReserving(const Client& client, const Body& body, Tell tell) {
  const std::optional<std::string> clientFirst = decodeScramMessage(body);
  if (!clientFirst) return tell(malformed());
  if (state_ == State::off) return tell(told(ReservingBegun{.status = Status::disabled}));
  const auto wait = limiter_.ask(networkOf(client.address), loop_.now());
  if (!wait) {
    log(LogLevel::warning, "too-many-attempts", "{} tries too many passwords", escaped(client.address));
    return tell(told(ReservingBegun{.status = Status::tooManyAttempts}));
  }
  if (*wait == Io::Clock::duration::zero()) return startScram(client, *clientFirst, std::move(tell));
  Exchange& exchange = exchanges_[client.id];
  exchange.turn = std::make_unique<Io::Timer>(
      loop_, [this, client, clientFirst = *clientFirst, tell = std::move(tell)]() mutable {
        // The timer goes when the exchange does, and takes with it what it holds.
        startScram(client, clientFirst, std::move(tell));
      });
  exchange.turn->start(*wait);
}

void Desk::startScram(const Client& client, const std::string& clientFirst, Tell tell) {
  const std::optional<Verifier> verifier = records_.read().verifier;
  if (!verifier) return tell(told(ReservingBegun{.status = Status::disabled}));
  ScramServer scram(*verifier, client.binding);
  std::optional<std::string> serverFirst = scram.begin(clientFirst);
  if (!serverFirst) return tell(malformed());
  Exchange& exchange = exchanges_[client.id];
  exchange.scram = std::move(scram);
  exchange.passwordNumber = passwordNumber_;
  tell(told(ReservingBegun{.status = Status::granted, .serverFirst = *std::move(serverFirst)}));
}

void Desk::finishReserving(const Client& client, const Body& body, Tell tell) {
  const std::optional<std::string> clientFinal = decodeScramMessage(body);
  const auto found = exchanges_.find(client.id);
  if (!clientFinal || found == exchanges_.end() || !found->second.scram) return tell(malformed());
  ScramServer scram = *std::exchange(found->second.scram, std::nullopt);
  ScramServer::Outcome outcome = scram.finish(*clientFinal);
  if (outcome.verdict == ScramServer::Verdict::malformed) return tell(malformed());
  if (state_ == State::off) return tell(told(Reserved{.status = Status::disabled}));
  if (outcome.verdict == ScramServer::Verdict::wrongPassword ||
      found->second.passwordNumber != passwordNumber_) {
    log(LogLevel::warning, "wrong-password", "{} wants to reserve the server with a wrong password",
        escaped(client.address));
    return tell(told(Reserved{.status = Status::wrongPassword}));
  }
  limiter_.succeeded(networkOf(client.address));
  claim(client, std::move(outcome), std::move(tell));
}

void Desk::claim(const Client& client, ScramServer::Outcome outcome, Tell tell) {
  const Exchange& exchange = exchanges_[client.id];
  const bool isHolder = lease_ && exchange.lease == lease_;
  const Event event = isHolder ? Event::claimedAgain : Event::claimed;
  const Reply reply = findTransition(state_, event)->reply;
  if (reply == Reply::later) {
    claimant_ = Claimant{.client = client,
                         .lease = leaseWith(outcome.leaseKey),
                         .serverFinal = std::move(outcome.serverFinal),
                         .tell = std::move(tell)};
  } else {
    tell(told(Reserved{
        .status = statusOf(reply), .time = options_.lease, .serverFinal = std::move(outcome.serverFinal)}));
  }
  apply(event);
}

void Desk::beginProof(const Client& client, const Body& body, Tell tell) {
  const std::optional<ProofBegin> begin = decodeProofBegin(body);
  if (!begin) return tell(malformed());
  Exchange& exchange = exchanges_[client.id];
  exchange.proof = *begin;
  exchange.serverNonce = randomOctets<std::tuple_size_v<Nonce>>();
  tell(told(exchange.serverNonce));
}

void Desk::finishProof(const Client& client, const Body& body, Tell tell) {
  const std::optional<ProofFinish> finish = decodeProofFinish(body);
  const auto found = exchanges_.find(client.id);
  if (!finish || found == exchanges_.end() || !found->second.proof) return tell(malformed());
  const ProofBegin begin = *std::exchange(found->second.proof, std::nullopt);
  const ProofContext context{.purpose = finish->purpose,
                             .clientNonce = begin.clientNonce,
                             .serverNonce = found->second.serverNonce,
                             .binding = client.binding};
  const std::optional<GrantedLease> lease = granted();
  if (state_ != State::held || !lease || lease->lease.id != begin.lease) {
    return tell(told(Proven{.status = Status::leaseLost}));
  }
  if (!isSame(finish->proof, holderProof(lease->lease, context))) {
    log(LogLevel::warning, "wrong-proof", "{} says that it holds the reservation and cannot show it",
        escaped(client.address));
    return tell(told(Proven{.status = Status::proofRefused}));
  }
  tell(context.purpose == Purpose::release ? release(client, *lease, context)
                                           : holdOn(client, *lease, context));
}

Told Desk::holdOn(const Client& client, const GrantedLease& granted, const ProofContext& context) {
  if (granted.holder != client.address) {
    log(LogLevel::info, "holder-moved", "the reservation's holder is at {} now", escaped(client.address));
    // Only what people are shown depends on it.
    static_cast<void>(records_.change([&](SavedReservations& all) { all.granted->holder = client.address; }));
  }
  exchanges_[client.id].lease = granted.lease.id;
  apply(Event::proven);
  Told answer = told(Proven{
      .status = Status::granted, .time = options_.lease, .serverProof = serverProof(granted.lease, context)});
  answer.lease = granted.lease.id;
  return answer;
}

Told Desk::release(const Client& client, const GrantedLease& granted, const ProofContext& context) {
  if (!records_.change([](SavedReservations& all) { all.granted.reset(); })) {
    return told(Proven{.status = Status::failed});
  }
  log(LogLevel::notice, "released", "{} has given the server back", escaped(client.address));
  apply(Event::released);
  return told(
      Proven{.status = Status::granted, .time = {}, .serverProof = serverProof(granted.lease, context)});
}

}  // namespace Nbdd::Reservations
