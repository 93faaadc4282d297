#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "nbdd/config/locations.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/file_descriptor.h"
#include "nbdd/state/state_store.h"

namespace Nbdd {

/// The place where clients look for the control socket: a directory, the lock in it, and the socket itself.
///
/// Runtime directories are swept away under running services: by a cleaning job, by a hand that meant well,
/// or with the rest of /run/user when its owner logs out. A service that goes on serving but that nobody can
/// reach cannot even be ended properly, so the place is watched, and made anew when any part of it is gone.
///
/// For the thread of its event loop.
class ControlPlace final : public Io::EventHandler {
 public:
  /// Takes a socket that listens at the place from now on, instead of the one before.
  using Replace = std::function<void(Io::FileDescriptor listener)>;

  /// `lock` is the lock in the runtime directory; it, `locations` and `loop` must live longer.
  ControlPlace(Io::EventLoop& loop, const Locations& locations, InstanceLock& lock, Replace replace);
  ~ControlPlace() override;
  ControlPlace(const ControlPlace&) = delete;
  ControlPlace& operator=(const ControlPlace&) = delete;

  /// Makes the socket and watches over the place from now on. A failure is a sentence that says what to do.
  std::expected<Io::FileDescriptor, std::string> listen();

  /// Takes the socket away, if it is still ours, and gives the place up.
  void leave();

  /// Something in the directory has changed.
  void onEvents(std::uint32_t events) override;

 private:
  using FileIdentity = std::pair<dev_t, ino_t>;

  static std::optional<FileIdentity> identityOf(const std::filesystem::path& path);
  bool isWhole() const;
  void watch();
  void look();
  void restore();
  /// Makes anew what is gone. The error has the sentence and whether somebody else holds the lock just now.
  struct Obstacle {
    std::string sentence;
    bool brief = false;
  };
  std::expected<Io::FileDescriptor, Obstacle> makeAnew();

  Io::EventLoop& loop_;
  const Locations& locations_;
  InstanceLock& lock_;
  const Replace replace_;
  const std::optional<gid_t> group_;
  std::optional<FileIdentity> socket_;

  Io::FileDescriptor notifications_;
  int watched_ = -1;  // the directory, as inotify knows it
  Io::Timer next_;
  std::chrono::milliseconds delay_;
  bool toldObstacle_ = false;
};

}  // namespace Nbdd
