#pragma once

#include "platform/char_printer.h"

namespace Shell {

/// The printer through which every command prints: one for the whole run. Not empty between `setOutput` and
/// the tear-down.
[[nodiscard]] const Ref<CharPrinter>& output();

/// Makes `printer` the one that `output` returns.
void setOutput(Ref<CharPrinter> printer);

/// Has the printer let go of at tear-down.
void registerOutputRelease();

/// Prints `label`, which ends in "0x", the reason of the last failure in hexadecimal, and ends the line. To
/// be called right after the call that failed.
void printError(const char* label);

}  // namespace Shell
