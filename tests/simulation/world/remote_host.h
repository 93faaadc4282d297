#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "nbd/export_view.h"
#include "nbd/reply_encoder.h"
#include "nbd/request.h"
#include "nbd/server_handshake.h"
#include "tests/simulation/world/ledger.h"
#include "tests/simulation/world/network.h"
#include "tests/simulation/world/socket.h"
#include "tests/simulation/world/world.h"

namespace Simulation {

inline constexpr std::size_t blockSize = 512;  // bytes

/// A server that is killed, frozen, cut off and started again, and lies now and then; and the host under it.
///
/// Requests that the host has received are carried out at any time and in any order, or not at all once their
/// connection has ended. What a frozen host had received it carries out, or drops, within `thawing` of going
/// on.
class RemoteHost final : public Network, public Nbd::ExportDirectory {
 public:
  static constexpr Nanoseconds thawing = 4'000'000'000;

  struct Habits {
    Nbd::ServerHandshake::Policy policy;
    bool severalConnections = false;
    unsigned int slow = 0;      // per mille of requests that take seconds
    unsigned int lies = 0;      // per mille of answers that are none
    unsigned int refusals = 0;  // and of those that say that the server is about to end
    unsigned int errors = 0;    // and of failures
  };

  RemoteHost(World& world, Ledger& ledger, Habits habits);

  // The service's side.
  std::shared_ptr<Socket> open() override;
  void connect(Socket& socket) override;

  // The scheduler's side: what can be done now, and doing it.
  std::size_t sessionCount() const { return sessions_.size(); }
  bool canWork(std::size_t index) const;
  void work(std::size_t index);
  Socket& socket(std::size_t index);
  /// The next moment at which something has to happen by itself.
  std::optional<Nanoseconds> deadline() const;
  void pass();

  // Misfortunes.
  void kill();
  void start();
  void freeze();
  void thaw();
  void cut(std::size_t index);
  bool running() const { return running_; }
  bool frozen() const { return frozen_; }
  /// From now on it is a good server.
  void behave() { habits_.lies = habits_.refusals = habits_.errors = 0; }

 private:
  struct Pending {
    Nbd::Request request;
    std::vector<std::byte> payload;
    Nanoseconds due = 0;  // not before
  };
  struct Session {
    std::shared_ptr<Socket> socket;
    std::optional<Nbd::ServerHandshake> handshake;
    bool transmission = false;
    bool orphaned = false;  // the service's kernel has given it up, or it belongs to another life of the host
    bool over = false;      // the host knows nothing of it any more
    Nanoseconds until = 0;  // of an orphan: then it is gone
    std::vector<std::byte> input;
    std::vector<Pending> pending;
  };
  using Sessions = std::list<Session>;

  std::optional<Nbd::ExportView> find(std::string_view name) const override;
  std::shared_ptr<const std::vector<Nbd::ListedExport>> list() const override;

  Session& at(std::size_t index);
  bool hasDue(const Session& session) const;
  Nanoseconds someTime();
  void decide(Session& session);
  void take(Session& session);
  void parse(Session& session);
  void carryOut(Session& session);
  void reply(Session& session, const Pending& pending);
  void perform(const Pending& pending);
  void end(Session& session);

  World& world_;
  Ledger& ledger_;
  Habits habits_;
  Nbd::ExportView view_;
  Sessions sessions_;
  bool running_ = true;
  bool frozen_ = false;
  Nanoseconds frozenAt_ = 0;
};

}  // namespace Simulation
