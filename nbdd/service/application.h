#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "nbdd/config/configuration.h"
#include "nbdd/config/locations.h"
#include "nbdd/control/control_server.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/scope.h"
#include "nbdd/reservations/records.h"
#include "nbdd/service/control_place.h"
#include "nbdd/service/local_service.h"
#include "nbdd/service/options.h"
#include "nbdd/service/signals.h"
#include "nbdd/service/start_up.h"
#include "nbdd/service/supervisor.h"

namespace Nbdd {

/// The whole service: everything that `main` starts, in the order in which it is started, and the way it
/// ends.
///
/// The first SIGTERM or SIGINT ends it after the running requests, within a bounded time; the second at once.
/// SIGHUP reads the configuration again, and so does the start of the server. What is saved is saved before
/// it is answered, so no end loses anything.
class Application {
 public:
  Application(Options options, Locations locations, Configuration configuration);
  ~Application();
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  /// Takes its place: directories, locks, saved state, control socket, exports, server.
  StartUp<void> start();

  /// Tells those who wait that it is there, and serves until the end.
  ExitCode run();

 private:
  StartUp<Io::FileDescriptor> listenForControl();
  void logToFile();
  void tellReady();
  void onSignal(int signal);
  StartUp<void> readAgain();
  void beginEnd(const char* why);
  Io::Task<void> endControl();
  void ended();
  void giveUp();
  void checkIdle();

  const Options options_;
  const Locations locations_;
  Configuration configuration_;

  std::optional<InstanceLocks> locks_;
  StateStore store_;
  Reservations::Store reservationStore_;
  std::optional<Reservations::Records> reservations_;
  Io::EventLoop loop_;
  Signals signals_;
  Supervisor supervisor_;
  std::unique_ptr<LocalService> service_;
  std::unique_ptr<ControlServer> control_;
  std::optional<ControlPlace> place_;  // none if the service manager keeps the control socket

  // The end: what has not ended yet.
  bool ending_ = false;
  int running_ = 0;
  bool complete_ = true;
  Io::Scope scope_;
  Io::Timer deadline_;

  // Leaving when there is nothing to do.
  std::chrono::seconds idleTime_{};
  Io::Clock::time_point lastBusy_{};
  Io::Timer idle_;
};

/// Runs nbdd with these options, from start to end, and returns how the process ends. Whatever keeps it from
/// starting is told on standard error in one sentence.
ExitCode runApplication(const Options& options);

}  // namespace Nbdd
