#include "nbdd/remote/device.h"

#include <fmt/core.h>

#include <algorithm>
#include <iterator>
#include <random>

#include "nbd/contract.h"
#include "nbd/extension_inquiry.h"
#include "nbdd/log/log.h"
#include "nbdd/reservations/presentation.h"

// Each link is a coroutine that keeps one connection: dials, uses it until it ends, pauses, dials again.
// Requests wait in one queue and go to the connection that has the fewest. Those of a connection that has
// ended come back to the front of the queue, in their order.

namespace Nbdd::Remote {

namespace {

using Control::Failure;
using Control::FailureCode;
using Nbd::ClientHandshake;
namespace Flag = Nbd::TransmissionFlag;

/// What an export can do, as far as programs rely on it.
constexpr std::uint16_t capabilities = Flag::sendFlush | Flag::sendFua | Flag::sendTrim |
                                       Flag::sendWriteZeroes | Flag::sendCache | Flag::sendFastZero;

Nbd::Request wireRequest(const Request& request, Nbd::HeaderStyle headers) {
  return {.flags = static_cast<std::uint16_t>(request.flags | Nbd::plainFlags(request.command, headers)),
          .type = request.command,
          .offset = request.offset,
          .length = request.length};
}

constexpr std::uint64_t fill = 256UL << 10;

bool isEmptyTransfer(const Request& request) {
  return request.length == 0 && request.command != Nbd::Command::flush &&
         request.command != Nbd::Command::blockStatus;
}

}  // namespace

Device::Device(Io::EventLoop& loop, Options options, Events events)
    : loop_(loop),
      options_(std::move(options)),
      events_(std::move(events)),
      geometry_(options_.geometry),
      compression_(options_.compression),
      needsSeveral_(geometry_.has_value()) {}

Device::Options Device::forAnother() const {
  Options options = options_;
  options.connections = 1;
  options.geometry = geometry_;
  options.compression = compression_;
  return options;
}

bool Device::allowsSeveral() const { return (geometry_->limits.transmissionFlags & Flag::canMultiConn) != 0; }

void Device::start() {
  links_.emplace_back(loop_);
  scope_.spawn(keepConnected(0));
}

void Device::connectMore() {
  while (allowsSeveral() && links_.size() < options_.connections) {
    links_.emplace_back(loop_);
    scope_.spawn(keepConnected(links_.size() - 1));
  }
}

Io::Task<void> Device::keepConnected(std::size_t number) {
  Link& link = links_[number];
  Backoff backoff(options_.pauses, std::random_device{}());
  while (!stopping_) {
    Dialler dialler(loop_, options_.server, options_.patience,
                    options_.security == nullptr ? Security() : options_.security->get());
    link.dialler = &dialler;
    const bool compression = compression_;
    Nbd::Extension::Inquiry::Wish wish;
    wish.self = options_.self;
    if (compression) wish.compression = Nbd::Extension::Compression{.blockLength = Limits::compressionBlock};
    Nbd::Extension::Inquiry inquiry(std::move(wish));
    Reservations::Presentation presentation(inquiry, options_.reservations,
                                            [&dialler] { return dialler.channelBinding(); });
    Nbd::Extension::Dialogue* dialogue = presentation.dialogue();
    if (dialogue == nullptr && compression) dialogue = &inquiry;
    Io::Task<DialResult> dialling =
        dialler.dial({.exportName = options_.exportName, .extendedHeaders = true, .dialogue = dialogue});
    DialResult dialled = co_await dialling;
    link.dialler = nullptr;
    presentation.conclude();
    if (dialled) dialled->compression = inquiry.findings().compression;
    if (dialled && compression != compression_) continue;  // switched meanwhile
    if (stopping_) break;
    std::optional<Failure> refused;
    if (!dialled) {
      refused = std::move(dialled.error());
    } else {
      refused = refusal(dialled->agreement);
    }
    if (refused) {
      if (live_.empty()) events_.waiting(*refused);
    } else {
      Io::Task<void> using_ = use(link, std::move(*dialled), backoff);
      co_await using_;
    }
    if (stopping_) break;
    if (std::exchange(link.again, false)) continue;
    Io::Task<void> pausing = pause(backoff.next(), link.wake);
    co_await pausing;
  }
}

Io::Task<void> Device::use(Link& link, Dialled dialled, Backoff& backoff) {
  if (!link.unproven.empty()) {
    Io::Task<void> settling = pause(options_.settleTime, link.wake);
    co_await settling;
    if (stopping_) co_return;
    waiting_.insert(waiting_.begin(), link.unproven.begin(), link.unproven.end());
    link.unproven.clear();
  }
  Connection connection(
      loop_, std::move(dialled),
      {.answered = [this] { distribute(); },
       .draining = [this, &link](const std::string& reason) { draining(*link.connection, reason); }});
  link.connection = &connection;
  const Io::Clock::time_point begin = Io::Clock::now();
  live_.push_back(&connection);
  events_.changed();
  if (live_.size() == 1) events_.connected();
  connectMore();
  distribute();
  Io::Task<Connection::Ending> running = connection.run();
  const Connection::Ending ending = co_await running;
  link.connection = nullptr;
  std::erase(live_, &connection);
  events_.changed();
  if (connection.provedGood()) backoff.reset();
  link.again = connection.hasLeft() && ending.kind != Connection::Ending::Kind::silent;
  if (Io::Clock::now() - begin > Limits::shortLife) violations_ = 0;
  ended(link, connection, ending);
}

/// It is of no more use, whenever it ends.
void Device::draining(Connection& connection, const std::string& reason) {
  std::erase(live_, &connection);
  events_.changed();
  if (live_.empty()) events_.waiting(failure(FailureCode::connectionFailed, reason));
}

void Device::ended(Link& link, Connection& connection, const Connection::Ending& ending) {
  const std::vector<Request*> unanswered = connection.takeUnanswered();
  if (stopping_) {
    for (Request* const request : unanswered) fail(*request, Nbd::Error::io);
    return;
  }
  if (ending.kind == Connection::Ending::Kind::silent) {
    link.unproven = unanswered;
  } else {
    waiting_.insert(waiting_.begin(), unanswered.begin(), unanswered.end());
  }
  if (ending.kind == Connection::Ending::Kind::violation && ++violations_ >= Limits::violationsInARow) {
    return giveUp(ending.reason);
  }
  if (!link.again && live_.empty()) {
    events_.waiting(failure(FailureCode::connectionFailed, ending.reason));
  }
  distribute();
}

Io::Task<void> Device::pause(std::chrono::milliseconds time, Io::Signal& wake) {
  Io::Timer timer(loop_, [&wake] { wake.notify(); });
  timer.start(time);
  while (timer.running() && !stopping_) {
    Io::Signal::Waiting waiting = wake.wait();
    co_await waiting;
  }
}

// --- The same export or none

Device::Geometry Device::geometryOf(const ClientHandshake::Agreement& agreement, bool readOnly) {
  Geometry geometry{.limits = agreement.limits(), .preferredBlock = agreement.remote.preferredBlock};
  if (readOnly) geometry.limits.transmissionFlags |= Flag::readOnly;
  return geometry;
}

std::optional<Failure> Device::refusal(const ClientHandshake::Agreement& agreement) {
  const Geometry offered = geometryOf(agreement, options_.readOnly);
  if (!geometry_) {
    geometry_ = offered;
    return std::nullopt;
  }
  const Nbd::ExportLimits& was = geometry_->limits;
  const Nbd::ExportLimits& is = offered.limits;
  std::string what;
  if (is.size != was.size) {
    what = fmt::format("the export has {} bytes now instead of {}", is.size, was.size);
  } else if (((is.transmissionFlags ^ was.transmissionFlags) & Flag::readOnly) != 0) {
    what = (is.transmissionFlags & Flag::readOnly) != 0
               ? "the export can only be read now"
               : "the export can be written now, but could not before";
  } else if ((was.transmissionFlags & ~is.transmissionFlags & capabilities) != 0 ||
             (was.blockStatus && !is.blockStatus)) {
    what = "the server offers less for the export than it did";
  } else if (is.minimumBlock > was.minimumBlock || is.maximumPayload < was.maximumPayload) {
    what = fmt::format("the export takes blocks of {} to {} bytes now instead of {} to {}", is.minimumBlock,
                       is.maximumPayload, was.minimumBlock, was.maximumPayload);
  } else if (was.headers == Nbd::HeaderStyle::extended && is.headers != was.headers) {
    what = "the server takes no requests of the same lengths any more";
  } else if ((links_.size() > 1 || needsSeveral_) && (is.transmissionFlags & Flag::canMultiConn) == 0) {
    what = "the server does not promise any more that several connections see the same";
  } else {
    return std::nullopt;
  }
  return failure(FailureCode::remoteExportChanged, what);
}

Failure Device::failure(FailureCode code, std::string_view what) const {
  return {code, fmt::format("{} port {}: {}", escaped(options_.server.host), options_.server.port, what)};
}

// --- Compression

void Device::setCompression(bool enable) {
  if (compression_ == enable) return;
  compression_ = enable;
  for (Connection* const connection : live_) connection->leave();
}

// --- Requests

void Device::submit(Request& request) {
  Nbd::require(geometry_.has_value());
  if (stopping_) return fail(request, Nbd::Error::io);
  const Nbd::ExportLimits& limits = geometry_->limits;
  if (request.length > maximumLength(limits)) return fail(request, Nbd::Error::inval);
  if (const auto error = Nbd::validate(wireRequest(request, limits.headers), limits)) {
    return fail(request, *error);
  }
  if (isEmptyTransfer(request)) return fail(request, Nbd::Error::none);
  waiting_.push_back(&request);
  distribute();
}

void Device::withdraw(Request& request) {
  if (std::erase(waiting_, &request) != 0) {
    fail(request, Nbd::Error::io);
  } else if (events_.withdraw) {
    events_.withdraw(request);
  }
}

/// Many small requests go the same way, because what is sent and received together costs less; what is more
/// than one connection should carry goes where there is least.
Connection* Device::chooseConnection() const {
  Connection* best = nullptr;
  for (Connection* const candidate : live_) {
    if (!candidate->hasRoom()) continue;
    if (candidate->load() < fill) return candidate;
    if (best == nullptr || candidate->load() < best->load()) best = candidate;
  }
  return best;
}

void Device::distribute() {
  while (!waiting_.empty()) {
    Connection* const best = chooseConnection();
    if (best == nullptr) break;
    best->submit(*waiting_.front());
    waiting_.pop_front();
  }
  if (live_.empty() && events_.takeOver) handOver();
}

void Device::handOver() {
  for (Request* const request : std::exchange(waiting_, {})) events_.takeOver(*request);
}

void Device::fail(Request& request, Nbd::Error error) {
  failed_.emplace_back(&request, error);
  if (failed_.size() == 1) scope_.spawn(tellFailed());
}

Io::Task<void> Device::tellFailed() {
  Io::EndOfTurn turn(loop_);
  co_await turn;
  for (const auto& [request, error] : std::exchange(failed_, {})) request->done(error);
}

void Device::failAll() {
  for (Request* const request : std::exchange(waiting_, {})) fail(*request, Nbd::Error::io);
  for (Link& link : links_) {
    for (Request* const request : std::exchange(link.unproven, {})) fail(*request, Nbd::Error::io);
  }
}

void Device::giveUp(const std::string& reason) {
  if (events_.takeOver) handOver();
  stop();
  events_.failed(failure(FailureCode::remoteProtocolError, reason));
}

void Device::stop() {
  stopping_ = true;
  failAll();
  for (Link& link : links_) {
    link.wake.notify();
    if (link.dialler != nullptr) link.dialler->cancel();
    if (link.connection != nullptr) link.connection->stop();
  }
}

}  // namespace Nbdd::Remote
