#pragma once

#include <pthread.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "nbdd/io/thread_pool.h"
#include "nbdd/server/export_table.h"
#include "nbdd/server/worker.h"
#include "tests/simulation/world/client.h"
#include "tests/simulation/world/disk.h"
#include "tests/simulation/world/model.h"
#include "tests/simulation/world/scheduler.h"
#include "tests/simulation/world/world.h"

namespace Simulation {

struct Options {
  std::uint64_t seed = 1;
  Bug bug = Bug::none;
  bool tracing = false;
};

/// What came of a run.
struct Outcome {
  std::optional<std::string> failure;
  std::deque<std::string> notes;  // what happened, if the run was traced
  std::uint64_t fingerprint = 0;  // the same for two runs that were the same
  std::uint64_t steps = 0;
  Tally tally;
};

/// The names of the mistakes, for tests and command lines.
std::map<std::string, Bug> bugNames();

/// Lets clients use a server, made of the service's own workers, sessions and export table, until all of them
/// have left, and checks what comes of it. One run at a time in a process.
Outcome simulate(const Options& options);

class Run final : public Scheduler {
 public:
  explicit Run(const Options& options);
  ~Run() override;
  Outcome execute();
  /// Goes on until a thread of the server has ended.
  void untilFinished(pthread_t thread) override;

 private:
  enum class Kind : std::uint8_t {
    worker,
    work,
    deliver,
    acknowledge,
    clientConnects,
    clientSends,
    clientReceives,
    clientStalls,
    clientIsCut,
    operatorActs,
  };
  struct Action {
    Kind kind;
    std::size_t index;
    unsigned int weight;
  };
  /// How eager each part of the world is: some runs have a slow disk, others slow clients.
  struct Pace {
    unsigned int worker = 1;
    unsigned int disk = 1;
    unsigned int network = 1;
    unsigned int client = 1;
  };
  struct Accepted {
    std::shared_ptr<Connection> connection;
    Nbdd::SessionId session = 0;
  };

  void chooseFaults();
  Habits chooseHabits();
  void openDisk();
  void startServer();
  void publish(bool related);
  std::shared_ptr<Connection> accept();

  bool step();
  void collect();
  void collectClient(std::size_t index);
  void perform(const Action& action);
  bool letTimePass();
  void operate();
  void endOne();
  void endAll();
  void replaceExport();
  void withdrawn();
  void stopServer();

  bool allIsQuiet() const;
  void checkTheEnd();
  void checkBudgets();
  std::string describeHang() const;

  World world_;
  const Options options_;
  Model model_{world_};
  std::unique_ptr<Disk> disk_;
  Nbdd::Io::ThreadPool pool_{1};
  Nbdd::WorkerEvents events_;
  Nbdd::ExportTable table_{[](Control::ExportId) {}};
  std::vector<std::unique_ptr<Nbdd::Worker>> workers_;
  std::vector<std::unique_ptr<Client>> clients_;
  std::vector<Accepted> accepted_;
  std::shared_ptr<Nbdd::Storage> storage_;              // the one that is published, or was last
  std::vector<std::weak_ptr<Nbdd::Storage>> storages_;  // by generation
  std::vector<Action> actions_;
  Pace pace_;
  bool inMemory_ = false;
  bool blockDevice_ = false;
  bool readOnly_ = false;
  bool published_ = false;
  bool finishing_ = false;
  unsigned int operatorActs_ = 0;  // per mille of steps
  std::uint64_t steps_ = 0;
};

}  // namespace Simulation
