#pragma once

/// The lock around start-up and tear-down code.
namespace InitCode {

/// Takes the process-wide initialisation lock, waiting for another thread that has it. The lock is recursive:
/// the holder may take it again, and gives it back as many times.
void lock();

/// Gives the lock back. Only the holder may call this.
void unlock();

}  // namespace InitCode
