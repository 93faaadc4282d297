#pragma once

// A small world in which the server's own code runs, and in which nothing happens by chance.
//
// The test program is linked so that the system calls which the data path makes, and the clock, lead here
// first (system_calls.cpp). A call on a simulated descriptor is answered by the world; all others go to the
// kernel. Threads of the server are real, but only one runs at a time: a worker that would sleep in
// epoll_pwait2 hands the turn back to the scheduler, which moves bytes, lets the disk work, advances the
// clock, or lets a worker go on, as one random number generator says. The same seed makes the same run.

#include <fmt/format.h>
#include <pthread.h>
#include <sys/epoll.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <semaphore>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "nbdd/log/log.h"
#include "tests/simulation/world/random.h"

namespace Simulation {

using Nanoseconds = std::int64_t;

class Epoll;
class Network;
class World;

/// Mistakes that a server could make, put in between it and the world: the simulation has to find each.
enum class Bug : std::uint8_t {
  none,
  lateSync,       // who asks for a sync while one is running is served by that one
  noSync,         // FLUSH and FUA are answered without a sync
  syncSwallowed,  // a failed sync counts as a good one
  noFence,        // a new session does not wait for the requests of a connection that is gone
  shortWrite,     // what a short write left over is forgotten
  staleRead,      // a failed read is answered with what was in the buffer
  sleepyWriter,   // nobody waits for a full socket to take more
  halfWrite,      // the end of the connection is taken for the end of a write's data
  noDrain,        // an import asks again without waiting for the end of the old connection at the server
  noSettle,       // and after a silent path, without leaving the next connection alone for some time
  lostRequests,   // what a lost connection did not answer is taken for done
};

/// What a simulated descriptor number stands for.
class Descriptor {
 public:
  virtual ~Descriptor() = default;
  /// epoll's flags that hold now
  virtual std::uint32_t readiness() const { return 0; }
  /// The server has closed it.
  virtual void closed() {}

  /// Tells who watches that something has happened (an edge, in epoll's words).
  void raise();

 private:
  friend class Epoll;
  friend class World;
  std::vector<Epoll*> watchers_;
  int number_ = -1;
};

/// What eventfd(2) makes.
class EventCounter final : public Descriptor {
 public:
  std::uint32_t readiness() const override { return count_ > 0 ? EPOLLIN : 0U; }
  void add(std::uint64_t value) {
    count_ += value;
    raise();
  }

 private:
  std::uint64_t count_ = 0;
};

/// What epoll_create(2) makes, and the thread that sleeps in it, if it is one of a loop.
class Epoll final : public Descriptor {
 public:
  explicit Epoll(World& world) : world_(world) {}
  ~Epoll() override;

  // The server's side.
  int control(int operation, int number, const epoll_event* event);
  int wait(std::span<epoll_event> events, std::optional<Nanoseconds> limit);
  /// What is ready, without waiting.
  int look(std::span<epoll_event> events);

  // The scheduler's side.
  bool runnable() const;
  std::optional<Nanoseconds> deadline() const { return finished_ ? std::nullopt : deadline_; }
  /// Lets the thread run until it sleeps again or ends.
  void resume();
  bool finished() const { return finished_; }
  bool belongsTo(pthread_t thread) const { return thread_ && ::pthread_equal(*thread_, thread) != 0; }

 private:
  friend class Descriptor;
  friend class World;
  struct Watch {
    std::uint32_t events = 0;
    epoll_data_t data{};
    Descriptor* descriptor = nullptr;
    bool pending = false;
  };
  struct Presence;

  bool isReady(const Watch& watch) const;
  int collect(std::span<epoll_event> events);

