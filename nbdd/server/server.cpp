#include "nbdd/server/server.h"

#include <algorithm>
#include <map>
#include <thread>
#include <utility>

#include "nbdd/io/thread_pool.h"
#include "nbdd/limits.h"
#include "nbdd/log/log.h"
#include "nbdd/server/export_search.h"
#include "nbdd/server/export_table.h"
#include "nbdd/server/listener.h"
#include "nbdd/server/worker.h"

namespace Nbdd {

// Workers call back on their own threads; everything they have to say is posted to the control loop, and
// refers to the state weakly: it may be gone by then.
struct Server::State : std::enable_shared_from_this<Server::State> {
  State(Io::EventLoop& controlLoop, Events callbacks) : loop(controlLoop), events(std::move(callbacks)) {}

  Io::EventLoop& loop;
  Events events;
  std::unique_ptr<ExportTable> table;
  ExtensionService extension;  // outlives the searches, which use it
  Io::ThreadPool pool{Limits::poolThreads};
  Io::ThreadPool searches{Limits::searchThreads};
  // One for two processors: however many clients come at once, half of the processors are for those that are
  // there.
  Io::ThreadPool handshakes{std::max(1U, std::thread::hardware_concurrency() / 2)};
  // One for each processor: each works on memory of its own that fits into a cache, and more would take turns
  // there.
  Io::ThreadPool computing{std::max(1U, std::thread::hardware_concurrency())};
  WorkerEvents workerEvents;
  std::vector<std::unique_ptr<Worker>> workers;
  std::unique_ptr<Listener> listener;
  SessionId nextSession = 1;
  std::size_t connections = 0;
  std::multimap<Control::ExportId, Io::Function> whenExportIsFree;
  std::vector<Io::Function> whenAllIsClosed;
  std::vector<Io::Function> whenCleared;

  /// Runs `function` on the control loop, if the server still exists then.
  void postToControl(std::move_only_function<void(State&)> function) {
    loop.post([weak = weak_from_this(), function = std::move(function)]() mutable {
      if (const std::shared_ptr<State> state = weak.lock()) {
        function(*state);
      }
    });
  }

  void start(const Options& options) {
    table = std::make_unique<ExportTable>(
        [this](Control::ExportId id) { postToControl([id](State& state) { state.lastClientLeft(id); }); });
    workerEvents.sessionEnded = [this] { postToControl([](State& state) { state.sessionEnded(); }); };
    workerEvents.storageFailed = [this](Control::ExportId id, int error) {
      postToControl([id, error](State& state) { state.events.storageFailed(id, error); });
    };
    if (options.extension) {
      extension.self = *options.extension;
      extension.searches = &searches;
      extension.evaluate = [this](std::span<const std::byte> expression, Publications exports) {
        return searchExports(expression, std::move(exports),
                             [this](Control::ExportId id) { return table->sessionCount(id); });
      };
      extension.askProperties = [this](std::move_only_function<void(ExtensionService::Properties)> told) {
        postToControl([told = std::move(told)](State& state) mutable {
          told(std::make_shared<std::vector<Nbd::Extension::Property>>(state.events.properties()));
        });
      };
      if (events.askDesk) connectDesk();
      workerEvents.extension = &extension;
    }
    const unsigned int count =
        options.workers != 0 ? options.workers : std::max(1U, std::thread::hardware_concurrency());
    const Worker::Pools pools{.storage = pool, .handshakes = handshakes, .computing = computing};
    for (unsigned int index = 0; index < count; ++index) {
      workers.push_back(std::make_unique<Worker>(*table, pools, options.allowRing, workerEvents));
    }
  }

  void connectDesk() {
    extension.self.capabilities |= Nbd::Extension::Capability::reservation;
    extension.askDesk = [this](Reservations::Client client, Nbd::Extension::Kind kind,
                               std::vector<std::byte> body, Reservations::Tell tell) {
      postToControl([client = std::move(client), kind, body = std::move(body), tell = std::move(tell)](
                        State& state) mutable { state.events.askDesk(client, kind, body, std::move(tell)); });
    };
    extension.leftDesk = [this](std::uint64_t client) {
      postToControl([client](State& state) { state.events.leftDesk(client); });
    };
  }

  void adopt(Io::FileDescriptor socket, Control::Endpoint peer) {
    const std::optional<HostAddress> address = HostAddress::parse(peer.address);
    if (!table->access()->admits(address)) {
      log(LogLevel::warning, "client-not-allowed", "turned a client at {} away: its network is not allowed",
          escaped(peer.address));
      return;
    }
    if (connections >= Limits::connections) {
      log(LogLevel::warning, "too-many-connections", "turned a client at {} away: {} connections are open",
          escaped(peer.address), connections);
      return;
    }
    ++connections;
    Worker& worker =
        **std::ranges::min_element(workers, {}, [](const auto& one) { return one->sessionCount(); });
    worker.adopt(nextSession++, std::move(socket), std::move(peer));
  }

