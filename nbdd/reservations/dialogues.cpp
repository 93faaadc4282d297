#include "nbdd/reservations/dialogues.h"

#include <fmt/core.h>

#include <utility>

#include "nbdd/log/log.h"
#include "nbdd/reservations/digest.h"
#include "nbdd/reservations/limits.h"

namespace Nbdd::Reservations {

namespace {

using Control::Failure;
using Control::FailureCode;
using Nbd::Extension::Question;

/// The UUID of the server that the inquiry has found, if reservations can be talked about with it.
std::optional<std::string> reservableServer(const Nbd::Extension::Inquiry& inquiry) {
  const Nbd::Extension::Inquiry::Findings& found = inquiry.findings();
  const bool can = found.server && found.version &&
                   (found.server->capabilities & Nbd::Extension::Capability::reservation) != 0;
  if (!can) return std::nullopt;
  return Nbd::Extension::uuidText(found.server->server);
}

}  // namespace

Failure failureOf(Status status) {
  switch (status) {
    case Status::wrongPassword:
      return {FailureCode::wrongPassword, "the server has another password"};
    case Status::reservedByOther:
      return {FailureCode::reservedByOther, "somebody else has reserved the server"};
    case Status::disabled:
      return {FailureCode::reservationDisabled, "the server has no password, so it cannot be reserved"};
    case Status::tooManyAttempts:
      return {FailureCode::tooManyAttempts,
              "too many passwords were tried from this network: the server wants a pause"};
    case Status::leaseLost:
      return {FailureCode::notReserved, "the server is not reserved by this host any more"};
    default:
      return {FailureCode::remoteRefused, "the server could not do it"};
  }
}

// --- The proof

ProofDialogue::ProofDialogue(Nbd::Extension::Inquiry& before, const Records& records, Purpose purpose,
                             Channel channel)
    : before_(before), records_(records), channel_(std::move(channel)) {
  context_.purpose = purpose;
}

std::optional<Question> ProofDialogue::next() {
  answered_ = false;
  switch (stage_) {
    case Stage::before:
      if (std::optional<Question> question = before_.next()) return question;
      return begin();
    case Stage::nonce:
      stage_ = Stage::proof;
      return Question{.kind = Kind::finishProof,
                      .body = encode(ProofFinish{.purpose = context_.purpose,
                                                 .proof = holderProof(held_->lease, context_)})};
    case Stage::proof:
    case Stage::done:
      break;
  }
  stage_ = Stage::done;
  return std::nullopt;
}

std::optional<Question> ProofDialogue::begin() {
  if (const std::optional<std::string> server = reservableServer(before_)) held_ = records_.heldOf(*server);
  if (!held_) {
    stage_ = Stage::done;
    return std::nullopt;
  }
  stage_ = Stage::nonce;
  outcome_ = Outcome::refused;
  context_.clientNonce = randomOctets<std::tuple_size_v<Nonce>>();
  context_.binding = channel_();
  return Question{.kind = Kind::beginProof,
                  .body = encode(ProofBegin{.lease = held_->lease.id, .clientNonce = context_.clientNonce})};
}

bool ProofDialogue::take(Nbd::Bytes body) {
  if (stage_ == Stage::before) return before_.take(body);
  if (std::exchange(answered_, true)) return false;
  if (stage_ == Stage::proof) return takeProven(body);
  const std::optional<Nonce> nonce = decodeNonce(body);
  if (nonce) context_.serverNonce = *nonce;
  return nonce.has_value();
}

bool ProofDialogue::takeProven(Nbd::Bytes body) {
  const std::optional<Proven> answer = decodeProven(body);
  if (!answer) return false;
  if (answer->status == Status::leaseLost) outcome_ = Outcome::lost;
  if (answer->status != Status::granted) return true;
  // Whoever says so without the key only wants to be taken for the server.
  if (!isSame(answer->serverProof, serverProof(held_->lease, context_))) return false;
  outcome_ = Outcome::proven;
  time_ = answer->time;
  return true;
}

bool ProofDialogue::acknowledged() { return stage_ == Stage::before ? before_.acknowledged() : answered_; }

void ProofDialogue::refused(Nbd::Extension::Refusal refusal) {
  if (stage_ == Stage::before) return before_.refused(std::move(refusal));
  stage_ = Stage::done;
}

// --- Reserving

ReservingDialogue::ReservingDialogue(Nbd::Extension::Inquiry& before, Records& records, Wish wish,
                                     Channel channel)
    : before_(before),
      records_(records),
      wish_(std::move(wish)),
      channel_(std::move(channel)),
      proof_(before, records, Purpose::hold, channel_),
      result_(std::unexpected(Failure{FailureCode::connectionFailed, "the connection was lost"})) {}

std::optional<HeldLease> ReservingDialogue::undecided() const { return expecting_ ? held_ : std::nullopt; }

std::optional<Question> ReservingDialogue::next() {
  answered_ = false;
  switch (stage_) {
    case Stage::before:
      if (std::optional<Question> question = proof_.next()) return question;
      return begin();
    case Stage::first:
      return finish();
    case Stage::final:
    case Stage::done:
      break;
  }
  stage_ = Stage::done;
  return std::nullopt;
}

std::optional<Question> ReservingDialogue::begin() {
  stage_ = Stage::done;
  if (!reservableServer(before_)) {
    fail(FailureCode::extensionMissing, "that server knows nothing of reservations");
    return std::nullopt;
  }
  if (proof_.outcome() == ProofDialogue::Outcome::lost) records_.forget(proof_.held()->lease.id);
  stage_ = Stage::first;
  scram_.emplace(channel_());
  return Question{.kind = Kind::beginReserving, .body = encodeScramMessage(scram_->begin())};
}

/// The lease is saved before the server is asked to grant it, unless it is known to go on with another.
std::optional<Question> ReservingDialogue::finish() {
  stage_ = Stage::done;
  const std::optional<std::string> clientFinal = scram_->answer(serverFirst_, wish_.password);
  if (!clientFinal) {
    fail(FailureCode::remoteProtocolError, "the server's exchange about the password is not acceptable");
    return std::nullopt;
  }
  if (proof_.outcome() == ProofDialogue::Outcome::proven) {
    held_ = proof_.held();
  } else {
    held_ = HeldLease{
        .server = wish_.server, .uuid = *reservableServer(before_), .lease = leaseWith(scram_->leaseKey())};
    if (auto saved = records_.expect(*held_); !saved) {
      result_ = std::unexpected(saved.error());
      return std::nullopt;
    }
    expecting_ = true;
  }
  stage_ = Stage::final;
  return Question{.kind = Kind::finishReserving, .body = encodeScramMessage(*clientFinal)};
}

bool ReservingDialogue::take(Nbd::Bytes body) {
  if (stage_ == Stage::before) return proof_.take(body);
  if (std::exchange(answered_, true)) return false;
  if (stage_ == Stage::final) {
    const std::optional<Reserved> answer = decodeReserved(body);
    return answer && takeReserved(*answer);
  }
  std::optional<ReservingBegun> answer = decodeReservingBegun(body);
  if (!answer) return false;
  serverFirst_ = std::move(answer->serverFirst);
  if (answer->status != Status::granted) fail(answer->status);
  return true;
}

bool ReservingDialogue::takeReserved(const Reserved& answer) {
  const bool isGranted = answer.status == Status::granted && expecting_;
  const bool isRenewed = answer.status == Status::renewed && !expecting_;
  if (isGranted || isRenewed) {
    // A server that does not know the password itself grants nothing.
    if (!scram_->verify(answer.serverFinal)) return false;
    records_.confirm(held_->lease.id);
    result_ = answer.time;
  } else if (answer.status == Status::granted || answer.status == Status::renewed) {
    return false;
  } else {
    fail(answer.status);
    if (expecting_) records_.forget(held_->lease.id);
  }
  expecting_ = false;
  return true;
}

bool ReservingDialogue::acknowledged() { return stage_ == Stage::before ? proof_.acknowledged() : answered_; }

void ReservingDialogue::refused(Nbd::Extension::Refusal refusal) {
  if (stage_ == Stage::before) return proof_.refused(std::move(refusal));
  fail(FailureCode::remoteRefused, fmt::format("the server refused: {}", escaped(refusal.text)));
  if (std::exchange(expecting_, false)) records_.forget(held_->lease.id);
}

void ReservingDialogue::fail(Status status) {
  stage_ = Stage::done;
  result_ = std::unexpected(failureOf(status));
}

void ReservingDialogue::fail(FailureCode code, std::string message) {
  stage_ = Stage::done;
  result_ = std::unexpected(Failure{code, std::move(message)});
}

}  // namespace Nbdd::Reservations