  World& world_;
  std::map<int, Watch> watches_;
  std::optional<Nanoseconds> deadline_;
  std::optional<pthread_t> thread_;
  bool isLoop_ = false;  // it watches an eventfd, so a thread sleeps in it or is about to
  bool fresh_ = true;    // its thread has not had a turn yet
  bool finished_ = false;
  std::binary_semaphore go_{0};
  std::binary_semaphore back_{0};
};

/// Something that was started and is not finished, on the disk for the most part.
class Work {
 public:
  virtual ~Work() = default;
  /// Makes the next step. True: it is finished.
  virtual bool advance() = 0;
};

/// How often (per mille) the world shows its bad sides.
struct Faults {
  unsigned int interrupted = 0;  // EINTR
  unsigned int shortTransfer = 0;
  unsigned int readError = 0;
  unsigned int writeError = 0;
  unsigned int syncError = 0;
  unsigned int notCached = 0;
  bool noPunch = false;      // the file system cannot punch holes
  bool noZeroRange = false;  // nor zero ranges
};

class World {
 public:
  World(std::uint64_t seed, Bug bug, bool tracing);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  /// The world that is, or null. There is one at a time.
  static World* current();

  Random& random() { return random_; }
  Bug bug() const { return bug_; }
  Faults& faults() { return faults_; }

  // Time. Every look at the clock takes a nanosecond, so that no two moments are the same.
  Nanoseconds now() const { return now_; }
  Nanoseconds look() { return ++now_; }
  void advance(Nanoseconds span) { now_ += span; }
  void advanceTo(Nanoseconds moment) { now_ = std::max(now_, moment); }
  /// A number that grows with each event: what was first.
  std::uint64_t tick() { return ++ticks_; }

  // Descriptors.
  static bool isSimulated(int number);
  int add(std::shared_ptr<Descriptor> descriptor);
  int close(int number);
  /// Ends the process with a message if the number is simulated, but stands for something else or for
  /// nothing any more. Null if it is not simulated.
  template <class T>
  T* find(int number) {
    if (!isSimulated(number)) {
      return nullptr;
    }
    T* const found = dynamic_cast<T*>(get(number));
    if (found == nullptr) {
      impossible(fmt::format("a system call on descriptor {} that is closed or of another kind", number));
    }
    return found;
  }
  Descriptor* get(int number) const;

  const std::vector<std::shared_ptr<Epoll>>& epolls() const { return epolls_; }
  int addEpoll();

  // Work of the disk.
  void begin(std::unique_ptr<Work> work) { works_.push_back(std::move(work)); }
  std::size_t workCount() const { return works_.size(); }
  void advanceWork(std::size_t index);

  /// What the service reaches when it connects by itself; null: the real network.
  Network* network() const { return network_; }
  void setNetwork(Network* network) { network_ = network; }

  // What happened.
  bool tracing() const { return tracing_; }
  template <class... Arguments>
  void note(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    if (tracing_) {
      addNote(fmt::format(format, std::forward<Arguments>(arguments)...));
    }
  }
  const std::deque<std::string>& notes() const { return notes_; }
  /// The first failure of a run is its failure.
  void fail(std::string message);
  const std::optional<std::string>& failure() const { return failure_; }
  /// Ends the process: the harness itself cannot go on.
  [[noreturn]] void impossible(const std::string& message) const;
  /// A fingerprint of all that was decided so far.
  std::uint64_t fingerprint() const {
    return Random(random_).next() ^ ticks_ ^ static_cast<std::uint64_t>(now_);
  }

  std::uint64_t seed() const { return seed_; }
  /// Where the server's log goes: to the notes.
  Nbdd::Log& log() { return log_; }

 private:
  void addNote(std::string text);

  const std::uint64_t seed_;
  const Bug bug_;
  const bool tracing_;
  Random random_;
  Faults faults_;
  Nanoseconds now_ = 1'000'000'000'000;
  std::uint64_t ticks_ = 0;
  mutable std::mutex mutex_;  // a thread that has just been started looks for its epoll beside the others
  std::vector<std::shared_ptr<Descriptor>> descriptors_;  // guarded by mutex_
  std::vector<std::shared_ptr<Epoll>> epolls_;
  std::vector<std::unique_ptr<Work>> works_;
  Network* network_ = nullptr;
  std::deque<std::string> notes_;
  std::optional<std::string> failure_;
  Nbdd::Log log_{Nbdd::Log::Form::journal, [this](std::string_view line) { note("log: {}", line); }};
};

}  // namespace Simulation
