#include "tests/simulation/world/import_run.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Simulation {

namespace {

constexpr std::uint64_t mostSteps = 500'000;
constexpr std::size_t largest = 4;  // blocks of one request

}  // namespace

ImportTally& ImportTally::operator+=(const ImportTally& other) {
  goodAnswers += other.goodAnswers;
  landedTwice += other.landedTwice;
  kills += other.kills;
  freezes += other.freezes;
  giveUps += other.giveUps;
  return *this;
}

std::map<std::string, Bug> importBugNames() {
  return {{"no-drain", Bug::noDrain}, {"no-settle", Bug::noSettle}, {"lost-requests", Bug::lostRequests}};
}

ImportOutcome simulateImport(const Options& options) {
  ImportRun run(options);
  return run.execute();
}

/// A request of a program.
class ImportRun::Asked final : public Nbdd::Remote::Request {
 public:
  Asked(ImportRun& run, Ledger::Number which, Nbd::Command what, std::size_t first, std::size_t count)
      : run_(run), number_(which) {
    command = what;
    offset = first * blockSize;
    length = count * blockSize;
    memory_.resize(length);
    if (what == Nbd::Command::read) {
      destination = memory_;
    }
    if (what == Nbd::Command::write) {
      payload = memory_;
      for (std::size_t at = 0; at < memory_.size(); at += sizeof number_) {
        std::memcpy(memory_.data() + at, &number_, sizeof number_);
      }
    }
  }

  void done(Nbd::Error error) override {
    const bool good = error == Nbd::Error::none;
    run_.world_.note("request {} is answered with {}", number_, static_cast<unsigned int>(error));
    std::vector<Ledger::Number> found;
    if (good && command == Nbd::Command::read) {
      for (std::size_t block = 0; block < length / blockSize; ++block) {
        found.push_back(whole(block));
      }
    }
    run_.ledger_.answered(number_, good, found);
  }

 private:
  /// The number that all of a block repeats.
  Ledger::Number whole(std::size_t block) {
    const std::span bytes = std::span(memory_).subspan(block * blockSize, blockSize);
    Ledger::Number number = 0;
    std::memcpy(&number, bytes.data(), sizeof number);
    for (std::size_t at = 0; at < blockSize; at += sizeof number) {
      if (std::memcmp(bytes.data() + at, &number, sizeof number) != 0) {
        run_.world_.fail("a block is read that was put together from several writes");
      }
    }
    return number;
  }

  ImportRun& run_;
  const Ledger::Number number_;
  std::vector<std::byte> memory_;
};

ImportRun::ImportRun(const Options& options)
    : world_(options.seed, options.bug, options.tracing),
      ledger_(world_, world_.random().pick({4U, 8U, 64U})),
      host_(world_, ledger_, chooseHabits()),
      device_(loop_, {.server = {.host = "192.0.2.1", .port = 10809}, .exportName = "disk"},
              {.connected = [this] { connected_ = true; },
               .waiting = [this](const Control::Failure& why) { world_.note("waiting: {}", why.message); },
               .failed =
                   [this](const Control::Failure& why) {
                     world_.note("given up: {}", why.message);
                     ++tally_.giveUps;
                   }}) {
  world_.setNetwork(&host_);
  Random& random = world_.random();
  Faults& faults = world_.faults();
  faults.interrupted = random.pick({0U, 10U, 100U});
  left_ = random.between(20, 120);
  depth_ = random.pick({1U, 4U, 16U});
  misfortunes_ = random.pick({0U, 3U, 10U, 30U});
  servicePace_ = random.pick({3U, 10U, 30U});
  hostPace_ = random.pick({1U, 10U, 30U});
  networkPace_ = random.pick({1U, 10U, 30U});
  loop_.post([this] { device_.start(); });
  thread_ = std::thread([this] { loop_.run(); });
}

ImportRun::~ImportRun() { thread_.join(); }

RemoteHost::Habits ImportRun::chooseHabits() {
  Random& random = world_.random();
  RemoteHost::Habits habits;
  habits.policy.extendedHeaders = random.chance(500);
  habits.policy.structuredReplies = random.chance(700);
  habits.severalConnections = random.chance(500);
  habits.slow = random.pick({0U, 50U, 300U});
  habits.lies = random.pick({0U, 0U, 20U});
  habits.refusals = random.pick({0U, 0U, 30U});
  habits.errors = random.pick({0U, 0U, 30U});
  return habits;
}

// --- One step after the other

