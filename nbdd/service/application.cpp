#include "nbdd/service/application.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <system_error>
#include <utility>

#include "nbdd/limits.h"
#include "nbdd/log/log.h"
#include "nbdd/service/privileges.h"
#include "nbdd/service/server_properties.h"
#include "talvek_version.h"

namespace Nbdd {

namespace {

Control::Identity identity() {
  return {.vendor = "Talvek", .product = "Talvek NBD", .version = talvekVersion, .url = ""};
}

ListenConfiguration listening(const Configuration& configuration) {
  return {.addresses = configuration.listen, .port = configuration.port};
}

Discovery::Options discovery(const Configuration& configuration) {
  return {.enabled = configuration.discovery,
          .hostName = hostFacts().hostName,
          .label = configuration.label,
          .interfaces = configuration.interfaces,
          .timeToLive = configuration.timeToLive,
          .program = "/proc/self/exe"};
}

StartUp<Configuration> readConfiguration(const Locations& locations) {
  auto configuration = loadConfiguration(locations.configurationFile, locations.configurationNamed);
  if (!configuration) return std::unexpected(StartUpFailure{std::move(configuration.error())});
  return std::move(*configuration);
}

/// Who may come, and how connections are secured, with what the files hold now.
StartUp<Security> readSecurity(const Configuration& configuration) {
  Access access{.tls = configuration.tls.mode,
                .credentials = {},
                .networks = configuration.allow,
                .exports = {configuration.exportAllow.begin(), configuration.exportAllow.end()}};
  Security security;
  if (configuration.tls.mode != Nbd::TlsMode::off) {
    auto credentials = Tls::Credentials::load(configuration.tls);
    if (!credentials) return std::unexpected(StartUpFailure{std::move(credentials.error())});
    access.credentials = std::move(*credentials);
  }
  security.imports.mode = configuration.importTls.mode;
  if (configuration.importTls.mode != Nbd::TlsMode::off) {
    auto credentials = Tls::Credentials::load(configuration.importTls);
    if (!credentials) return std::unexpected(StartUpFailure{std::move(credentials.error())});
    security.imports.credentials = std::move(*credentials);
  }
  security.access = std::make_shared<const Access>(std::move(access));
  return security;
}

ExitCode tell(const StartUpFailure& failure) {
  fmt::print(stderr, "nbdd: {}\n", failure.sentence);
  return failure.code;
}

}  // namespace

Application::Application(Options options, Locations locations, Configuration configuration)
    : options_(std::move(options)),
      locations_(std::move(locations)),
      configuration_(std::move(configuration)),
      store_(locations_.stateDirectory),
      reservationStore_(locations_.stateDirectory),
      signals_(loop_, [this](int signal) { onSignal(signal); }),
      supervisor_(loop_),
      deadline_(loop_, [this] { giveUp(); }),
      idle_(loop_, [this] { checkIdle(); }) {}

Application::~Application() = default;

StartUp<void> Application::start() {
  const auto idle = idleTime(processEnvironment);
  if (!idle) return std::unexpected(idle.error());
  idleTime_ = *idle;
  const auto storage = serverOptions(processEnvironment);
  if (!storage) return std::unexpected(storage.error());

  auto locks = claimDirectories(locations_);
  if (!locks) return std::unexpected(std::move(locks.error()));
  locks_ = std::move(*locks);

  if (options_.onDemand) logToFile();

  auto state = loadState(store_);
  if (!state) return std::unexpected(std::move(state.error()));
  auto reservations = reservationStore_.load();
  if (!reservations) return std::unexpected(StartUpFailure{std::move(reservations.error())});
  reservations_.emplace(reservationStore_, std::move(*reservations));
  auto listener = listenForControl();
  if (!listener) return std::unexpected(std::move(listener.error()));

  auto security = readSecurity(configuration_);
  if (!security) return std::unexpected(std::move(security.error()));
  service_ = std::make_unique<LocalService>(
      loop_, store_, std::move(*state), locations_.runtimeDirectory / "imports", listening(configuration_),
      *reservations_, configuration_.lease, *storage, discovery(configuration_));
  service_->setSecurity(std::move(*security));
  service_->restore();
  // Whoever changes the configuration of a stopped server and starts it expects it to hold: nbdd has been
  // here all the while, which he need not know.
  service_->beforeStart([this]() -> Control::Result<void> {
    auto read = readAgain();
    if (read) return {};
    return std::unexpected(
        Control::Failure{Control::FailureCode::configurationWrong, std::move(read.error().sentence)});
  });
  control_ =
      std::make_unique<ControlServer>(loop_, *service_, identity(), std::move(*listener),
                                      ControlAccess{.owner = ::geteuid(), .group = controlGroup(locations_)});
  return {};
}

// The terminal belongs to whoever started us: only what keeps us from starting is told there.
void Application::logToFile() {
  const std::filesystem::path file = locations_.stateDirectory / "nbdd.log";
  if (const int error = redirectLogTo(file); error != 0) {
    log(LogLevel::warning, "log-file", "the log cannot be written to {}: {}", file.native(),
        std::generic_category().message(error));
  }
}

StartUp<Io::FileDescriptor> Application::listenForControl() {
  auto inherited = Supervisor::inheritedControlSocket();
  if (!inherited) return std::unexpected(StartUpFailure{std::move(inherited.error())});
  if (*inherited) return std::move(*inherited);
  place_.emplace(loop_, locations_, locks_->runtime,
                 [this](Io::FileDescriptor anew) { control_->listenOn(std::move(anew)); });
  auto listener = place_->listen();
  if (!listener) return std::unexpected(StartUpFailure{std::move(listener.error())});
  return std::move(*listener);
}

ExitCode Application::run() {
  log(LogLevel::info, "ready", "nbdd {} serves {}: {}", talvekVersion,
      escaped(locations_.controlSocket().native()), service_->summary());
  log(LogLevel::info, "privileges", "{}", describe(ownPrivileges()));
  tellReady();
  if (options_.onDemand) {
    lastBusy_ = Io::Clock::now();
    checkIdle();
  }
  loop_.run();
  if (place_) place_->leave();
  serviceLog().reportOmitted(true);
  if (!complete_) {
    // Sessions are still running, and nobody wants to wait for them: there is nothing left to tidy up that
    // the kernel does not do, and nothing that is not saved.
    ::_exit(static_cast<int>(ExitCode::failure));
  }
  return ExitCode::success;
}

void Application::tellReady() {
  supervisor_.ready(service_->summary());
  if (options_.onDemand) {
    // Whoever started us keeps the directory he was in, and standard error only until we are ready.
    static_cast<void>(::chdir("/") == 0);
    detachStandardError();
  }
  if (options_.readyDescriptor) {
    const Io::FileDescriptor ready(*options_.readyDescriptor);
    const char byte = '\n';
    // If nobody waits any more, so be it.
    static_cast<void>(::write(ready.number(), &byte, 1) == 1);
  }
}

void Application::onSignal(int signal) {
  if (signal == SIGHUP) {
    supervisor_.reloading();
    if (const auto read = readAgain(); !read) {
      log(LogLevel::error, "reload-failed", "the configuration stays as it was: {}", read.error().sentence);
    } else {
      log(LogLevel::info, "reloaded", "the configuration was read again, and the files that it names");
    }
    supervisor_.ready(service_->summary());
  } else if (ending_) {
    log(LogLevel::notice, "ending-now", "asked to end a second time: running requests are not waited for");
    giveUp();
  } else {
    beginEnd(signal == SIGTERM ? "SIGTERM" : "SIGINT");
  }
}

// All of the configuration holds from now on, or none. The server's threads and discovery got theirs at the
// start.
StartUp<void> Application::readAgain() {
  auto configuration = readConfiguration(locations_);
  if (!configuration) return std::unexpected(std::move(configuration.error()));
  // Even where the configuration is the same, certificates and keys may be new.
  auto security = readSecurity(*configuration);
  if (!security) return std::unexpected(std::move(security.error()));
  service_->setSecurity(std::move(*security));
  service_->setListening(listening(*configuration));
  if (*configuration != configuration_) {
    log(LogLevel::notice, "reloaded",
        "the configuration has changed: addresses and ports hold from the next start of the server, "
        "discovery and "
        "reservations from the next start of nbdd, and all else for connections that are made from now on");
  }
  configuration_ = std::move(*configuration);
  return {};
}

void Application::beginEnd(const char* why) {
  ending_ = true;
  log(LogLevel::info, "ending", "ending: {}", why);
  supervisor_.stopping();
  idle_.cancel();
  deadline_.start(Limits::shutdownTime);
  // From here on others cannot find us any more; whoever comes now waits for the directories to be free.
  if (place_) place_->leave();
  running_ = 2;
  scope_.spawn(endControl());
  service_->close([this] { ended(); });
}

Io::Task<void> Application::endControl() {
  Io::Task<void> stopping = control_->stop();
  co_await stopping;
  ended();
}

void Application::ended() {
  if (--running_ > 0) return;
  loop_.stop();
}

void Application::giveUp() {
  complete_ = false;
  loop_.stop();
}

void Application::checkIdle() {
  const Io::Clock::time_point now = Io::Clock::now();
  if (service_->active() || control_->connections() > 0) lastBusy_ = now;
  const auto left = lastBusy_ + idleTime_ - now;
  if (left <= Io::Clock::duration::zero()) return beginEnd("there was nothing to do");
  // Looking more often than the whole time only shortens what a connection in between may add to it.
  idle_.start(
      std::min<Io::Clock::duration>(left, std::max<Io::Clock::duration>(idleTime_ / 4, Limits::idleLook)));
}

ExitCode runApplication(const Options& options) {
  prepareProcess();
  if (options.readyDescriptor && ::fcntl(*options.readyDescriptor, F_SETFD, FD_CLOEXEC) != 0) {
    return tell({"--ready-fd must name an open descriptor: see nbdd --help", ExitCode::usage});
  }
  auto locations = findLocations(processEnvironment, ::geteuid(), homeDirectory(), options.configuration);
  if (!locations) return tell({std::move(locations.error())});
  auto configuration = readConfiguration(*locations);
  if (!configuration) return tell(configuration.error());
  if (options.checkConfiguration) {
    if (const auto security = readSecurity(*configuration); !security) return tell(security.error());
    fmt::print("{} is correct\n", locations->configurationFile.native());
    return ExitCode::success;
  }
  try {
    Application application(options, std::move(*locations), std::move(*configuration));
    if (const auto started = application.start(); !started) return tell(started.error());
    return application.run();
  } catch (const std::system_error& error) {
    return tell(
        {fmt::format("the system refused what the service needs ({}): see to its limits", error.what())});
  }
}

}  // namespace Nbdd
