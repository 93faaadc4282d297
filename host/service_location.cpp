#include "host/service_location.h"

#include <fmt/core.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>

namespace Host {

namespace {

namespace fs = std::filesystem;

std::optional<std::string> variable(const char* name) {
  const char* const value = std::getenv(name);
  if (value == nullptr || *value == '\0') return std::nullopt;
  return value;
}

fs::path runtimeDirectory() {
  if (const auto directory = variable("NBDD_RUNTIME_DIR")) {
    std::error_code error;
    const fs::path absolute = fs::absolute(*directory, error);
    return error ? fs::path(*directory) : absolute;
  }
  if (::geteuid() == 0) return "/run/nbdd";
  // The base directory rules ask that a relative path be ignored.
  if (const auto directory = variable("XDG_RUNTIME_DIR"); directory && directory->starts_with('/')) {
    return fs::path(*directory) / "nbdd";
  }
  return fmt::format("/tmp/nbdd-{}", ::geteuid());
}

std::vector<std::string> programCandidates() {
  std::vector<std::string> candidates;
  std::error_code error;
  const fs::path self = fs::read_symlink("/proc/self/exe", error);
  if (!error) {
    candidates.push_back(self.parent_path() / "nbdd");
    candidates.push_back(self.parent_path().parent_path() / "libexec" / "nbdd");
  }
  std::istringstream path(variable("PATH").value_or("/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin"));
  for (std::string directory; std::getline(path, directory, ':');) {
    if (directory.starts_with('/')) candidates.push_back(fs::path(directory) / "nbdd");
  }
  return candidates;
}

}  // namespace

ServiceLocation findService() {
  return {.socket = runtimeDirectory() / "org.talvek.NBD", .programs = programCandidates()};
}

}  // namespace Host
