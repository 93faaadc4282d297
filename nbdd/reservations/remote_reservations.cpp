#include "nbdd/reservations/remote_reservations.h"

#include <fmt/core.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "nbdd/log/log.h"
#include "nbdd/remote/address.h"
#include "nbdd/reservations/limits.h"

namespace Nbdd::Reservations {

namespace {

using Control::Failure;
using Control::FailureCode;

constexpr std::uint16_t usualPort = 10809;

/// The server that an operator names, or nothing if it is none.
std::optional<Control::Endpoint> serverAt(Control::Endpoint endpoint) {
  if (endpoint.port == 0) endpoint.port = usualPort;
  if (Remote::parseAddress(endpoint.address, endpoint.port).empty()) return std::nullopt;
  return endpoint;
}

std::unexpected<Failure> noServer() {
  return std::unexpected(Failure{FailureCode::invalidArgument, "that is no IP address of a server"});
}

std::uint64_t number(std::chrono::seconds time) { return static_cast<std::uint64_t>(time.count()); }

std::string nameOf(const Control::Endpoint& server) {
  return fmt::format("{} port {}", escaped(server.address), server.port);
}

}  // namespace

RemoteReservations::RemoteReservations(Io::EventLoop& loop, Records& records, Nbd::Extension::Hello self,
                                       std::shared_ptr<const Remote::SharedSecurity> security)
    : loop_(loop), records_(records), self_(std::move(self)), security_(std::move(security)) {}

void RemoteReservations::restore() {
  for (const HeldLease& held : records_.held()) {
    kept_[held.uuid].lease = held.lease.id;
    renewIn(held, std::chrono::milliseconds(0));
  }
}

void RemoteReservations::close() {
  closed_ = true;
  kept_.clear();
  errands_.clear();
}

std::vector<Control::RemoteServerReservationInfo> RemoteReservations::list() const {
  std::vector<Control::RemoteServerReservationInfo> list;
  for (const HeldLease& held : records_.held()) {
    Control::Variant properties;
    properties.push_back({.name = "uuid", .value = held.uuid});
    const auto kept = kept_.find(held.uuid);
    if (kept != kept_.end() && kept->second.time.count() != 0) {
      const auto age = std::chrono::duration_cast<std::chrono::seconds>(loop_.now() - kept->second.renewed);
      properties.push_back({.name = "leaseSeconds", .value = number(kept->second.time)});
      properties.push_back({.name = "renewedSecondsAgo", .value = number(age)});
    }
    list.push_back({.endpoint = held.server, .properties = std::move(properties)});
  }
  return list;
}

void RemoteReservations::setOut(Errand::Task task, Errand::Told told) {
  const std::uint64_t number = nextErrand_++;
  auto errand =
      std::make_unique<Errand>(loop_, records_, self_, security_->get(), std::move(task),
                               [this, number, told = std::move(told)](Errand::Report report) mutable {
                                 // The errand ends with the call, and takes the function along.
                                 const auto ended = errands_.extract(number);
                                 told(std::move(report));
                               });
  errands_.emplace(number, std::move(errand));
}

// --- Taking and giving back

void RemoteReservations::reserve(Control::RemoteServerReservationRequest request,
                                 Control::Answer<void> answer) {
  const std::optional<Control::Endpoint> server = serverAt(std::move(request.endpoint));
  if (!server) return answer(noServer());
  std::optional<std::string> password = preparePassword(request.password);
  // No server can have such a password.
  if (!password) return answer(std::unexpected(failureOf(Status::wrongPassword)));
  if (closed_ || errands_.size() >= Limits::reservationErrands) {
    return answer(std::unexpected(Failure{FailureCode::limitReached, "too many servers are being asked"}));
  }
  setOut({.server = *server, .password = std::move(password)},
         [this, server = *server, answer = std::move(answer)](Errand::Report report) mutable {
           reserved(server, std::move(report), answer);
         });
}

void RemoteReservations::reserved(const Control::Endpoint& server, Errand::Report report,
                                  Control::Answer<void>& answer) {
  if (report.undecided) return decide(std::move(report), std::move(answer));
  if (!report.reserved) {
    const bool isTold = report.reserved.error().code != FailureCode::connectionFailed;
    Failure failure = report.failure && !isTold ? *report.failure : report.reserved.error();
    return answer(std::unexpected(std::move(failure)));
  }
  log(LogLevel::notice, "server-reserved", "{} is reserved for this host", nameOf(server));
  keep(*report.held, *report.reserved);
  answer({});
}

/// The server was asked for the lease, and its answer was lost on the way: it is asked whether there is one.
void RemoteReservations::decide(Errand::Report report, Control::Answer<void> answer) {
  const HeldLease held = *report.undecided;
  records_.confirm(held.lease.id);
  setOut({.server = held.server, .password = {}, .purpose = Purpose::hold},
         [this, held, why = report.failure, answer = std::move(answer)](Errand::Report second) mutable {
           if (second.proof == ProofDialogue::Outcome::proven) {
             keep(held, second.time);
             return answer({});
           }
           if (second.proof == ProofDialogue::Outcome::lost) {
             records_.forget(held.lease.id);
           } else {
             // It may be ours: to be told by the renewals.
             renewIn(held, Limits::renewalRetryFirst);
           }
           answer(std::unexpected(
               why.value_or(Failure{FailureCode::connectionFailed, "the connection was lost"})));
         });
}

void RemoteReservations::unreserve(Control::Endpoint endpoint, Control::Answer<void> answer) {
  const std::optional<Control::Endpoint> server = serverAt(std::move(endpoint));
  if (!server) return answer(noServer());
  if (!records_.holdsAny()) return answer(std::unexpected(failureOf(Status::leaseLost)));
  if (closed_ || errands_.size() >= Limits::reservationErrands) {
    return answer(std::unexpected(Failure{FailureCode::limitReached, "too many servers are being asked"}));
  }
  setOut({.server = *server, .password = {}, .purpose = Purpose::release},
         [this, answer = std::move(answer)](Errand::Report report) mutable {
           released(std::move(report), answer);
         });
}

void RemoteReservations::released(Errand::Report report, Control::Answer<void>& answer) {
  switch (report.proof) {
    case ProofDialogue::Outcome::proven:
      forget(*report.held);
      log(LogLevel::notice, "server-released", "{} is given back", nameOf(report.held->server));
      return answer({});
    case ProofDialogue::Outcome::lost:
      lost(*report.held);
      return answer(std::unexpected(failureOf(Status::leaseLost)));
    case ProofDialogue::Outcome::none:
      return answer(std::unexpected(report.failure.value_or(failureOf(Status::leaseLost))));
    case ProofDialogue::Outcome::refused:
      return answer(std::unexpected(report.failure.value_or(failureOf(Status::failed))));
  }
}

// --- Keeping

void RemoteReservations::keep(const HeldLease& held, std::chrono::seconds time) {
  Keeping& keeping = kept_[held.uuid];
  keeping.lease = held.lease.id;
  keeping.time = time;
  keeping.pause = {};
  keeping.renewed = loop_.now();
  // Three attempts fit into the time, and hosts that came together do not stay together.
  const std::chrono::milliseconds third = std::chrono::milliseconds(time) / 3;
  std::uniform_int_distribution<std::int64_t> part(third.count() / 2, third.count());
  renewIn(held, std::chrono::milliseconds(part(random_)));
}

void RemoteReservations::renewIn(const HeldLease& held, std::chrono::milliseconds delay) {
  if (closed_) return;
  Keeping& keeping = kept_[held.uuid];
  keeping.lease = held.lease.id;
  if (!keeping.next) {
    keeping.next = std::make_unique<Io::Timer>(loop_, [this, uuid = held.uuid] { renew(uuid); });
  }
  keeping.next->start(delay);
}

void RemoteReservations::renew(const std::string& uuid) {
  const std::optional<HeldLease> held = records_.heldOf(uuid);
  if (!held) {
    loop_.defer([this, uuid] { kept_.erase(uuid); });
    return;
  }
  if (errands_.size() >= Limits::reservationErrands) return renewIn(*held, Limits::renewalRetryFirst);
  try {
    setOut({.server = held->server, .password = {}, .purpose = Purpose::hold},
           [this, held = *held](Errand::Report report) { renewed(held, std::move(report)); });
  } catch (const std::system_error&) {
    renewIn(*held, Limits::renewalRetryFirst);  // no thread is left just now
  }
}

void RemoteReservations::renewed(const HeldLease& held, Errand::Report report) {
  const std::optional<HeldLease> now = records_.heldOf(held.uuid);
  if (!now || now->lease.id != held.lease.id) return;  // given back meanwhile, or taken anew
  // At its address there may be another server by now, whose lease this host holds too.
  const bool isAnother = report.held && report.held->lease.id != held.lease.id;
  if (!isAnother && report.proof == ProofDialogue::Outcome::proven) return keep(held, report.time);
  if (!isAnother && report.proof == ProofDialogue::Outcome::lost) return lost(held);
  Keeping& keeping = kept_[held.uuid];
  if (keeping.pause == keeping.pause.zero()) {
    log(LogLevel::warning, "not-renewed", "the reservation of {} cannot be renewed for now: {}",
        nameOf(held.server),
        report.failure ? report.failure->message : std::string("another server answers, or it refuses"));
  }
  keeping.pause = std::clamp(2 * keeping.pause, Limits::renewalRetryFirst, Limits::renewalRetryLongest);
  renewIn(held, keeping.pause);
}

void RemoteReservations::lost(const HeldLease& held) {
  log(LogLevel::warning, "reservation-lost", "the reservation of {} is lost: it ended there",
      nameOf(held.server));
  forget(held);
}

void RemoteReservations::forget(const HeldLease& held) {
  records_.forget(held.lease.id);
  if (const auto kept = kept_.find(held.uuid); kept != kept_.end() && kept->second.lease == held.lease.id) {
    kept_.erase(kept);
  }
}

}  // namespace Nbdd::Reservations
