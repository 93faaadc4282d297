#pragma once

#include <memory>

#include "tests/simulation/world/socket.h"

namespace Simulation {

/// What is behind connections that the service makes by itself.
class Network {
 public:
  virtual ~Network() = default;
  /// The service asks for a socket, of which nothing is known yet.
  virtual std::shared_ptr<Socket> open() = 0;
  /// It begins to connect it: the socket is connecting(), or gets its verdict later.
  virtual void connect(Socket& socket) = 0;
};

}  // namespace Simulation
