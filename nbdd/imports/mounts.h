#pragma once

#include <filesystem>

namespace Nbdd {

/// Whether something is mounted at exactly this absolute path, as this process sees the system. Asks the
/// kernel's list, never what is mounted, so it waits for nobody.
bool isMountPoint(const std::filesystem::path& path);

}  // namespace Nbdd
