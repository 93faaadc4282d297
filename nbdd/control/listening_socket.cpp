#include "nbdd/control/listening_socket.h"

#include <fmt/core.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace Nbdd {

namespace {

std::unexpected<std::string> cannot(const std::string& path) {
  return std::unexpected(
      fmt::format("the control socket {} cannot be made ({}): see to its directory, or set "
                  "NBDD_RUNTIME_DIR to another one",
                  path, std::generic_category().message(errno)));
}

// Under this name nobody can find the socket before it is ready.
std::string temporaryName(const std::string& path) { return fmt::format("{}.{}", path, ::getpid()); }

// Nobody can connect before `listen`, so ownership and mode are right by then.
bool makeReady(const Io::FileDescriptor& socket, const std::string& name, std::optional<gid_t> group) {
  constexpr auto unchanged = static_cast<uid_t>(-1);
  if (group && ::chown(name.c_str(), unchanged, *group) != 0) return false;
  if (::chmod(name.c_str(), group ? 0660 : 0600) != 0) return false;
  return ::listen(socket.number(), SOMAXCONN) == 0;
}

}  // namespace

std::expected<Io::FileDescriptor, std::string> listenOnControlSocket(const std::string& path,
                                                                     std::optional<gid_t> group) {
  const std::string temporary = temporaryName(path);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (temporary.size() >= sizeof address.sun_path) {
    return std::unexpected(
        fmt::format("the path of the control socket is too long ({} bytes of at most {}): {}: set "
                    "NBDD_RUNTIME_DIR to a shorter one",
                    temporary.size(), sizeof address.sun_path - 1, path));
  }
  std::memcpy(address.sun_path, temporary.data(), temporary.size());

  if (const auto slash = path.rfind('/'); slash != std::string::npos && slash > 0) {
    if (::mkdir(path.substr(0, slash).c_str(), 0700) != 0 && errno != EEXIST) return cannot(path);
  }
  Io::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return cannot(path);
  ::unlink(temporary.c_str());
  if (::bind(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return cannot(path);
  if (!makeReady(socket, temporary, group) || ::rename(temporary.c_str(), path.c_str()) != 0) {
    const int error = errno;
    ::unlink(temporary.c_str());
    errno = error;
    return cannot(path);
  }
  return socket;
}

}  // namespace Nbdd
