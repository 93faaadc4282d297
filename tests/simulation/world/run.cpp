#include "tests/simulation/world/run.h"

#include <algorithm>
#include <utility>

#include "nbdd/exports/storage.h"
#include "nbdd/limits.h"

namespace Simulation {

namespace {

constexpr auto diskId = Control::ExportId{1};
constexpr std::uint64_t mostSteps = 500'000;

}  // namespace

std::map<std::string, Bug> bugNames() {
  return {{"late-sync", Bug::lateSync},           {"no-sync", Bug::noSync},
          {"sync-swallowed", Bug::syncSwallowed}, {"no-fence", Bug::noFence},
          {"short-write", Bug::shortWrite},       {"stale-read", Bug::staleRead},
          {"sleepy-writer", Bug::sleepyWriter},   {"half-write", Bug::halfWrite}};
}

Outcome simulate(const Options& options) {
  Run run(options);
  return run.execute();
}

Run::Run(const Options& options) : world_(options.seed, options.bug, options.tracing), options_(options) {
  openDisk();
  startServer();
  chooseFaults();
  Random& random = world_.random();
  pace_ = {.worker = random.pick({3U, 10U, 30U}),
           .disk = random.pick({1U, 10U, 30U}),
           .network = random.pick({1U, 10U, 30U}),
           .client = random.pick({1U, 10U, 30U})};
  operatorActs_ = random.pick({0U, 0U, 1U, 4U});
  const std::uint64_t count = random.between(1, 4);
  for (std::uint64_t index = 0; index < count; ++index) {
    clients_.push_back(std::make_unique<Client>(world_, model_, chooseHabits(), [this] { return accept(); }));
  }
}

Run::~Run() {
  table_.withdraw(diskId);
  storage_.reset();
  workers_.clear();
}

void Run::openDisk() {
  Random& random = world_.random();
  inMemory_ = random.chance(200);
  blockDevice_ = !inMemory_ && random.chance(150);
  readOnly_ = random.chance(30);
  std::uint64_t size = random.pick({40'000ULL, 65'536ULL, 300'000ULL, 2'500'000ULL});
  size = blockDevice_ ? size / 4096 * 4096 : size;
  disk_ = std::make_unique<Disk>(world_, model_, size);
  model_.attach(*disk_);
}

void Run::startServer() {
  Random& random = world_.random();
  events_.sessionEnded = [] {};
  events_.storageFailed = [this](Control::ExportId, int error) {
    world_.note("the server says that the storage has failed: {}", error);
    for (std::size_t generation = 0; generation < storages_.size(); ++generation) {
      const std::shared_ptr<Nbdd::Storage> storage = storages_[generation].lock();
      if (storage && storage->failed()) {
        model_.storageFailed(generation);
      }
    }
  };
  const bool ring = options_.bug != Bug::none || random.chance(700);
  const std::uint64_t count = random.pick({1U, 1U, 2U});
  const Nbdd::Worker::Pools pools{.storage = pool_, .handshakes = pool_, .computing = pool_};
  for (std::uint64_t index = 0; index < count; ++index) {
    workers_.push_back(std::make_unique<Nbdd::Worker>(table_, pools, ring, events_));
    if (workers_.back()->storageEngine() != (ring ? "simulation" : "threads")) {
      world_.impossible("the server waits for storage in a way that is not simulated");
    }
  }
  publish(false);
}

void Run::publish(bool related) {
  Nbdd::OpenNode node;
  node.descriptor = Nbdd::Io::FileDescriptor(world_.add(std::make_shared<File>(*disk_)));
  node.readOnly = readOnly_;
  node.blockDevice = blockDevice_;
  node.memoryBacked = inMemory_;
  node.size = disk_->size();
  node.logicalBlock = blockDevice_ ? 512 : 1;
  const std::shared_ptr<Nbdd::Storage> predecessor = related ? storage_ : nullptr;
  const bool failsTogether = predecessor != nullptr && !predecessor->failed();
  storage_ = std::make_shared<Nbdd::Storage>(std::move(node), predecessor.get());
  const std::size_t generation = model_.newGeneration(failsTogether, inMemory_);
  storages_.push_back(storage_);
  table_.publish({.id = diskId,
                  .name = "disk",
                  .description = std::to_string(generation),
                  .storage = storage_,
                  .counters = std::make_shared<Nbdd::TransferCounters>()});
  published_ = true;
  world_.note("generation {} is published", generation);
}

void Run::chooseFaults() {
  Random& random = world_.random();
  Faults& faults = world_.faults();
  faults.interrupted = random.pick({0U, 10U, 100U});
  faults.shortTransfer = random.pick({0U, 50U, 300U});
  faults.readError = random.pick({0U, 0U, 10U, 50U});
  faults.writeError = random.pick({0U, 0U, 10U, 50U});
  faults.syncError = random.pick({0U, 0U, 20U, 100U});
  faults.notCached = random.pick({0U, 200U, 800U, 1000U});
  faults.noPunch = random.chance(200);
  faults.noZeroRange = random.chance(200);
}

Habits Run::chooseHabits() {
  Random& random = world_.random();
  Habits habits;
  habits.lives = static_cast<unsigned int>(random.between(1, 3));
  habits.largest = random.pick({600U, 4096U, 4096U, 20'000U, 100'000U, 400'000U, 1'500'000U});
  habits.largest = static_cast<std::uint32_t>(std::min<std::uint64_t>(habits.largest, disk_->size()));
  habits.requests = std::clamp<std::size_t>(2'000'000 / habits.largest, 8, 50);
  habits.requests = random.between(1, habits.requests);
  habits.depth = random.pick({1U, 4U, 16U, 64U});
  habits.hotBytes = std::max<std::uint64_t>(habits.largest * random.between(1, 4), 2048);
  habits.fua = random.pick({0U, 100U, 500U});
  habits.stalls = random.pick({0U, 0U, 2U, 10U});
  habits.cuts = random.pick({0U, 2U, 10U});
  habits.longestStall = random.pick({1'000'000LL, 3'000'000'000LL, 100'000'000'000LL});
  return habits;
}

std::shared_ptr<Connection> Run::accept() {
  Random& random = world_.random();
  auto connection = std::make_shared<Connection>();
  connection->number = static_cast<int>(accepted_.size());
  connection->socket = std::make_shared<Socket>(world_, random.pick({200U, 4096U, 65'536U, 400'000U}),
                                                random.pick({100U, 3000U, 20'000U, 300'000U}));
  connection->acceptedAt = world_.tick();
  if (!published_) {
    connection->exportMayBeGone = true;
  }
  const Nbdd::SessionId session = accepted_.size() + 1;
  accepted_.push_back({.connection = connection, .session = session});
  model_.connected(connection);
  Nbdd::Worker& worker = **std::ranges::min_element(workers_, {}, &Nbdd::Worker::sessionCount);
  worker.adopt(session, Nbdd::Io::FileDescriptor(world_.add(connection->socket)),
               {.address = "192.0.2.1", .port = 1});
  world_.note("connection {} is accepted", connection->number);
  return connection;
}

// --- One step after the other

bool Run::step() {
  ++steps_;
  world_.advance(static_cast<Nanoseconds>(world_.random().below(20'000)));
  collect();
  if (actions_.empty()) {
    return letTimePass();
  }
  perform(actions_[world_.random().weighted(actions_)]);
  model_.forgetEnded();
  return true;
}

void Run::collect() {
  actions_.clear();
  for (std::size_t index = 0; index < world_.epolls().size(); ++index) {
    if (world_.epolls()[index]->runnable()) {
      actions_.push_back({.kind = Kind::worker, .index = index, .weight = pace_.worker});
    }
  }
  for (std::size_t index = 0; index < world_.workCount(); ++index) {
    actions_.push_back({.kind = Kind::work, .index = index, .weight = pace_.disk});
  }
  for (std::size_t index = 0; index < accepted_.size(); ++index) {
    const Socket& socket = *accepted_[index].connection->socket;
    if (socket.canDeliver()) {
      actions_.push_back({.kind = Kind::deliver, .index = index, .weight = pace_.network});
    }
    if (socket.canAcknowledge()) {
      actions_.push_back({.kind = Kind::acknowledge, .index = index, .weight = pace_.network});
    }
  }
  for (std::size_t index = 0; index < clients_.size(); ++index) {
    collectClient(index);
  }
  if (!actions_.empty() && !finishing_ && world_.random().chance(operatorActs_)) {
    actions_.assign(1, {.kind = Kind::operatorActs, .index = 0, .weight = 1});
  }
}

void Run::collectClient(std::size_t index) {
  const Client& client = *clients_[index];
  const auto add = [&](bool can, Kind kind) {
    if (can) {
      actions_.push_back({.kind = kind, .index = index, .weight = pace_.client});
    }
  };
  add(client.canConnect(), Kind::clientConnects);
  add(client.canSend(), Kind::clientSends);
  add(client.canReceive(), Kind::clientReceives);
  if (client.connected() && !client.stalled()) {
    const Habits& habits = client.habits();
    add(world_.random().chance(habits.stalls), Kind::clientStalls);
    add(world_.random().chance(habits.cuts), Kind::clientIsCut);
  }
}

void Run::perform(const Action& action) {
  switch (action.kind) {
    case Kind::worker:
      world_.note("worker {} runs", action.index);
      world_.epolls()[action.index]->resume();
      break;
    case Kind::work:
      world_.advanceWork(action.index);
      break;
    case Kind::deliver:
      accepted_[action.index].connection->socket->deliver();
      break;
    case Kind::acknowledge:
      accepted_[action.index].connection->socket->acknowledge();
      break;
    case Kind::clientConnects:
      clients_[action.index]->connect();
      break;
    case Kind::clientSends:
      clients_[action.index]->send();
      break;
    case Kind::clientReceives:
      clients_[action.index]->receive();
      break;
    case Kind::clientStalls:
      clients_[action.index]->stall();
      break;
    case Kind::clientIsCut:
      clients_[action.index]->cut();
      break;
    case Kind::operatorActs:
      operate();
      break;
  }
}

/// Nothing can happen at this moment: on to the next at which something can. False: there is none.
bool Run::letTimePass() {
  std::optional<Nanoseconds> next;
  const auto consider = [&](Nanoseconds moment) { next = std::min(next.value_or(moment), moment); };
  for (const std::shared_ptr<Epoll>& epoll : world_.epolls()) {
    if (const std::optional<Nanoseconds> deadline = epoll->deadline()) {
      consider(*deadline);
    }
  }
  bool someoneStalls = false;
  for (const std::unique_ptr<Client>& client : clients_) {
    if (client->stalled()) {
      someoneStalls = true;
      consider(client->stalledUntil());
    }
  }
  if (!next) {
    return false;
  }
  const Nanoseconds passing = *next - world_.now();
  for (const std::unique_ptr<Client>& client : clients_) {
    if (client->stalled()) {
      client->connection()->stalled += passing;
    }
  }
  if (passing > patience && !someoneStalls && std::ranges::any_of(clients_, &Client::connected)) {
    world_.fail(
        fmt::format("the server waits for a deadline while its clients wait for it:{}", describeHang()));
  }
  world_.note("nothing to do for {:.3f} ms", static_cast<double>(passing) / 1e6);
  world_.advanceTo(*next);
  return true;
}

std::string Run::describeHang() const {
  std::string text;
  for (const std::unique_ptr<Client>& client : clients_) {
    text += fmt::format(" [{}]", client->state());
  }
  return text;
}

// --- What an operator does

void Run::operate() {
  switch (world_.random().below(4)) {
    case 0:
      endOne();
      break;
    case 1:
      endAll();
      break;
    default:
      replaceExport();
      break;
  }
}

void Run::endOne() {
  const std::vector<Nbdd::AttachedSession> sessions = table_.sessions(diskId);
  if (sessions.empty()) {
    return;
  }
  const Nbdd::AttachedSession& chosen = sessions[world_.random().below(sessions.size())];
  Connection& connection = *accepted_[chosen.id - 1].connection;
  world_.note("connection {} is to be ended", connection.number);
  connection.ending = connection.endedByServer = true;
  chosen.worker->endSession(chosen.id);
}

void Run::endAll() {
  world_.note("all connections are to be ended");
  for (const Accepted& accepted : accepted_) {
    accepted.connection->ending = accepted.connection->endedByServer = accepted.connection->exportMayBeGone =
        true;
  }
  for (const std::unique_ptr<Nbdd::Worker>& worker : workers_) {
    worker->endAllSessions();
  }
}

/// Disables the export, or enables it anew; the clients of the old one stay if nobody ends them.
void Run::replaceExport() {
  if (!published_) {
    publish(true);
    return;
  }
  world_.note("the export is withdrawn");
  table_.withdraw(diskId);
  withdrawn();
  if (world_.random().chance(500)) {
    for (const Nbdd::AttachedSession& session : table_.sessions(diskId)) {
      Connection& connection = *accepted_[session.id - 1].connection;
      connection.ending = connection.endedByServer = true;
      session.worker->endSession(session.id);
    }
  }
}

/// Who is not attached by now will not be.
void Run::withdrawn() {
  published_ = false;
  const std::vector<Nbdd::AttachedSession> sessions = table_.sessions(diskId);
  for (const Accepted& accepted : accepted_) {
    if (std::ranges::find(sessions, accepted.session, &Nbdd::AttachedSession::id) == sessions.end()) {
      accepted.connection->ending = accepted.connection->endedByServer =
          accepted.connection->exportMayBeGone = true;
    }
  }
}

// --- The end

Outcome Run::execute() {
  while (!world_.failure() && !allIsQuiet()) {
    if (!step()) {
      world_.fail(fmt::format("nothing can go on any more:{}", describeHang()));
    } else if (steps_ > mostSteps) {
      world_.fail(fmt::format("does not come to an end:{}", describeHang()));
    }
  }
  if (!world_.failure()) {
    checkTheEnd();
  }
  stopServer();
  return {.failure = world_.failure(),
          .notes = world_.notes(),
          .fingerprint = world_.fingerprint(),
          .steps = steps_,
          .tally = model_.tally()};
}

bool Run::allIsQuiet() const {
  return std::ranges::all_of(clients_, &Client::finished) && world_.workCount() == 0 &&
         std::ranges::all_of(accepted_,
                             [](const Accepted& one) { return one.connection->socket->closedByServer(); });
}

void Run::checkTheEnd() {
  // The last session is destroyed at the end of a turn, so let the turns end.
  while (std::ranges::any_of(world_.epolls(), &Epoll::runnable)) {
    step();
  }
  if (table_.sessionCount(diskId) != 0) {
    world_.fail("a session is still attached after all have ended");
  }
  for (const std::unique_ptr<Nbdd::Worker>& worker : workers_) {
    if (worker->sessionCount() != 0) {
      world_.fail("a worker has sessions left after all have ended");
    }
  }
  checkBudgets();
  table_.withdraw(diskId);
  const std::weak_ptr<Nbdd::Storage> rest = storage_;
  storage_.reset();
  if (!rest.expired()) {
    world_.fail("somebody still holds the storage after all have left");
  }
}

void Run::checkBudgets() {
  for (const std::unique_ptr<Nbdd::Worker>& worker : workers_) {
    bool looked = false;
    worker->post([this, &looked, &worker] {
      looked = true;
      if (!worker->payloadMemory().tryTake(Nbdd::Limits::workerPayload)) {
        world_.fail("memory of the budget was not given back");
      }
    });
    while (!looked && step()) {
    }
  }
}

void Run::stopServer() {
  finishing_ = true;
  if (world_.failure()) {
    model_.rest();
    world_.faults() = {};
    for (const std::unique_ptr<Client>& client : clients_) {
      client->giveUp();
    }
  }
  for (const std::unique_ptr<Nbdd::Worker>& worker : workers_) {
    worker->finish();
  }
}

void Run::untilFinished(pthread_t thread) {
  const auto isOver = [thread](const std::shared_ptr<Epoll>& epoll) {
    return epoll->finished() && epoll->belongsTo(thread);
  };
  while (std::ranges::none_of(world_.epolls(), isOver)) {
    if (!step()) {
      world_.impossible("a worker that shall finish does not");
    }
  }
}

}  // namespace Simulation
