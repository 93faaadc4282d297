#pragma once

// What the server owes its clients, worked out from the outside: from the requests that the clients have
// sent, the replies that they got, and what the disk was made to do meanwhile. Nothing in here is shared with
// the server.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "nbd/constants.h"
#include "nbd/reply.h"
#include "nbd/request.h"
#include "tests/simulation/world/disk.h"
#include "tests/simulation/world/intervals.h"
#include "tests/simulation/world/socket.h"
#include "tests/simulation/world/world.h"

namespace Simulation {

/// One connection of a client, as the model sees it.
struct Connection {
  int number = 0;
  std::shared_ptr<Socket> socket;
  std::uint64_t acceptedAt = 0;
  std::size_t generation = 0;  // of the export that it uses: which storage
  bool served = false;         // it is known to be attached: something of it was carried out or answered
  bool ending = false;         // the server was told to end it, or its client has given a reason
  bool endedByServer = false;  // it was told to
  bool exportMayBeGone = false;
  Nanoseconds stalled = 0;  // how long its client has let the clock run: deadlines may strike
  bool over = false;        // its client has done with it
};

/// A request that has been sent, in part at least, and not been answered whole.
struct Pending {
  std::shared_ptr<Connection> connection;
  Nbd::Request wire;  // what it asks for; a filter of contexts is no part of it
  std::vector<std::byte> payload;
  std::uint64_t streamEnd = 0;        // of its last byte in what its client sends
  std::optional<Nbd::Error> refusal;  // what it must be answered with, if it must be refused
  std::uint64_t sentAt = 0;

  struct Change {
    std::uint64_t offset = 0;
    std::vector<std::byte> bytes;
  };
  std::vector<std::byte> before;  // of what a read asks for: the content when it was sent,
  std::vector<Change> changes;    // and what has become of it since

  // Changes of the disk that were made on its behalf, or may have been: two that write the same are one to
  // an observer.
  struct Effect {
    std::size_t change = 0;
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    bool certain = false;  // nobody else can have asked for it
  };
  std::vector<Effect> effects;
  std::set<Nbd::Error> excuses;   // errors that were put in its way
  std::size_t mustBeDurable = 0;  // of a flush: how many writes were answered before it was sent
};

/// How often what was met: a simulation that meets nothing finds nothing.
struct Tally {
  std::uint64_t successes = 0;
  std::uint64_t refusals = 0;
  std::uint64_t errors = 0;          // injected, and told to the client
  std::uint64_t changesOfDead = 0;   // of the disk, on behalf of a client that is gone
  std::uint64_t durableAnswers = 0;  // FLUSH or FUA
  std::uint64_t failedSyncs = 0;
  std::uint64_t concurrentReads = 0;  // whose bytes changed meanwhile

  Tally& operator+=(const Tally& other);
};

class Model final : public DiskObserver {
 public:
  explicit Model(World& world) : world_(world) {}
  void attach(Disk& disk) { disk_ = &disk; }

  // The server's exports.
  /// A new storage of the disk is published. `related`: it fails with the one before it.
  std::size_t newGeneration(bool related, bool inMemory);
  std::size_t generation() const { return generations_.size() - 1; }
  /// The server says that syncs of a storage fail from now on.
  void storageFailed(std::size_t generation);

  // The clients.
  using Handle = std::list<Pending>::iterator;
  /// The first byte of a request is about to be sent.
  Handle sending(Pending request);
  void connected(std::shared_ptr<Connection> connection) { connections_.push_back(std::move(connection)); }

  struct Piece {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    std::vector<std::byte> data;  // empty for a hole
  };
  /// The whole reply has arrived. `data` is what a successful read brought, `extents` a block status.
  void answered(Handle request, Nbd::Error error, const std::vector<Piece>& data,
                const std::vector<Nbd::Extent>& extents);
  /// Forgets the requests of connections that are over for both sides.
  void forgetEnded();
  static bool wasApplied(const Pending& request) {
    return std::ranges::any_of(request.effects, &Pending::Effect::certain);
  }
  /// Whether its client has gone before it was served, and a younger one has come: it may be turned away.
  bool hasBeenOvertaken(const Connection& connection) const;
  const Tally& tally() const { return tally_; }

  /// From now on nothing is checked.
  void rest() { resting_ = true; }

  // What the disk does.
  void writing(std::uint64_t offset, std::span<const std::byte> bytes) override;
  void zeroing(std::uint64_t offset, std::uint64_t length, bool punching) override;
  void readFails(std::uint64_t offset, std::uint64_t length, int error) override;
  void writeFails(std::uint64_t offset, std::uint64_t length, int error) override;
  std::size_t changes() const override { return changes_.size(); }
  void synced(std::size_t changes) override;
  void syncFails(std::size_t changes) override;

 private:
  enum class Fate : std::uint8_t { inMemory, durable, lost };
  struct Generation {
    std::size_t domain = 0;  // of failure: those that fail together share it
    bool inMemory = false;
  };
  struct Domain {
    std::uint64_t failedAt = 0;  // 0 = not
    bool syncFailed = false;
  };

  /// Why the disk may not be changed on behalf of a request; empty if it may.
  std::string objection(const Pending& request) const;
  template <class Matches>
  void change(std::uint64_t offset, std::span<const std::byte> bytes, const std::string& what,
              Matches matches);
  void checkContent(const Pending& request, std::span<const std::byte> data, std::uint64_t offset);
  void checkSuccess(const Pending& request);
  void checkError(const Pending& request, Nbd::Error error);
  void checkDurable(const Pending& request);
  bool isDurable(const Pending& request) const;
  void checkTiling(const Pending& request, const std::vector<Piece>& data);
  void checkExtents(const Pending& request, const std::vector<Nbd::Extent>& extents);
  void excuse(std::uint64_t offset, std::uint64_t length, Nbd::Error error, bool writes);
  std::size_t domainOf(const Pending& request) const {
    return generations_[request.connection->generation].domain;
  }
  bool isInMemory(const Pending& request) const {
    return generations_[request.connection->generation].inMemory;
  }
  void fail(const Pending& request, const std::string& message) const;

  World& world_;
  Disk* disk_ = nullptr;
  std::vector<Generation> generations_;
  std::vector<Domain> domains_;
  std::list<Pending> pending_;
  std::vector<std::shared_ptr<Connection>> connections_;
  std::vector<Fate> changes_;
  struct Answered {
    Pending request;
    bool isDurable = false;  // found before
  };
  std::vector<Answered> answered_;  // with success, and it changed something
  Tally tally_;
  bool resting_ = false;
};

/// A request in words.
std::string describe(const Pending& request);

}  // namespace Simulation
