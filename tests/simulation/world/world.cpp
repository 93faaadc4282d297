#include "tests/simulation/world/world.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace Simulation {

namespace {

World* theWorld = nullptr;

// Far above every number that the kernel gives out, and not where addresses are: a system call that is not
// simulated betrays itself by its argument (guard.cpp).
constexpr int firstDescriptor = 0x5a5a'0000;
constexpr int descriptorCount = 0x1'0000;

constexpr std::size_t keptNotes = 100'000;

}  // namespace

void Descriptor::raise() {
  for (Epoll* const watcher : watchers_) {
    watcher->watches_.at(number_).pending = true;
  }
}

// At the end of its life a thread hands back the turn that it had.
struct Epoll::Presence {
  Epoll* epoll = nullptr;
  ~Presence() {
    if (epoll != nullptr) {
      epoll->finished_ = true;
      epoll->back_.release();
    }
  }
};

Epoll::~Epoll() {
  for (const auto& [number, watch] : watches_) {
    std::erase(watch.descriptor->watchers_, this);
  }
}

int Epoll::control(int operation, int number, const epoll_event* event) {
  auto* const descriptor = world_.find<Descriptor>(number);
  if (descriptor == nullptr) {
    world_.impossible("a simulated epoll descriptor shall watch a real one");
  }
  const auto found = watches_.find(number);
  if (operation == EPOLL_CTL_ADD ? found != watches_.end() : found == watches_.end()) {
    return operation == EPOLL_CTL_ADD ? -EEXIST : -ENOENT;
  }
  if (operation == EPOLL_CTL_DEL) {
    std::erase(descriptor->watchers_, this);
    watches_.erase(found);
    return 0;
  }
  std::uint32_t events = event->events;
  if (world_.bug() == Bug::sleepyWriter) {
    events &= ~std::uint32_t{EPOLLOUT};
  }
  watches_[number] = {.events = events, .data = event->data, .descriptor = descriptor, .pending = true};
  if (operation == EPOLL_CTL_ADD) {
    descriptor->watchers_.push_back(this);
  }
  descriptor->number_ = number;
  isLoop_ = isLoop_ || dynamic_cast<EventCounter*>(descriptor) != nullptr;
  return 0;
}

bool Epoll::isReady(const Watch& watch) const {
  const std::uint32_t mask = watch.events | EPOLLERR | EPOLLHUP;
  const bool asked = (watch.events & EPOLLET) == 0 || watch.pending;
  return asked && (watch.descriptor->readiness() & mask) != 0;
}

bool Epoll::runnable() const {
  if (finished_ || !isLoop_) {
    return false;
  }
  return fresh_ || (deadline_ && *deadline_ <= world_.now()) ||
         std::ranges::any_of(watches_, [this](const auto& entry) { return isReady(entry.second); });
}

void Epoll::resume() {
  go_.release();
  back_.acquire();
}

int Epoll::wait(std::span<epoll_event> events, std::optional<Nanoseconds> limit) {
  thread_local Presence presence;
  if (presence.epoll == nullptr) {
    // Until here it ran beside the thread that started it.
    go_.acquire();
    presence.epoll = this;
    thread_ = ::pthread_self();
    fresh_ = false;
    return 0;
  }
  deadline_.reset();
  if (limit) {
    deadline_ = world_.now() + *limit;
  }
  back_.release();
  go_.acquire();
  if (world_.random().chance(world_.faults().interrupted)) {
    return -EINTR;
  }
  return collect(events);
}

int Epoll::look(std::span<epoll_event> events) {
  // Only the table of exports looks like this: for those whose clients are gone.
  return world_.bug() == Bug::noFence ? 0 : collect(events);
}

/// Some of what is ready, most often all of it, in any order.
int Epoll::collect(std::span<epoll_event> events) {
  std::vector<int> ready;
  for (const auto& [number, watch] : watches_) {
    if (isReady(watch)) {
      ready.push_back(number);
    }
  }
  world_.random().shuffle(ready);
  if (isLoop_ && ready.size() > 1 && world_.random().chance(300)) {
    ready.resize(world_.random().between(1, ready.size() - 1));
  }
  ready.resize(std::min(ready.size(), events.size()));
  std::size_t count = 0;
  for (const int number : ready) {
    Watch& watch = watches_.at(number);
    watch.pending = false;
    const std::uint32_t mask = watch.events | EPOLLERR | EPOLLHUP;
    events[count].events = watch.descriptor->readiness() & mask;
    events[count].data = watch.data;
    ++count;
  }
  return static_cast<int>(count);
}

World::World(std::uint64_t seed, Bug bug, bool tracing)
    : seed_(seed), bug_(bug), tracing_(tracing), random_(seed) {
  if (theWorld != nullptr) {
    impossible("two worlds at a time");
  }
  theWorld = this;
}

World::~World() { theWorld = nullptr; }

World* World::current() { return theWorld; }

bool World::isSimulated(int number) {
  return number >= firstDescriptor && number < firstDescriptor + descriptorCount;
}

int World::add(std::shared_ptr<Descriptor> descriptor) {
  const std::lock_guard lock(mutex_);
  if (descriptors_.size() == static_cast<std::size_t>(descriptorCount)) {
    impossible("out of simulated descriptors");
  }
  descriptors_.push_back(std::move(descriptor));
  return firstDescriptor + static_cast<int>(descriptors_.size() - 1);
}

int World::addEpoll() {
  auto epoll = std::make_shared<Epoll>(*this);
  epolls_.push_back(epoll);
  return add(std::move(epoll));
}

Descriptor* World::get(int number) const {
  const std::lock_guard lock(mutex_);
  const auto index = static_cast<std::size_t>(number - firstDescriptor);
  return index < descriptors_.size() ? descriptors_[index].get() : nullptr;
}

int World::close(int number) {
  const auto index = static_cast<std::size_t>(number - firstDescriptor);
  if (get(number) == nullptr) {
    impossible(fmt::format("descriptor {} is closed twice", number));
  }
  std::shared_ptr<Descriptor> closed;
  {
    const std::lock_guard lock(mutex_);
    closed.swap(descriptors_[index]);
  }
  for (Epoll* const watcher : std::exchange(closed->watchers_, {})) {
    watcher->watches_.erase(number);
  }
  closed->closed();
  return 0;
}

void World::advanceWork(std::size_t index) {
  // It may begin other work meanwhile.
  std::unique_ptr<Work> work = std::move(works_[index]);
  works_.erase(works_.begin() + static_cast<std::ptrdiff_t>(index));

  if (!work->advance()) {
    works_.push_back(std::move(work));
  }
}

void World::addNote(std::string text) {
  notes_.push_back(
      fmt::format("{:>8} {:>14.6f} ms  {}", ticks_, static_cast<double>(now_) / 1e6 - 1e6, text));
  if (notes_.size() > keptNotes) {
    notes_.pop_front();
  }
}

void World::fail(std::string message) {
  note("FAILED: {}", message);
  if (!failure_) {
    failure_ = std::move(message);
  }
}

void World::impossible(const std::string& message) const {
  std::fprintf(stderr, "simulation, seed %llu: %s\n", static_cast<unsigned long long>(seed_),
               message.c_str());
  std::abort();
}

}  // namespace Simulation
