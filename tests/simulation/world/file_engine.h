#pragma once

#include <functional>
#include <memory>

#include "nbdd/io/event_loop.h"
#include "nbdd/io/file_io.h"
#include "tests/simulation/world/world.h"

namespace Simulation {

/// An engine for file operations in which the scheduler decides when each takes effect, and when, long after
/// that and in which order, the server hears of it. Refuses now and then, as io_uring does.
std::unique_ptr<Nbdd::Io::FileIo> makeFileEngine(World& world, Nbdd::Io::EventLoop& loop);

/// A job for a thread of the pool: it runs when the scheduler says so.
std::unique_ptr<Work> makeJob(std::move_only_function<void()> function);

}  // namespace Simulation
