#pragma once

#include <string>
#include <string_view>

namespace Host {

/// `path`, taken from the directory `base` if it is relative, with ".", ".." and repeated slashes resolved by
/// the text alone. Absolute if either of the two is; ".." at the root stays there. Touches no file.
[[nodiscard]] std::string resolvePath(std::string_view path, std::string_view base);

}  // namespace Host
