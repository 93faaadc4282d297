#include "nbdd/service/start_up.h"

#include <fmt/core.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <system_error>
#include <thread>
#include <utility>

#include "nbdd/exports/identity.h"
#include "nbdd/limits.h"

namespace Nbdd {

namespace {

std::unexpected<StartUpFailure> fail(std::string sentence, ExitCode code = ExitCode::failure) {
  return std::unexpected(StartUpFailure{std::move(sentence), code});
}

/// Whether somebody listens on the Unix socket at `path`.
bool somebodyListens(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return false;
  std::ranges::copy(path, std::begin(address.sun_path));
  const Io::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return false;
  const int result = ::connect(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return result == 0 || errno == EAGAIN;
}

std::string anotherUses(const std::filesystem::path& lockFile) {
  const auto holder = InstanceLock::holderOf(lockFile);
  return fmt::format("another nbdd{} uses {}: use that one, or end it first",
                     holder ? fmt::format(" (process {})", *holder) : "", lockFile.parent_path().native());
}

/// A lock that another service holds is either its for good, or about to be let go by one that is ending:
/// that one no longer listens.
StartUp<InstanceLock> claim(const std::filesystem::path& file, const std::string& controlSocket) {
  for (auto waited = std::chrono::milliseconds(0);; waited += Limits::lockRetry) {
    auto lock = InstanceLock::take(file);
    if (lock) return std::move(*lock);
    if (lock.error() != EWOULDBLOCK) {
      return fail(fmt::format("the lock file {} cannot be made ({}): see to the directory", file.native(),
                              std::generic_category().message(lock.error())));
    }
    if (somebodyListens(controlSocket) || waited >= Limits::lockPatience) {
      return fail(anotherUses(file), ExitCode::anotherRuns);
    }
    std::this_thread::sleep_for(Limits::lockRetry);
  }
}

}  // namespace

StartUp<InstanceLocks> claimDirectories(const Locations& locations) {
  if (auto made = prepareRuntimeDirectory(locations); !made) return fail(std::move(made.error()));
  if (auto made = prepareDirectory(locations.stateDirectory, 0700); !made)
    return fail(std::move(made.error()));
  auto runtime = claim(locations.runtimeLock(), locations.controlSocket());
  if (!runtime) return std::unexpected(std::move(runtime.error()));
  if (locations.runtimeDirectory == locations.stateDirectory) {
    return fail(
        fmt::format("{} cannot hold both the control socket and the state: set NBDD_STATE_DIR to another one",
                    locations.stateDirectory.native()));
  }
  auto state = claim(locations.stateLock(), locations.controlSocket());
  if (!state) return std::unexpected(std::move(state.error()));
  return InstanceLocks{std::move(*runtime), std::move(*state)};
}

StartUp<SavedState> loadState(StateStore& store) {
  auto loaded = store.load();
  if (!loaded) return fail(std::move(loaded.error()));
  if (*loaded) return std::move(**loaded);
  SavedState fresh;
  fresh.serverUuid = makeUuid();
  if (auto saved = store.save(fresh); !saved) {
    return fail(fmt::format("{}: make room or see to the directory", saved.error().message));
  }
  return fresh;
}

std::optional<gid_t> controlGroup(const Locations& locations) {
  if (!locations.system) return {};
  group entry{};
  group* found = nullptr;
  std::array<char, 64 * 1024> buffer{};
  if (::getgrnam_r("nbd", &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) return {};
  return found->gr_gid;
}

void prepareProcess() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);  // a write beyond `ulimit -f` fails, and ends nothing else
  // Files and directories get their modes where they are made; a mask could only take away from them.
  ::umask(022);
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    static_cast<void>(::setrlimit(RLIMIT_NOFILE, &files));
  }
}

StartUp<Server::Options> serverOptions(const Environment& environment) {
  const std::string wish = environment("NBDD_IO").value_or("io_uring");
  if (wish != "io_uring" && wish != "threads") {
    return fail("NBDD_IO must be io_uring or threads: correct it, or unset it");
  }
  return Server::Options{.allowRing = wish == "io_uring"};
}

StartUp<std::chrono::seconds> idleTime(const Environment& environment) {
  const std::optional<std::string> text = environment("NBDD_IDLE_SECONDS");
  if (!text) return Limits::idleTime;
  std::uint32_t seconds = 0;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), seconds);
  if (error != std::errc{} || end != text->data() + text->size()) {
    return fail("NBDD_IDLE_SECONDS must be a whole number of seconds: correct it, or unset it");
  }
  return std::chrono::seconds(seconds);
}

}  // namespace Nbdd
