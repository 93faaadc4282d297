#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "nbdd/io/event_loop.h"
#include "nbdd/io/scope.h"
#include "nbdd/remote/device.h"
#include "tests/simulation/world/ledger.h"
#include "tests/simulation/world/remote_host.h"
#include "tests/simulation/world/run.h"
#include "tests/simulation/world/scheduler.h"
#include "tests/simulation/world/world.h"

namespace Simulation {

/// What the runs of imports have met.
struct ImportTally {
  std::uint64_t goodAnswers = 0;
  std::uint64_t landedTwice = 0;  // blocks of a write that was asked again although it had been carried out
  std::uint64_t kills = 0;
  std::uint64_t freezes = 0;
  std::uint64_t giveUps = 0;  // imports that would not work with their server any more

  ImportTally& operator+=(const ImportTally& other);
};

struct ImportOutcome {
  std::optional<std::string> failure;
  std::deque<std::string> notes;
  std::uint64_t fingerprint = 0;
  std::uint64_t steps = 0;
  ImportTally tally;
};

/// The mistakes of an import, for tests and command lines.
std::map<std::string, Bug> importBugNames();

/// Lets programs use an import, made of the service's own device, while its server comes and goes, and checks
/// what comes of it. One run at a time in a process.
ImportOutcome simulateImport(const Options& options);

class ImportRun final : public Scheduler {
 public:
  explicit ImportRun(const Options& options);
  ~ImportRun() override;
  ImportRun(const ImportRun&) = delete;
  ImportRun& operator=(const ImportRun&) = delete;

  ImportOutcome execute();
  void untilFinished(pthread_t thread) override;

 private:
  class Asked;
  struct Action {
    enum class Kind : std::uint8_t { service, host, deliver, acknowledge, ask, misfortune } kind;
    std::size_t index = 0;
    unsigned int weight = 1;
  };
  using Kind = Action::Kind;

  RemoteHost::Habits chooseHabits();
  bool step();
  void collect();
  void perform(const Action& action);
  bool letTimePass();
  void ask();
  void happen();
  Nbdd::Io::Task<void> endAll();

  World world_;
  Ledger ledger_;
  RemoteHost host_;
  Nbdd::Io::EventLoop loop_;
  Nbdd::Remote::Device device_;
  Nbdd::Io::Scope scope_;
  std::vector<std::unique_ptr<Asked>> asked_;
  std::vector<Action> actions_;
  ImportTally tally_;
  bool connected_ = false;
  bool ending_ = false;
  std::size_t left_ = 0;          // requests that programs will still ask
  std::size_t depth_ = 1;         // of them at a time
  unsigned int misfortunes_ = 0;  // per mille of steps
  unsigned int servicePace_ = 1;
  unsigned int hostPace_ = 1;
  unsigned int networkPace_ = 1;
  std::uint64_t steps_ = 0;
  std::thread thread_;
};

}  // namespace Simulation
