#pragma once

#include <cstddef>
#include <expected>
#include <filesystem>
#include <string>

namespace Nbdd {

/// The whole content of a regular file. Fails with an errno: EFBIG if it holds more than `limit` bytes,
/// EINVAL if it is no regular file (a fifo would keep us waiting, a device would never end).
std::expected<std::string, int> readFile(const std::filesystem::path& path, std::size_t limit);

}  // namespace Nbdd
