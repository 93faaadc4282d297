#pragma once

#include <string>
#include <vector>

namespace Host {

/// Where the local NBD service is found.
struct ServiceLocation {
  std::string socket;  ///< the control socket
  std::vector<std::string>
      programs;  ///< where nbdd may be, to be started when nothing listens; the first wins
};

/// The location for the user who runs this process: the socket is in $NBDD_RUNTIME_DIR if that is set, else
/// in /run/nbdd for root, and in $XDG_RUNTIME_DIR/nbdd (without one: /tmp/nbdd-<user number>) for everybody
/// else; nbdd is beside this program, in the libexec directory next to it, or in $PATH.
ServiceLocation findService();

}  // namespace Host
