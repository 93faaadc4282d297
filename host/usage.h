#pragma once

#include <optional>
#include <span>
#include <string>

namespace Host {

/// What the host itself answers to the program's arguments (its own name first): the text for `--help` or
/// `-h` and
/// `--version` or `-V` as the first argument. Nothing for all others, which are the program's.
[[nodiscard]] std::optional<std::string> answerOption(std::span<char*> arguments);

}  // namespace Host
