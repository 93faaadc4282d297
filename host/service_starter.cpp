#include "host/service_starter.h"

// How the service is started.
//
// Between this process and nbdd stands a guardian:
//
//   nbdctl --fork--> guardian --fork--> nbdd --on-demand --ready-fd N
//
// nbdd belongs to the guardian, so that the guardian can tell us how it ended if it does not become ready.
// When it is ready, or we are gone, the guardian ends: nbdd is then init's, nobody's zombie, in a session of
// its own. Two pipes carry this. Through one, nbdd writes one byte when it serves, and its end without a byte
// says that it does not serve. The other only says, by being closed, that the guardian is not needed any
// more.
//
// Of two nbdds that start at once one holds the lock, and the other ends with a status of its own. The
// loser's parent then waits until the winner's socket appears. It is moved into place when it is already
// listening, so one event of the directory is enough, and the directory is watched before the first look at
// it.
//
// What nbdd says until it is ready goes into a file in memory, and from there to the operator, for whom it is
// meant when nbdd could not start. The loser of a race says that another nbdd runs, which is no news for
// somebody who then uses that one: he is told, and told once, when nothing came of it. If several attempts
// had something to say he hears the last of them.

#include <fcntl.h>
#include <fmt/core.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <optional>
#include <utility>

#include "control/descriptor.h"

namespace Host {

namespace {

using Clock = Control::Client::Clock;
using Control::Descriptor;
using Control::Failure;
using Control::FailureCode;
using Control::Result;

/// The exit status with which nbdd says that another one has the runtime directory.
constexpr int anotherRunsStatus = 3;

/// The guardian's status when the program could not be run at all.
constexpr int cannotRunStatus = 127;

/// How long the winner of a race may take to listen before we try ourselves: it may have been one that was
/// ending.
constexpr std::chrono::milliseconds patience{250};

struct Pipe {
  Descriptor readEnd;
  Descriptor writeEnd;

  static std::optional<Pipe> make() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return std::nullopt;
    return Pipe{Descriptor(ends[0]), Descriptor(ends[1])};
  }
};

/// Waits until `descriptor` is readable or hung up; false if that does not happen before `deadline`.
bool awaitReadable(int descriptor, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd entry{.fd = descriptor, .events = POLLIN, .revents = 0};
    const int count = ::poll(&entry, 1, static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX)));
    if (count > 0) return true;
    if (count == 0 && left <= 0) return false;
    if (count < 0 && errno != EINTR) return false;
  }
}

Descriptor processDescriptor(pid_t process) {
  return Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
}

// What the child processes need, made before the first fork: afterwards only what is safe in the child of a
// process with threads may be called.
struct CommandLine {
  std::string program;
  std::string readyNumber;
  std::vector<char*> arguments;

  CommandLine(std::string path, int readyDescriptor)
      : program(std::move(path)), readyNumber(std::to_string(readyDescriptor)) {
    static std::array<std::string, 3> words{"nbdd", "--on-demand", "--ready-fd"};
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(readyNumber.data());
    arguments.push_back(nullptr);
  }
};

// Standard input and output are not for a process that outlives us. Standard error leads to us, until the
// service itself turns elsewhere; straight to the operator if there is no memory to take it.
[[noreturn]] void becomeService(const CommandLine& commandLine, int ready, int said) {
  ::setsid();
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::signal(SIGINT, SIG_DFL);
  ::signal(SIGPIPE, SIG_DFL);
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null < 0) ::_exit(cannotRunStatus);
  ::dup2(null, STDIN_FILENO);
  ::dup2(null, STDOUT_FILENO);
  if (said >= 0) ::dup2(said, STDERR_FILENO);
  ::syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 1U << 2U /* CLOSE_RANGE_CLOEXEC */);
  ::fcntl(ready, F_SETFD, 0);
  ::execv(commandLine.program.c_str(), commandLine.arguments.data());
  ::_exit(cannotRunStatus);
}

// Ends when nbdd has ended, with its status, or when `release` is closed.
[[noreturn]] void guard(const CommandLine& commandLine, int ready, int release, int said) {
  ::signal(SIGINT, SIG_IGN);  // the operator's Ctrl-C is for nbdctl, whose end releases the guardian
  const pid_t service = ::fork();
  if (service < 0) ::_exit(cannotRunStatus);
  if (service == 0) becomeService(commandLine, ready, said);
  ::close(ready);
  const auto ended = static_cast<int>(::syscall(SYS_pidfd_open, service, 0));
  std::array<pollfd, 2> entries{pollfd{.fd = ended, .events = POLLIN, .revents = 0},
                                pollfd{.fd = release, .events = POLLIN, .revents = 0}};
  while (ended >= 0 && ::poll(entries.data(), entries.size(), -1) < 0 && errno == EINTR) {
  }
  int status = 0;
  if (::waitpid(service, &status, WNOHANG) == service) ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
  ::_exit(0);
}

