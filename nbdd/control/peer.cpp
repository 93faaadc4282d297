#include "nbdd/control/peer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace Nbdd {

namespace {

std::vector<gid_t> supplementaryGroups(int socket) {
  std::vector<gid_t> groups(64);
  for (;;) {
    auto length = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    const int result = ::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length);
    const bool tooSmall = result != 0 && errno == ERANGE && length / sizeof(gid_t) > groups.size();
    if (result != 0 && !tooSmall) return {};
    groups.resize(length / sizeof(gid_t));
    if (result == 0) return groups;
  }
}

}  // namespace

bool mayControl(int socket, const ControlAccess& access) {
  ucred peer{};
  socklen_t length = sizeof peer;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
  if (peer.uid == 0 || peer.uid == access.owner) return true;
  return access.group &&
         (peer.gid == *access.group || std::ranges::count(supplementaryGroups(socket), *access.group) > 0);
}

}  // namespace Nbdd
