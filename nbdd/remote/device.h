#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "control/failure.h"
#include "nbd/client_handshake.h"
#include "nbd/extension.h"
#include "nbd/validation.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/scope.h"
#include "nbdd/io/signal.h"
#include "nbdd/io/task.h"
#include "nbdd/limits.h"
#include "nbdd/remote/backoff.h"
#include "nbdd/remote/connection.h"
#include "nbdd/remote/dialler.h"
#include "nbdd/remote/request.h"
#include "nbdd/reservations/records.h"

namespace Nbdd::Remote {

/// A remote export as storage that does not go away: requests are answered by the server, over one connection
/// or several, however often these have to be made again. docs/imports.md states the rules that keep this
/// safe. One loop's thread.
class Device {
 public:
  /// What an export was when it was first seen.
  struct Geometry {
    Nbd::ExportLimits limits;
    std::uint32_t preferredBlock = 0;
  };

  struct Options {
    Place server;
    std::string exportName;
    bool readOnly = false;            ///< never write, whatever the server allows
    bool compression = false;         ///< compress transfers, where the server can
    Nbd::Extension::Hello self = {};  ///< what a server of our own kind is told of this one
    std::size_t connections = Limits::importConnections;
    Dialler::Patience patience = Dialler::usualPatience();
    Backoff::Pauses pauses = {};
    std::chrono::milliseconds settleTime = Limits::settleTime;
    std::optional<Geometry> geometry = {};          ///< of an export that is known already: that or none
    Reservations::Records* reservations = nullptr;  ///< leases, to be shown to their servers; outlive this
    std::shared_ptr<const SharedSecurity> security = {};  ///< null: connections are in the clear
  };

  /// What users of the device have to know, on the loop's thread. None of them may destroy the device.
  struct Events {
    /// There is a connection, now or again.
    std::function<void()> connected;
    /// There is none any more, or an attempt to make one has failed: why. Another attempt follows.
    std::function<void(const Control::Failure&)> waiting;
    /// The server cannot be worked with: what was asked has failed, and no more attempts are made.
    std::function<void(const Control::Failure&)> failed;
    /// connections() is another number.
    std::function<void()> changed = [] {};
    /// If set: takes requests over while there is no connection, instead of keeping them waiting.
    std::function<void(Request&)> takeOver = {};
    /// With takeOver: a request is withdrawn that may have been taken over.
    std::function<void(Request&)> withdraw = {};
  };

  Device(Io::EventLoop& loop, Options options, Events events);
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  /// Begins to connect.
  void start();

  /// Options for another device of the same export, on another loop, with one connection of its own. Only of
  /// an export that several connections see the same.
  Options forAnother() const;

  /// What the export is, and the limits of requests; known from the first `connected` on, and from then on
  /// the same.
  const Nbd::ExportLimits& limits() const { return geometry_->limits; }
  /// Bytes that a request without data may be about; a multiple of any block size.
  static std::uint64_t maximumLength(const Nbd::ExportLimits& limits) {
    constexpr std::uint64_t compact = std::uint64_t{1} << 31;
    return limits.headers == Nbd::HeaderStyle::extended ? std::numeric_limits<std::uint64_t>::max() : compact;
  }
  std::uint32_t preferredBlock() const { return geometry_->preferredBlock; }
  bool hasGeometry() const { return geometry_.has_value(); }
  /// Whether the server promises that several connections see the same.
  bool allowsSeveral() const;
  std::size_t connections() const { return live_.size(); }

  /// Compresses transfers, or does not: connections that agreed on something else take nothing new, finish
  /// what they have, and are made anew.
  void setCompression(bool enable);

  /// Asks the server, sooner or later. A request that the limits forbid is answered without it.
  void submit(Request& request);
  /// Whoever asked wants no answer to this request any more: if it waits for a connection, it fails, and has
  /// no effect from then on that it has not had by now. What a server has in its hands stays there, and is
  /// answered some time.
  void withdraw(Request& request);

  /// Ends it: connections are closed at once, requests that are not answered fail. Then `stopped` ends.
  void stop();
  Io::Scope::Joined stopped() { return scope_.join(); }

 private:
  struct Link {
    explicit Link(Io::EventLoop& loop) : wake(loop) {}
    Io::Signal wake;
    Dialler* dialler = nullptr;
    Connection* connection = nullptr;  ///< live, or waiting for its end
    bool again = false;                ///< the connection was ended to be made anew at once
    std::vector<Request*> unproven;    ///< of a connection that ended in silence
  };

  Io::Task<void> keepConnected(std::size_t number);
  Io::Task<void> use(Link& link, Dialled dialled, Backoff& backoff);
  Io::Task<void> pause(std::chrono::milliseconds time, Io::Signal& wake);
  Io::Task<void> tellFailed();
  void connectMore();
  void draining(Connection& connection, const std::string& reason);
  void ended(Link& link, Connection& connection, const Connection::Ending& ending);
  Connection* chooseConnection() const;
  void distribute();
  void handOver();
  void fail(Request& request, Nbd::Error error);
  void failAll();
  void giveUp(const std::string& reason);

  /// Why the export as it was now negotiated cannot stand in for what it was at first; the first time it sets
  /// what it was.
  std::optional<Control::Failure> refusal(const Nbd::ClientHandshake::Agreement& agreement);
  Control::Failure failure(Control::FailureCode code, std::string_view what) const;
  static Geometry geometryOf(const Nbd::ClientHandshake::Agreement& agreement, bool readOnly);

  Io::EventLoop& loop_;
  const Options options_;
  const Events events_;
  std::optional<Geometry> geometry_;
  bool compression_;
  const bool needsSeveral_;  // there are connections that are not this device's
  bool stopping_ = false;
  int violations_ = 0;

  std::deque<Request*> waiting_;                         // for a connection with room
  std::vector<std::pair<Request*, Nbd::Error>> failed_;  // whoever asked is to be told at the end of the turn
  std::deque<Link> links_;
  std::vector<Connection*> live_;
  Io::Scope scope_;
};

}  // namespace Nbdd::Remote
