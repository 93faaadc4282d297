#pragma once

/// Why the program is called; other reasons do nothing.
inline constexpr unsigned int reasonTearDown = 0;
inline constexpr unsigned int reasonStart = 1;

/// The program, which the host calls with `reasonStart` once and, after that has returned, with
/// `reasonTearDown`. Always returns 0: the result of the process is what the program gave to
/// `Proc::setExitCode`.
int programEntry(unsigned int reason);