bool ImportRun::step() {
  ++steps_;
  world_.advance(static_cast<Nanoseconds>(world_.random().below(20'000)));
  host_.pass();
  collect();
  if (actions_.empty()) {
    return letTimePass();
  }
  perform(actions_[world_.random().weighted(actions_)]);
  return true;
}

void ImportRun::collect() {
  actions_.clear();
  for (std::size_t index = 0; index < world_.epolls().size(); ++index) {
    if (world_.epolls()[index]->runnable()) {
      actions_.push_back({.kind = Kind::service, .index = index, .weight = servicePace_});
    }
  }
  for (std::size_t index = 0; index < host_.sessionCount(); ++index) {
    if (host_.canWork(index)) {
      actions_.push_back({.kind = Kind::host, .index = index, .weight = hostPace_});
    }
    // The network knows nothing of a host that has stopped.
    if (host_.socket(index).canDeliver()) {
      actions_.push_back({.kind = Kind::deliver, .index = index, .weight = networkPace_});
    }
    if (host_.socket(index).canAcknowledge()) {
      actions_.push_back({.kind = Kind::acknowledge, .index = index, .weight = networkPace_});
    }
  }
  if (connected_ && left_ > 0 && ledger_.unanswered() < depth_) {
    actions_.push_back({.kind = Kind::ask, .weight = servicePace_});
  }
  if (!ending_ && left_ > 0 && world_.random().chance(misfortunes_)) {
    actions_.assign(1, {.kind = Kind::misfortune});
  }
}

void ImportRun::perform(const Action& action) {
  switch (action.kind) {
    case Kind::service:
      world_.epolls()[action.index]->resume();
      break;
    case Kind::host:
      host_.work(action.index);
      break;
    case Kind::deliver:
      host_.socket(action.index).deliver();
      break;
    case Kind::acknowledge:
      host_.socket(action.index).acknowledge();
      break;
    case Kind::ask:
      ask();
      break;
    case Kind::misfortune:
      happen();
      break;
  }
}

void ImportRun::ask() {
  Random& random = world_.random();
  --left_;
  const std::size_t count = random.between(1, std::min(largest, ledger_.blocks()));
  const std::size_t first = random.below(ledger_.blocks() - count + 1);
  std::unique_ptr<Asked> asked;
  if (random.chance(50)) {
    asked = std::make_unique<Asked>(*this, ledger_.asksFlush(), Nbd::Command::flush, 0, 0);
  } else if (random.chance(600)) {
    asked =
        std::make_unique<Asked>(*this, ledger_.asksWrite(first, count), Nbd::Command::write, first, count);
  } else {
    asked = std::make_unique<Asked>(*this, ledger_.asksRead(first, count), Nbd::Command::read, first, count);
  }
  asked_.push_back(std::move(asked));
  loop_.post([this, request = asked_.back().get()] { device_.submit(*request); });
}

void ImportRun::happen() {
  if (!host_.running()) {
    return host_.start();
  }
  if (host_.frozen()) {
    return host_.thaw();
  }
  switch (world_.random().below(3)) {
    case 0:
      ++tally_.kills;
      return host_.kill();
    case 1:
      ++tally_.freezes;
      return host_.freeze();
    default:
      if (host_.sessionCount() > 0) {
        host_.cut(world_.random().below(host_.sessionCount()));
      }
  }
}

/// Nothing can happen at this moment: on to the next at which something can.
bool ImportRun::letTimePass() {
  std::optional<Nanoseconds> next = host_.deadline();
  for (const std::shared_ptr<Epoll>& epoll : world_.epolls()) {
    if (const std::optional<Nanoseconds> deadline = epoll->deadline()) {
      next = std::min(next.value_or(*deadline), *deadline);
    }
  }
  const bool isDown = !host_.running() || host_.frozen();
  if (isDown && (!next || world_.random().chance(200))) {
    happen();
    return true;
  }
  if (!next) {
    return false;
  }
  world_.note("nothing to do for {:.3f} ms", static_cast<double>(*next - world_.now()) / 1e6);
  world_.advanceTo(*next);
  return true;
}

// --- The end

ImportOutcome ImportRun::execute() {
  const auto isOver = [this] { return left_ == 0 && ledger_.unanswered() == 0; };
  while (!world_.failure() && !isOver()) {
    if (left_ == 0) {
      host_.behave();
      misfortunes_ = 0;
    }
    if (!step()) {
      world_.fail(fmt::format("nothing can go on any more; {} requests wait", ledger_.unanswered()));
    } else if (steps_ > mostSteps) {
      world_.fail(fmt::format("does not come to an end; {} requests wait", ledger_.unanswered()));
    }
  }
  if (!world_.failure()) {
    ledger_.checkTheEnd();
  }
  tally_.goodAnswers = ledger_.goodAnswers();
  tally_.landedTwice = ledger_.landedTwice();
  ending_ = true;
  left_ = 0;
  loop_.post([this] { scope_.spawn(endAll()); });
  untilFinished(thread_.native_handle());
  return {.failure = world_.failure(),
          .notes = world_.notes(),
          .fingerprint = world_.fingerprint(),
          .steps = steps_,
          .tally = tally_};
}

Nbdd::Io::Task<void> ImportRun::endAll() {
  device_.stop();
  Nbdd::Io::Scope::Joined stopped = device_.stopped();
  co_await stopped;
  loop_.stop();
}

void ImportRun::untilFinished(pthread_t thread) {
  const auto isOver = [thread](const std::shared_ptr<Epoll>& epoll) {
    return epoll->finished() && epoll->belongsTo(thread);
  };
  for (std::uint64_t steps = 0; std::ranges::none_of(world_.epolls(), isOver); ++steps) {
    if (!step() || steps > mostSteps) {
      world_.impossible("an import that shall end does not");
    }
  }
}

}  // namespace Simulation
