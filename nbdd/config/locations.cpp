#include "nbdd/config/locations.h"

#include <fmt/core.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace Nbdd {

namespace {

/// The variable, if it holds an absolute path. The base directory rules ask that others be ignored.
std::optional<std::filesystem::path> absoluteFrom(const Environment& environment, const char* name) {
  const std::optional<std::string> value = environment(name);
  if (!value || value->front() != '/') return {};
  return std::filesystem::path(*value);
}

/// What the user set for this service alone must not be ignored in silence: a relative path is made absolute.
std::optional<std::filesystem::path> overrideFrom(const Environment& environment, const char* name) {
  const std::optional<std::string> value = environment(name);
  if (!value) return {};
  std::error_code failure;
  const std::filesystem::path path = std::filesystem::absolute(*value, failure);
  return failure ? std::filesystem::path(*value) : path;
}

}  // namespace

std::optional<std::string> processEnvironment(const char* name) {
  const char* const value = std::getenv(name);
  if (value == nullptr || *value == '\0') return {};
  return value;
}

std::optional<std::string> homeDirectory() {
  if (std::optional<std::string> home = processEnvironment("HOME"); home && home->front() == '/') return home;
  passwd entry{};
  passwd* found = nullptr;
  std::array<char, 16 * 1024> buffer{};
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr)
    return {};
  if (found->pw_dir == nullptr || *found->pw_dir != '/') return {};
  return found->pw_dir;
}

std::expected<Locations, std::string> findLocations(const Environment& environment, uid_t user,
                                                    const std::optional<std::string>& home,
                                                    const std::optional<std::string>& configurationOption) {
  Locations locations;
  locations.system = user == 0 || environment("NBDD_SYSTEM").has_value();
  const auto runtime = overrideFrom(environment, "NBDD_RUNTIME_DIR");
  const auto state = overrideFrom(environment, "NBDD_STATE_DIR");
  const auto configuration = overrideFrom(environment, "NBDD_CONFIG");
  if (locations.system) {
    locations.runtimeDirectory = "/run/nbdd";
    locations.stateDirectory = "/var/lib/nbdd";
    locations.configurationFile = "/etc/nbdd.toml";
  } else {
    const auto userRuntime = absoluteFrom(environment, "XDG_RUNTIME_DIR");
    locations.runtimeDirectory =
        userRuntime ? *userRuntime / "nbdd" : std::filesystem::path(fmt::format("/tmp/nbdd-{}", user));
    const auto userState = absoluteFrom(environment, "XDG_STATE_HOME");
    const auto userConfiguration = absoluteFrom(environment, "XDG_CONFIG_HOME");
    if (!home && ((!state && !userState) || (!configuration && !configurationOption && !userConfiguration))) {
      return std::unexpected(
          "you have no home directory to keep the state in: set NBDD_STATE_DIR and NBDD_CONFIG");
    }
    const std::filesystem::path homePath = home.value_or("/");
    locations.stateDirectory = userState.value_or(homePath / ".local/state") / "nbdd";
    locations.configurationFile = userConfiguration.value_or(homePath / ".config") / "nbdd.toml";
  }
  if (runtime) locations.runtimeDirectory = *runtime;
  if (state) locations.stateDirectory = *state;
  if (configuration) locations.configurationFile = *configuration;
  if (configurationOption) locations.configurationFile = *configurationOption;
  locations.configurationNamed = configuration || configurationOption;
  return locations;
}

std::expected<void, std::string> prepareDirectory(const std::filesystem::path& directory, mode_t mode) {
  std::error_code failure;
  if (directory.has_parent_path()) std::filesystem::create_directories(directory.parent_path(), failure);
  if (!failure && ::mkdir(directory.c_str(), mode) != 0 && errno != EEXIST) {
    failure = std::error_code(errno, std::generic_category());
  }
  struct stat status{};
  if (!failure && ::stat(directory.c_str(), &status) != 0) {
    failure = std::error_code(errno, std::generic_category());
  }
  if (failure) {
    return std::unexpected(
        fmt::format("the directory {} cannot be made ({}): make it, or name others by NBDD_RUNTIME_DIR and "
                    "NBDD_STATE_DIR",
                    directory.native(), failure.message()));
  }
  if (!S_ISDIR(status.st_mode)) {
    return std::unexpected(fmt::format("{} is no directory: take it away", directory.native()));
  }
  if (status.st_uid != ::geteuid()) {
    return std::unexpected(fmt::format(
        "the directory {} belongs to another user: take it away, or name another one", directory.native()));
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return std::unexpected(
        fmt::format("others may write to the directory {}: run chmod go-w on it", directory.native()));
  }
  return {};
}

std::expected<void, std::string> prepareRuntimeDirectory(const Locations& locations) {
  return prepareDirectory(locations.runtimeDirectory, locations.system ? 0755 : 0700);
}

}  // namespace Nbdd
