#pragma once

namespace Host {

/// Sends everything that the program has printed to standard output. To be called before anything that may
/// wait (a service call, above all) and before the process ends. Does nothing while the console is not set
/// up.
void flushOutput();

}  // namespace Host
