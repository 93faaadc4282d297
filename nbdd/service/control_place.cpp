// inotify tells when the socket, the lock or the directory goes. The look that follows comes a little later:
// whoever takes away one of them is mostly about to take away the others, and a file that turns up in between
// would only make his rmdir fail. What inotify cannot tell (that a directory of which not even the parent is
// left may be made again) is found out by trying.

#include "nbdd/service/control_place.h"

#include <fmt/core.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "nbdd/control/listening_socket.h"
#include "nbdd/limits.h"
#include "nbdd/log/log.h"
#include "nbdd/service/start_up.h"

namespace Nbdd {

ControlPlace::ControlPlace(Io::EventLoop& loop, const Locations& locations, InstanceLock& lock,
                           Replace replace)
    : loop_(loop),
      locations_(locations),
      lock_(lock),
      replace_(std::move(replace)),
      group_(controlGroup(locations)),
      notifications_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      next_(loop, [this] { look(); }),
      delay_(Limits::controlRetryFirst) {
  if (notifications_ && loop_.watch(notifications_.number(), EPOLLIN, *this) != 0) notifications_.reset();
}

ControlPlace::~ControlPlace() {
  if (notifications_) loop_.unwatch(notifications_.number(), *this);
}

std::expected<Io::FileDescriptor, std::string> ControlPlace::listen() {
  auto listener = listenOnControlSocket(locations_.controlSocket(), group_);
  if (!listener) return listener;
  socket_ = identityOf(locations_.controlSocket());
  watch();
  return listener;
}

void ControlPlace::leave() {
  next_.cancel();
  if (notifications_) loop_.unwatch(notifications_.number(), *this);
  notifications_.reset();
  if (socket_ && identityOf(locations_.controlSocket()) == socket_) {
    ::unlink(locations_.controlSocket().c_str());
  }
  socket_.reset();
}

void ControlPlace::onEvents(std::uint32_t /*events*/) {
  alignas(inotify_event) std::array<char, 4096> events{};
  while (::read(notifications_.number(), events.data(), events.size()) > 0) {
  }
  delay_ = Limits::controlRetryFirst;
  if (!next_.running()) next_.start(delay_);
}

std::optional<ControlPlace::FileIdentity> ControlPlace::identityOf(const std::filesystem::path& path) {
  struct stat status{};
  if (::lstat(path.c_str(), &status) != 0) return {};
  return FileIdentity{status.st_dev, status.st_ino};
}

bool ControlPlace::isWhole() const {
  return socket_ && identityOf(locations_.controlSocket()) == socket_ && lock_.isAt(locations_.runtimeLock());
}

// What was lost before the directory was watched is found by the look after it.
void ControlPlace::watch() {
  constexpr std::uint32_t losses = IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
  const int watched =
      ::inotify_add_watch(notifications_.number(), locations_.runtimeDirectory.c_str(), losses);
  // A directory that was moved away is watched until it is let go.
  if (watched_ >= 0 && watched != watched_) ::inotify_rm_watch(notifications_.number(), watched_);
  watched_ = watched;
  if (watched_ < 0) {
    next_.start(Limits::controlRetryLongest);
  } else if (!isWhole()) {
    next_.start(Limits::controlRetryFirst);
  }
}

void ControlPlace::look() {
  if (isWhole()) {
    watch();
  } else {
    restore();
  }
}

void ControlPlace::restore() {
  auto listener = makeAnew();
  if (!listener) {
    if (!std::exchange(toldObstacle_, true)) {
      log(LogLevel::warning, "control-socket-lost",
          "the control socket is gone and cannot be made anew yet, which is tried again: {}",
          listener.error().sentence);
    }
    if (listener.error().brief) delay_ = Limits::controlRetryFirst;
    next_.start(delay_);
    delay_ = std::min(2 * delay_, Limits::controlRetryLongest);
    return;
  }
  log(LogLevel::notice, "control-socket-restored",
      "the control socket {} was gone from the file system and has been made anew",
      escaped(locations_.controlSocket().native()));
  toldObstacle_ = false;
  delay_ = Limits::controlRetryFirst;
  replace_(std::move(*listener));
  watch();
}

std::expected<Io::FileDescriptor, ControlPlace::Obstacle> ControlPlace::makeAnew() {
  if (auto made = prepareRuntimeDirectory(locations_); !made) {
    return std::unexpected(Obstacle{std::move(made.error())});
  }
  if (const std::filesystem::path file = locations_.runtimeLock(); !lock_.isAt(file)) {
    auto lock = InstanceLock::take(file);
    if (!lock) {
      // Another service may have begun there, and gives way as soon as it sees that the state is ours.
      return std::unexpected(
          Obstacle{fmt::format("the lock file {} cannot be taken ({})", escaped(file.native()),
                               std::generic_category().message(lock.error())),
                   lock.error() == EWOULDBLOCK});
    }
    lock_ = std::move(*lock);
  }
  auto listener = listenOnControlSocket(locations_.controlSocket(), group_);
  if (!listener) return std::unexpected(Obstacle{std::move(listener.error())});
  socket_ = identityOf(locations_.controlSocket());
  return std::move(*listener);
}

}  // namespace Nbdd
