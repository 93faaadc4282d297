#pragma once

namespace Simulation {

/// From now on a system call that reaches the kernel with a simulated descriptor ends the process and says
/// which one it was: the simulation has to learn it. False: this kernel cannot do that.
bool guardSystemCalls();

/// Keeps the threads that take turns in a world on one processor, the one that is free now: to wake each
/// other across processors takes them longer than all they do. To be called again now and then, as others
/// come and go there.
void stayOnOneProcessor();

/// From now on a crash says which seed was running.
void reportCrashes();

}  // namespace Simulation