// The guardian's exit status, which is nbdd's; nothing if it does not end before `deadline`.
std::optional<int> awaitGuardian(pid_t guardian, Clock::time_point deadline) {
  const Descriptor process = processDescriptor(guardian);
  if (process && !awaitReadable(process.number(), deadline)) return std::nullopt;
  int status = 0;
  while (::waitpid(guardian, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// What nbdd says until it is ready.
class Said {
 public:
  Said() : file_(::memfd_create("nbdd", MFD_CLOEXEC)) {}

  int number() const { return file_.number(); }

  /// Passes it on to the operator, once; false if there is nothing to pass on.
  bool tell() {
    std::array<char, 4096> piece{};
    ssize_t count = 0;
    while ((count = ::pread(file_.number(), piece.data(), piece.size(), told_)) > 0) {
      told_ += count;
      if (::write(STDERR_FILENO, piece.data(), static_cast<std::size_t>(count)) != count) break;
    }
    return told_ > 0;
  }

 private:
  Descriptor file_;
  off_t told_ = 0;
};

enum class Started { ready, anotherRuns };

Result<Started> start(const std::string& program, Clock::time_point deadline, const Said& said) {
  auto ready = Pipe::make();
  auto release = Pipe::make();
  if (!ready || !release) {
    return std::unexpected(
        Failure{FailureCode::serviceStartFailed, "no descriptors are left to start nbdd with"});
  }
  const CommandLine commandLine(program, ready->writeEnd.number());
  const pid_t guardian = ::fork();
  if (guardian < 0) {
    return std::unexpected(Failure{FailureCode::serviceStartFailed, "no process can be made to run nbdd in"});
  }
  if (guardian == 0) {
    release->writeEnd.reset();
    guard(commandLine, ready->writeEnd.number(), release->readEnd.number(), said.number());
  }
  ready->writeEnd.reset();
  release->readEnd.reset();

  const bool spoke = awaitReadable(ready->readEnd.number(), deadline);
  char byte = 0;
  const bool serving = spoke && ::read(ready->readEnd.number(), &byte, 1) == 1;
  const std::optional<int> status = spoke && !serving ? awaitGuardian(guardian, deadline) : std::nullopt;
  if (status == anotherRunsStatus) return Started::anotherRuns;
  if (status) {
    return std::unexpected(
        Failure{FailureCode::serviceStartFailed, fmt::format("{} ended with status {}", program, *status)});
  }
  release->writeEnd.reset();
  std::ignore = awaitGuardian(guardian, Clock::time_point::max());
  if (serving) return Started::ready;
  return std::unexpected(Failure{FailureCode::timeout, program + " did not become ready in time"});
}

bool nothingListens(const Result<Control::Client>& client) {
  return !client && client.error().code == FailureCode::serviceUnavailable;
}

// Connects to a service that another process is just starting.
Result<Control::Client> awaitSocket(const std::string& socket, Clock::time_point deadline) {
  const Descriptor watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  const std::string directory = std::filesystem::path(socket).parent_path();
  const bool watching =
      ::inotify_add_watch(watch.number(), directory.c_str(), IN_CREATE | IN_MOVED_TO | IN_ATTRIB) >= 0;
  for (;;) {
    auto client = Control::Client::connect(socket, deadline);
    if (!nothingListens(client) || !watching) return client;
    if (!awaitReadable(watch.number(), deadline)) return client;
    std::array<char, 4096> events{};
    while (::read(watch.number(), events.data(), events.size()) > 0) {
    }
  }
}

}  // namespace

Result<Control::Client> connectToService(const ServiceLocation& location, Clock::time_point deadline) {
  auto client = Control::Client::connect(location.socket, deadline);
  if (!nothingListens(client)) return client;
  const auto program = std::ranges::find_if(
      location.programs, [](const std::string& candidate) { return ::access(candidate.c_str(), X_OK) == 0; });
  if (program == location.programs.end()) {
    return std::unexpected(Failure{FailureCode::serviceUnavailable,
                                   client.error().message + ", and no nbdd is found that could be started"});
  }
  std::optional<Said> ofAnother;
  while (nothingListens(client)) {
    Said said;
    const auto started = start(*program, deadline, said);
    const bool race = started == Started::anotherRuns;
    const bool told = !race && said.tell();
    if (!started) {
      if (!told && ofAnother) ofAnother->tell();
      return std::unexpected(started.error());
    }
    if (race) ofAnother = std::move(said);
    client = awaitSocket(location.socket, race ? std::min(deadline, Clock::now() + patience) : deadline);
    if (nothingListens(client) && Clock::now() >= deadline) {
      if (ofAnother) ofAnother->tell();
      return std::unexpected(
          Failure{FailureCode::timeout, "another nbdd holds " + location.socket + " and does not serve"});
    }
  }
  return client;
}

}  // namespace Host
