#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "control/dispatcher.h"
#include "control/interface.h"
#include "nbdd/control/peer.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/file_descriptor.h"
#include "nbdd/io/scope.h"
#include "nbdd/io/task.h"

namespace Nbdd {

/// Serves the control socket: takes connections, reads calls, and sends the answers of a Control::Service.
///
/// Each connection is a coroutine that does its calls one at a time and answers them in order. What a client
/// can make the service hold is bounded by Control::Limits; when all connections are taken, the idlest makes
/// room for the new one, so that clients that only sit there never keep an operator out.
///
/// For the thread of its event loop, on which the service must answer too.
class ControlServer final : public Io::EventHandler {
 public:
  /// Serves from now on. `listener` is a listening Unix stream socket; `loop` and `service` must live longer.
  ControlServer(Io::EventLoop& loop, Control::Service& service, Control::Identity identity,
                Io::FileDescriptor listener, ControlAccess access);
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;
  /// `stop` must have been awaited.
  ~ControlServer() override;

  /// Takes connections from this socket from now on, and no more from the one before. Those that are open
  /// stay.
  void listenOn(Io::FileDescriptor listener);

  /// How many connections are open.
  std::size_t connections() const { return connections_.size(); }

  /// Takes no more connections and calls, lets the running calls end and their answers go out, and closes.
  Io::Task<void> stop();

  /// The listener is ready.
  void onEvents(std::uint32_t events) override;

 private:
  struct Connection;

  void acceptOne(Io::FileDescriptor socket);
  void pauseAccepting();
  bool closeIdlest();
  Io::Task<void> serve(std::unique_ptr<Connection> connection);
  Io::Task<bool> answer(Connection& connection, std::string_view message);
  Io::Task<bool> receive(Connection& connection);
  Io::Task<bool> send(Connection& connection);

  Io::EventLoop& loop_;
  Control::Dispatcher dispatcher_;
  Io::FileDescriptor listener_;
  ControlAccess access_;
  bool accepting_ = false;
  Io::Timer resumeAccepting_;
  std::list<Connection*> connections_;  // each is owned by its coroutine
  Io::Scope scope_;
};

}  // namespace Nbdd