  void sessionEnded() {
    --connections;
    if (connections == 0) {
      for (Io::Function& done : std::exchange(whenAllIsClosed, {})) {
        done();
      }
    }
  }

  void lastClientLeft(Control::ExportId id) {
    if (table->sessionCount() == 0) {
      for (Io::Function& cleared : std::exchange(whenCleared, {})) {
        cleared();
      }
    }
    if (table->sessionCount(id) != 0) {
      return;  // somebody came meanwhile
    }
    const auto [first, last] = whenExportIsFree.equal_range(id);
    std::vector<Io::Function> waiting;
    for (auto one = first; one != last; ++one) {
      waiting.push_back(std::move(one->second));
    }
    whenExportIsFree.erase(first, last);
    for (Io::Function& done : waiting) {
      done();
    }
    events.lastClientLeft(id);
  }
};

Server::Server(Io::EventLoop& loop, Options options, Events events)
    : state_(std::make_shared<State>(loop, std::move(events))) {
  state_->start(options);
}

Server::~Server() {
  state_->listener.reset();
  // A session that ends on one worker wakes those that wait for it on others: all are there until all are
  // done.
  for (const std::unique_ptr<Worker>& worker : state_->workers) {
    worker->finish();
  }
  state_->workers.clear();
}

std::expected<void, Control::Failure> Server::listen(const ListenConfiguration& configuration) {
  std::expected<std::unique_ptr<Listener>, Control::Failure> listener = Listener::open(
      state_->loop, configuration, [state = state_.get()](Io::FileDescriptor socket, Control::Endpoint peer) {
        state->adopt(std::move(socket), std::move(peer));
      });
  if (!listener) {
    return std::unexpected(listener.error());
  }
  state_->listener = std::move(*listener);
  return {};
}

bool Server::listening() const { return state_->listener != nullptr; }

std::uint16_t Server::port() const { return state_->listener ? state_->listener->port() : std::uint16_t{0}; }

std::vector<Control::Endpoint> Server::addresses() const {
  return state_->listener ? state_->listener->addresses() : std::vector<Control::Endpoint>();
}

std::vector<Control::NetIfFirewallState> Server::endpoints() const {
  return state_->listener ? state_->listener->endpoints() : std::vector<Control::NetIfFirewallState>();
}

void Server::close(Io::Function done) {
  state_->listener.reset();
  if (state_->connections == 0) {
    state_->loop.post(std::move(done));
    return;
  }
  state_->whenAllIsClosed.push_back(std::move(done));
  for (const std::unique_ptr<Worker>& worker : state_->workers) {
    worker->endAllSessions();
  }
}

void Server::setAccess(std::shared_ptr<const Access> access) { state_->table->setAccess(std::move(access)); }

Nbd::TlsMode Server::tlsMode() const { return state_->table->access()->tls; }

void Server::publish(Publication publication) { state_->table->publish(std::move(publication)); }

void Server::withdraw(Control::ExportId id) { state_->table->withdraw(id); }

void Server::endSessions(Control::ExportId id, Io::Function done) {
  const std::vector<AttachedSession> sessions = state_->table->sessions(id);
  if (sessions.empty()) {
    state_->loop.post(std::move(done));
    return;
  }
  state_->whenExportIsFree.emplace(id, std::move(done));
  for (const AttachedSession& session : sessions) {
    session.worker->endSession(session.id);
  }
}

void Server::clear(Io::Function cleared) {
  state_->table->admitOnly(std::nullopt);
  const std::vector<AttachedSession> sessions = state_->table->sessions();
  if (sessions.empty()) {
    state_->loop.post(std::move(cleared));
    return;
  }
  state_->whenCleared.push_back(std::move(cleared));
  for (const AttachedSession& session : sessions) {
    session.worker->endSession(session.id);
  }
}

void Server::admitOnly(const Reservations::LeaseId& lease) { state_->table->admitOnly(lease); }

void Server::admitAll() {
  state_->whenCleared.clear();
  state_->table->admitAll();
}

void Server::endHolder(const Reservations::LeaseId& lease) {
  for (const AttachedSession& session : state_->table->sessions()) {
    if (session.lease == lease) {
      session.worker->endSession(session.id);
    }
  }
}

std::vector<Control::ExportClientInfo> Server::clients(Control::ExportId id) const {
  std::vector<Control::ExportClientInfo> clients;
  for (AttachedSession& session : state_->table->sessions(id)) {
    Control::Variant details;
    if (!session.security.empty()) details.push_back({"security", std::move(session.security)});
    clients.push_back({.endpoint = std::move(session.peer), .details = std::move(details)});
  }
  return clients;
}

std::size_t Server::clientCount(Control::ExportId id) const { return state_->table->sessionCount(id); }

std::size_t Server::clientCount() const { return state_->table->sessionCount(); }

std::size_t Server::connectionCount() const { return state_->connections; }

std::string_view Server::storageEngine() const { return state_->workers.front()->storageEngine(); }

std::size_t Server::workerCount() const { return state_->workers.size(); }

}  // namespace Nbdd
