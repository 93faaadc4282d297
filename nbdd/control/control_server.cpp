#include "nbdd/control/control_server.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <optional>
#include <span>
#include <tuple>
#include <utility>

#include "control/framing.h"
#include "control/limits.h"
#include "control/message.h"
#include "control/methods.h"
#include "nbdd/io/listening.h"
#include "nbdd/io/signal.h"
#include "nbdd/io/stream.h"
#include "nbdd/log/log.h"

namespace Nbdd {

namespace {

namespace Limits = Control::Limits;
using Control::Failure;
using Control::FailureCode;

// Connections taken before those that are open have their turn.
constexpr int acceptsPerTurn = 16;

// How long nothing is accepted after the system had no descriptor left to give.
constexpr std::chrono::milliseconds acceptPause{100};

std::string framed(std::string message) {
  message += '\0';
  return message;
}

// Tells a client why it is not served. The message fits the socket's empty buffer.
void turnAway(const Io::FileDescriptor& socket, const Failure& reason) {
  const std::string message = framed(Control::ErrorReply::failed(reason));
  std::ignore = ::send(socket.number(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

// nbdctl shows its operator a number alone; the sentence that goes with it is found here.
void logRefusal(const Control::Refusal& refusal) {
  const auto& [method, failure] = refusal;
  // The usual answer to the question who holds the reservation, and no failure of anything.
  if (failure.code == FailureCode::notReserved && method == Control::Methods::serverGetReservation.name) {
    return;
  }
  const Control::FailureDescription* known = Control::describe(failure.code);
  log(LogLevel::notice, "operation-failed", "{} failed: {} ({}, 0x{:X})", method, failure.message,
      known != nullptr ? known->name : "unknown", static_cast<unsigned>(failure.code));
}

}  // namespace

struct ControlServer::Connection {
  Connection(ControlServer& owner, Io::FileDescriptor socket)
      : server(owner),
        stream(owner.loop_, std::move(socket)),
        lastUse(owner.loop_.now()),
        place(owner.connections_.insert(owner.connections_.end(), this)) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { server.connections_.erase(place); }

  // What makes one connection a better one to close than another: first those that have never said anything
  // whole or stopped in the middle, then those that were used longest ago.
  auto idleness() const { return std::tuple(completedCalls && !framing.hasPartialMessage(), lastUse); }

  ControlServer& server;
  Io::Stream stream;
  Control::Framing framing{Limits::requestLength};
  std::string output;    // replies that are not sent yet
  bool waiting = false;  // for the client to say something; nothing else is under way
  bool completedCalls = false;
  Io::Clock::time_point lastUse;
  std::list<Connection*>::iterator place;
};

ControlServer::ControlServer(Io::EventLoop& loop, Control::Service& service, Control::Identity identity,
                             Io::FileDescriptor listener, ControlAccess access)
    : loop_(loop),
      dispatcher_(service, std::move(identity)),
      access_(access),
      resumeAccepting_(loop, [this] { accepting_ = loop_.watch(listener_.number(), EPOLLIN, *this) == 0; }) {
  listenOn(std::move(listener));
}

ControlServer::~ControlServer() {
  if (scope_.running() != 0) std::terminate();
  if (accepting_) loop_.unwatch(listener_.number(), *this);
}

void ControlServer::listenOn(Io::FileDescriptor listener) {
  if (std::exchange(accepting_, false)) loop_.unwatch(listener_.number(), *this);
  listener_ = std::move(listener);
  const int flags = ::fcntl(listener_.number(), F_GETFL);
  ::fcntl(listener_.number(), F_SETFL, flags | O_NONBLOCK);
  resumeAccepting_.start(Io::Clock::duration::zero());
}

void ControlServer::onEvents(std::uint32_t /*events*/) {
  for (int count = 0; count < acceptsPerTurn; ++count) {
    Io::FileDescriptor socket(::accept4(listener_.number(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (socket) {
      acceptOne(std::move(socket));
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      // Level-triggered, the listener would be reported again at once.
      if (Io::isConnectionWaiting(listener_.number()) && !closeIdlest()) pauseAccepting();
      return;
    } else if (errno != EINTR && errno != ECONNABORTED) {
      return;
    }
  }
}

void ControlServer::acceptOne(Io::FileDescriptor socket) {
  if (!mayControl(socket.number(), access_)) {
    turnAway(socket, {FailureCode::accessDenied, "this user may not control the service"});
  } else if (connections_.size() >= Limits::connections && !closeIdlest()) {
    turnAway(socket, {FailureCode::limitReached, "too many clients control the service at the same time"});
  } else {
    scope_.spawn(serve(std::make_unique<Connection>(*this, std::move(socket))));
  }
}

void ControlServer::pauseAccepting() {
  loop_.unwatch(listener_.number(), *this);
  accepting_ = false;
  resumeAccepting_.start(acceptPause);
}

// Ends the connection that has been of no use for longest. False if all of them are in the middle of
// something.
bool ControlServer::closeIdlest() {
  const Connection* idlest = nullptr;
  for (const Connection* connection : connections_) {
    if (connection->waiting && (idlest == nullptr || connection->idleness() < idlest->idleness()))
      idlest = connection;
  }
  if (idlest == nullptr) return false;
  (*idlest->place)->stream.interruptReading();
  return true;
}

Io::Task<void> ControlServer::stop() {
  resumeAccepting_.cancel();
  if (std::exchange(accepting_, false)) loop_.unwatch(listener_.number(), *this);
  listener_.reset();
  scope_.requestStop();
  for (auto next = connections_.begin(); next != connections_.end();) {
    Connection& connection = **next++;  // which ends inside the next line if it is waiting
    connection.stream.interruptReading();
  }
  auto ended = scope_.join();
  co_await ended;
}

Io::Task<void> ControlServer::serve(std::unique_ptr<Connection> connection) {
  Control::Framing& framing = connection->framing;
  std::size_t callsThisTurn = 0;
  bool open = true;
  while (open) {
    const auto message = scope_.stopRequested() ? std::nullopt : framing.next();
    if (message) {
      auto answering = answer(*connection, *message);
      open = co_await answering;
      ++callsThisTurn;
    } else if (framing.isTooLong()) {
      connection->output +=
          framed(Control::ErrorReply::failed({FailureCode::protocolError, "the message is too long"}));
      open = false;
    }
    // Replies to calls that came together leave together.
    const bool more = message && open && callsThisTurn < Limits::callsPerTurn;
    if (more && connection->output.size() < Limits::queuedReplies) continue;
    auto sending = send(*connection);
    if (!co_await sending || !open || scope_.stopRequested()) break;
    if (callsThisTurn >= Limits::callsPerTurn) {
      callsThisTurn = 0;
      Io::EndOfTurn endOfTurn(loop_);
      co_await endOfTurn;
    } else if (!message) {
      callsThisTurn = 0;
      auto receiving = receive(*connection);
      open = co_await receiving;
    }
  }
}

// Has one call done and puts its reply with the others. False if the connection is to end after it.
Io::Task<bool> ControlServer::answer(Connection& connection, std::string_view message) {
  std::optional<Control::Outcome> outcome;
  Io::Signal answered(loop_);
  dispatcher_.dispatch(message, [&outcome, &answered](Control::Outcome result) {
    outcome = std::move(result);
    answered.notify();
  });
  // While this call takes its time, the client can have the answers to the ones before.
  bool open = true;
  if (!outcome && !connection.output.empty()) {
    auto sending = send(connection);
    open = co_await sending;
  }
  while (!outcome) {
    auto waiting = answered.wait();
    co_await waiting;
  }
  connection.completedCalls = true;
  connection.lastUse = loop_.now();
  if (outcome->refusal) logRefusal(*outcome->refusal);
  if (!outcome->reply.empty()) connection.output += framed(std::move(outcome->reply));
  co_return open && !outcome->close;
}

// Waits for the next bytes. False when none will come.
Io::Task<bool> ControlServer::receive(Connection& connection) {
  for (;;) {
    const std::span<char> room = connection.framing.prepare();
    const ssize_t count = connection.stream.receive(std::as_writable_bytes(room));
    if (count > 0) {
      connection.framing.commit(static_cast<std::size_t>(count));
      co_return true;
    }
    if (count != -EAGAIN) co_return false;
    connection.waiting = true;
    auto readable = connection.stream.readable();
    const auto wake = co_await readable;
    connection.waiting = false;
    if (wake == Io::Stream::Wake::interrupted) co_return false;
  }
}

// Sends all replies. False if the client is gone, or takes nothing for too long.
Io::Task<bool> ControlServer::send(Connection& connection) {
  Io::Timer stalled(loop_, [&connection] { connection.stream.shutDown(); });
  std::span<const char> rest(connection.output);
  while (!rest.empty()) {
    const ssize_t count = connection.stream.send(std::as_bytes(rest));
    if (count > 0) {
      rest = rest.subspan(static_cast<std::size_t>(count));
    } else if (count == -EAGAIN) {
      stalled.start(Limits::stalledClient);
      auto writable = connection.stream.writable();
      co_await writable;
      stalled.cancel();
    } else {
      co_return false;
    }
  }
  // One great listing must not keep its room for as long as the client stays connected.
  if (connection.output.capacity() > 2 * Limits::queuedReplies) connection.output = {};
  connection.output.clear();
  co_return true;
}

}  // namespace Nbdd
