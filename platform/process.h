#pragma once

/// The running process.
namespace Proc {

/// Sets the code with which the process will end. The process goes on running; the last call before the
/// program returns counts. The host hands the code to the operating system, which may keep only its low bits.
void setExitCode(unsigned int code);

/// The deliberate fault: ends the process at once, without a message and without running any clean-up. For
/// programming errors and exhausted memory, never for errors that the operator or the service can cause.
[[noreturn]] void failFast() noexcept;

/// The same fault, for a caller that has something harmless to go on with: where somebody holds the fault up,
/// as a debugger can, this returns.
void raiseFault() noexcept;

}  // namespace Proc
