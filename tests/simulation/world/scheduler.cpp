#include "tests/simulation/world/scheduler.h"

namespace Simulation {

namespace {

Scheduler* theScheduler = nullptr;

}  // namespace

Scheduler::Scheduler() { theScheduler = this; }
Scheduler::~Scheduler() { theScheduler = nullptr; }
Scheduler* Scheduler::current() { return theScheduler; }

}  // namespace Simulation
