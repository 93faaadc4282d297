#pragma once

#include <sys/types.h>

#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace Nbdd {

/// Where one instance of the service keeps its things.
struct Locations {
  std::filesystem::path runtimeDirectory;
  std::filesystem::path stateDirectory;
  std::filesystem::path configurationFile;
  /// Whether somebody named the configuration file, so that it must exist.
  bool configurationNamed = false;
  /// The system's service, which root or a user of its own (NBDD_SYSTEM) runs for group `nbd`; else one
  /// user's own.
  bool system = false;

  std::filesystem::path controlSocket() const { return runtimeDirectory / "org.talvek.NBD"; }
  /// The files by which a service keeps others out of its directories.
  std::filesystem::path runtimeLock() const { return runtimeDirectory / "nbdd.lock"; }
  std::filesystem::path stateLock() const { return stateDirectory / "nbdd.lock"; }
};

/// A variable of the environment; nothing when it is not set or empty.
using Environment = std::function<std::optional<std::string>(const char* name)>;

/// The environment of this process.
std::optional<std::string> processEnvironment(const char* name);

/// Works out the locations for `user`, whose home directory is `home`. NBDD_RUNTIME_DIR, NBDD_STATE_DIR and
/// NBDD_CONFIG come before everything else, `configurationOption` (from the command line) before those.
/// A failure is a sentence that says what to do.
std::expected<Locations, std::string> findLocations(const Environment& environment, uid_t user,
                                                    const std::optional<std::string>& home,
                                                    const std::optional<std::string>& configurationOption);

/// The home directory of the user who runs this process, from HOME or the user database.
std::optional<std::string> homeDirectory();

/// Makes the directory, its parents too, unless it is there, and checks that it is ours and that nobody else
/// may write to it: others could put their socket or state in place of ours. The system's runtime directory
/// may be entered by everybody, since its socket has a mode of its own; every other directory is ours alone.
/// A failure is a sentence that says what to do.
std::expected<void, std::string> prepareDirectory(const std::filesystem::path& directory, mode_t mode);

/// The same for the directory of the control socket.
std::expected<void, std::string> prepareRuntimeDirectory(const Locations& locations);

}  // namespace Nbdd
