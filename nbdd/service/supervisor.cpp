#include "nbdd/service/supervisor.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>

#include <cstdint>

namespace Nbdd {

Supervisor::Supervisor(Io::EventLoop& loop) : watchdog_(loop, [this] { tellWatchdog(); }) {
  std::uint64_t interval = 0;
  if (::sd_watchdog_enabled(0, &interval) > 0) watchdogInterval_ = std::chrono::microseconds(interval);
}

std::expected<Io::FileDescriptor, std::string> Supervisor::inheritedControlSocket() {
  const int count = ::sd_listen_fds(1);
  if (count <= 0) return Io::FileDescriptor();
  const int number = SD_LISTEN_FDS_START;
  if (count > 1 || ::sd_is_socket(number, AF_UNIX, SOCK_STREAM, 1) <= 0) {
    return std::unexpected(
        "the service manager must pass one listening Unix stream socket: correct nbdd.socket");
  }
  Io::FileDescriptor socket(number);
  const int flags = ::fcntl(number, F_GETFL);
  if (flags < 0 || ::fcntl(number, F_SETFL, flags | O_NONBLOCK) != 0) {
    return std::unexpected("the socket that the service manager passed cannot be used: correct nbdd.socket");
  }
  return socket;
}

void Supervisor::ready(const std::string& status) {
  ::sd_notify(0, fmt::format("READY=1\nSTATUS={}", status).c_str());
  tellWatchdog();
}

void Supervisor::reloading() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
  ::sd_notify(0, fmt::format("RELOADING=1\nMONOTONIC_USEC={}", microseconds).c_str());
}

void Supervisor::stopping() { ::sd_notify(0, "STOPPING=1\nSTATUS=Ending"); }

void Supervisor::status(const std::string& text) { ::sd_notify(0, fmt::format("STATUS={}", text).c_str()); }

void Supervisor::tellWatchdog() {
  if (!watchdogInterval_) return;
  ::sd_notify(0, "WATCHDOG=1");
  watchdog_.start(*watchdogInterval_ / 2);
}

}  // namespace Nbdd
