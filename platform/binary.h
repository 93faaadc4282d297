#pragma once

#include <cstdint>

#include "platform/string.h"

/// The running program's arguments.
namespace Binary {

/// How many arguments there are; the program's own name is argument 0 and counts.
[[nodiscard]] std::uint32_t argCount();

/// The argument at `index`, counted from 0, byte for byte. An index from `argCount` on gives an empty Ref.
[[nodiscard]] Ref<String> arg(std::uint32_t index);

}  // namespace Binary
