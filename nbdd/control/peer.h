#pragma once

#include <sys/types.h>

#include <optional>

namespace Nbdd {

/// Who may use the control socket: root and `owner`, and for a system service the members of `group`.
struct ControlAccess {
  uid_t owner = 0;
  std::optional<gid_t> group;
};

/// Whether the process at the other end of the connected Unix socket, as it was when it connected, may use
/// it.
bool mayControl(int socket, const ControlAccess& access);

}  // namespace Nbdd
