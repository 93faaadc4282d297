#pragma once

#include <span>

namespace Host {

/// Sets the arguments that `Binary` tells of, the program's own name first. They stay the caller's and must
/// outlive the program, as those of `main` do.
void setArguments(std::span<char*> arguments) noexcept;

}  // namespace Host
