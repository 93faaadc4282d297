#pragma once

#include "nbdd/service/options.h"

namespace Nbdd::Discovery {

/// Runs the multicast DNS responder: announces and searches as it is told over the socket `descriptor`,
/// reports what it sees, and ends with a goodbye when the other side closes the socket.
///
/// It is a process of its own: whatever anybody in the network sends, what may fail over it is this process,
/// not the one that serves exports. It gives up all privileges before it listens.
ExitCode runResponder(int descriptor);

}  // namespace Nbdd::Discovery
