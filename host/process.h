#pragma once

namespace Host {

/// What the program gave to `Proc::setExitCode` last, 0 if nothing.
[[nodiscard]] unsigned int exitCode() noexcept;

/// Gives the process what the program takes for granted: descriptors 0 to 2 are open, so that no socket is
/// ever taken for the screen; writing to a pipe that nobody reads is an error, not the end; running out of
/// memory ends the process through the deliberate fault. To be called first of all.
void prepareProcess() noexcept;

}  // namespace Host
