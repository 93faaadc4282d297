// Where the server's C++ code leads into the world: the clock, the threads and the engine for files. As in
// system_calls.cpp, but by mangled names. And the one mistake (Bug) that sits between two units of the
// server.

#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "nbdd/exports/storage.h"
#include "nbdd/io/file_io.h"
#include "nbdd/io/thread_pool.h"
#include "nbdd/log/log.h"
#include "nbdd/remote/connection.h"
#include "tests/simulation/world/file_engine.h"
#include "tests/simulation/world/scheduler.h"
#include "tests/simulation/world/world.h"

namespace {

using Clock = std::chrono::steady_clock;
using Nbdd::GroupSync;
using Simulation::World;
using Job = std::move_only_function<void()>;
using Files = std::unique_ptr<Nbdd::Io::FileIo>;
using Unanswered = std::vector<Nbdd::Remote::Request*>;

// What others wait for in a GroupSync that serves latecomers too early.
struct HastySync {
  bool running = false;
  std::vector<GroupSync::Done> waiting;
};
std::map<const GroupSync*, HastySync>& hastySyncs() {
  static std::map<const GroupSync*, HastySync> syncs;
  return syncs;
}

}  // namespace

#define REAL(symbol) __asm__("__real_" symbol)
#define WRAPPED(symbol) __asm__("__wrap_" symbol)

namespace Simulation::Hooks {

#define SYMBOL "_ZNSt6chrono3_V212steady_clock3nowEv"
Clock::time_point realNow() noexcept REAL(SYMBOL);
Clock::time_point now() noexcept WRAPPED(SYMBOL);
Clock::time_point now() noexcept {
  World* const world = World::current();
  return world != nullptr ? Clock::time_point(std::chrono::nanoseconds(world->look())) : realNow();
}
#undef SYMBOL

#define SYMBOL "_ZNSt6thread4joinEv"
void realJoin(std::thread* thread) REAL(SYMBOL);
void join(std::thread* thread) WRAPPED(SYMBOL);
void join(std::thread* thread) {
  if (Scheduler* const scheduler = Scheduler::current()) {
    scheduler->untilFinished(thread->native_handle());
  }
  realJoin(thread);
}
#undef SYMBOL

#define SYMBOL "_ZNSt13random_device9_M_getvalEv"
unsigned int realRandomValue(std::random_device* device) REAL(SYMBOL);
unsigned int randomValue(std::random_device* device) WRAPPED(SYMBOL);
unsigned int randomValue(std::random_device* device) {
  World* const world = World::current();
  return world != nullptr ? static_cast<unsigned int>(world->random().next()) : realRandomValue(device);
}
#undef SYMBOL

#define SYMBOL "_ZN4Nbdd10serviceLogEv"
Nbdd::Log& realServiceLog() REAL(SYMBOL);
Nbdd::Log& serviceLog() WRAPPED(SYMBOL);
Nbdd::Log& serviceLog() {
  World* const world = World::current();
  return world != nullptr ? world->log() : realServiceLog();
}
#undef SYMBOL

#define SYMBOL "_ZN4Nbdd2Io10makeFileIoERNS0_9EventLoopERNS0_10ThreadPoolEb"
Files realMakeFileIo(Nbdd::Io::EventLoop& loop, Nbdd::Io::ThreadPool& pool, bool allowRing) REAL(SYMBOL);
Files makeFileIo(Nbdd::Io::EventLoop& loop, Nbdd::Io::ThreadPool& pool, bool allowRing) WRAPPED(SYMBOL);
/// The server asks for the ring and gets the world's engine, or asks for threads and gets its own.
Files makeFileIo(Nbdd::Io::EventLoop& loop, Nbdd::Io::ThreadPool& pool, bool allowRing) {
  World* const world = World::current();
  return world != nullptr && allowRing ? Simulation::makeFileEngine(*world, loop)
                                       : realMakeFileIo(loop, pool, allowRing);
}
#undef SYMBOL

#define SYMBOL "_ZN4Nbdd2Io10ThreadPool6submitESt18move_only_functionIJFvvEEE"
void realSubmit(Nbdd::Io::ThreadPool* pool, Job job) REAL(SYMBOL);
void submit(Nbdd::Io::ThreadPool* pool, Job job) WRAPPED(SYMBOL);
void submit(Nbdd::Io::ThreadPool* pool, Job job) {
  if (World* const world = World::current()) {
    world->begin(Simulation::makeJob(std::move(job)));
  } else {
    realSubmit(pool, std::move(job));
  }
}
#undef SYMBOL

#define SYMBOL "_ZN4Nbdd9GroupSync4joinESt18move_only_functionIJFviEEE"
bool realJoinSync(GroupSync* sync, GroupSync::Done done) REAL(SYMBOL);
bool joinSync(GroupSync* sync, GroupSync::Done done) WRAPPED(SYMBOL);
bool joinSync(GroupSync* sync, GroupSync::Done done) {
  const World* const world = World::current();
  if (world == nullptr || world->bug() != Bug::lateSync) {
    return realJoinSync(sync, std::move(done));
  }
  HastySync& hasty = hastySyncs()[sync];
  hasty.waiting.push_back(std::move(done));
  return !std::exchange(hasty.running, true);
}
#undef SYMBOL

#define SYMBOL "_ZN4Nbdd9GroupSync6finishEi"
bool realFinishSync(GroupSync* sync, int error) REAL(SYMBOL);
bool finishSync(GroupSync* sync, int error) WRAPPED(SYMBOL);
bool finishSync(GroupSync* sync, int error) {
  const World* const world = World::current();
  if (world == nullptr || world->bug() != Bug::lateSync) {
    return realFinishSync(sync, error);
  }
  HastySync hasty = std::exchange(hastySyncs()[sync], {});
  for (GroupSync::Done& done : hasty.waiting) {
    done(error);
  }
  return false;
}
#undef SYMBOL

#define SYMBOL "_ZN4Nbdd6Remote10Connection14takeUnansweredEv"
Unanswered realTakeUnanswered(Nbdd::Remote::Connection* connection) REAL(SYMBOL);
Unanswered takeUnanswered(Nbdd::Remote::Connection* connection) WRAPPED(SYMBOL);
Unanswered takeUnanswered(Nbdd::Remote::Connection* connection) {
  const World* const world = World::current();
  Unanswered requests = realTakeUnanswered(connection);
  if (world != nullptr && world->bug() == Bug::lostRequests) {
    for (Nbdd::Remote::Request* const request : std::exchange(requests, {})) {
      request->done(Nbd::Error::none);
    }
  }
  return requests;
}
#undef SYMBOL

}  // namespace Simulation::Hooks
