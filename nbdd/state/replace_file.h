#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace Nbdd {

/// Makes `text` the content of the file `name` in `directory`, for its owner alone to read: written beside
/// it, forced to stable storage, and put in its place with one rename that is forced there too. Whatever ends
/// the process or the machine in between, the file is the old one or the new one, whole.
///
/// Returns 0 or an errno. `renamed`: whether the new text already stands in the file's place.
[[nodiscard]] int replaceFile(const std::filesystem::path& directory, const std::string& name,
                              std::string_view text, bool& renamed);

}  // namespace Nbdd
