#pragma once

#include <chrono>
#include <expected>
#include <optional>
#include <string>

#include "nbdd/io/event_loop.h"
#include "nbdd/io/file_descriptor.h"

namespace Nbdd {

/// The service manager that may have started us: systemd, if anybody. Without one every function does
/// nothing.
class Supervisor {
 public:
  explicit Supervisor(Io::EventLoop& loop);

  /// The control socket that the service manager listens on for us; an empty descriptor when it does not.
  /// More than one socket, or another kind of socket, is a failure: a sentence that says what to do.
  static std::expected<Io::FileDescriptor, std::string> inheritedControlSocket();

  /// Everything is served. From now on the watchdog is told, as long as the control loop turns.
  void ready(const std::string& status);
  void reloading();
  void stopping();
  void status(const std::string& text);

 private:
  void tellWatchdog();

  Io::Timer watchdog_;
  std::optional<std::chrono::microseconds> watchdogInterval_;
};

}  // namespace Nbdd
