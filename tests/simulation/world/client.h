#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "nbd/client_handshake.h"
#include "tests/simulation/world/model.h"
#include "tests/simulation/world/world.h"

namespace Simulation {

/// Longer than whatever the server does by itself between two things that it is asked for, shorter than any
/// of its deadlines: who has done nothing for so long must be ready to be disconnected.
inline constexpr Nanoseconds patience = 900'000'000;

/// What the clients of a run do.
struct Habits {
  unsigned int lives = 2;          // connections of one client, one after the other
  std::size_t requests = 30;       // of one connection
  std::size_t depth = 8;           // of them at a time
  std::uint32_t largest = 4096;    // bytes that one reads or writes
  std::uint64_t hotBytes = 65536;  // where most of them go
  unsigned int invalid = 20;       // per mille of requests that must be refused
  unsigned int fua = 100;          // per mille of writes
  unsigned int zeroes = 100;       // per mille of writes whose data are zeroes
  unsigned int stalls = 2;         // per mille of steps after which a client does nothing for a while
  unsigned int cuts = 3;           // per mille of steps that cut a connection
  Nanoseconds longestStall = 100'000'000'000;
};

/// A client that connects, uses the export, leaves or is cut off, and comes back.
class Client {
 public:
  /// Makes a connection to the server and hands it over.
  using Connect = std::function<std::shared_ptr<Connection>()>;

  Client(World& world, Model& model, Habits habits, Connect connect)
      : world_(world), model_(model), habits_(habits), connect_(std::move(connect)), lives_(habits.lives) {}

  bool finished() const { return phase_ == Phase::idle && lives_ == 0; }
  bool stalled() const { return stalledUntil_ > world_.now(); }
  Nanoseconds stalledUntil() const { return stalledUntil_; }
  const Habits& habits() const { return habits_; }
  bool connected() const { return phase_ != Phase::idle; }
  const std::shared_ptr<Connection>& connection() const { return connection_; }

  // What it can do now.
  bool canConnect() const { return phase_ == Phase::idle && lives_ > 0; }
  bool canSend() const;
  bool canReceive() const;
  std::string state() const;

  void connect();
  void send();
  void receive();
  void stall();
  /// Ends the connection in a way that a server must be ready for.
  void cut();
  /// No more connections, and an end to this one.
  void giveUp();

 private:
  enum class Phase : std::uint8_t { idle, handshake, transmission, leaving };
  struct Asked {
    Model::Handle request;
    Nbd::Error error = Nbd::Error::none;
    std::vector<Model::Piece> data = {};
    std::vector<Nbd::Extent> extents = {};
  };
  using Reply = std::map<std::uint64_t, Asked>::iterator;

  const Nbd::ClientHandshake::Agreement& agreement() const { return handshake_->agreement(); }
  bool structured() const { return agreement().headers != Nbd::HeaderStyle::simple; }
  Nbd::Request compose();
  void narrowDown(Nbd::Request& request, std::vector<std::byte>& payload) const;
  void makeInvalid(Nbd::Request& request);
  std::vector<std::byte> composePayload(std::size_t length);
  void leave();
  void shakeHands();
  void parseReplies();
  std::size_t parseReply(std::span<const std::byte> bytes);
  std::size_t parseSimple(std::span<const std::byte> bytes);
  std::size_t parseChunk(std::span<const std::byte> bytes);
  std::optional<Nbd::ChunkHeader> decodeHeader(std::span<const std::byte> bytes) const;
  bool takeChunk(const Nbd::ChunkHeader& header, std::span<const std::byte> payload, Asked& asked);
  Reply find(std::uint64_t cookie);
  void finish(Reply reply);
  void ended();
  void over();
  void fail(const std::string& message) const;

  World& world_;
  Model& model_;
  const Habits habits_;
  const Connect connect_;
  unsigned int lives_;
  Phase phase_ = Phase::idle;
  Nanoseconds stalledUntil_ = 0;
  std::shared_ptr<Connection> connection_;
  std::optional<Nbd::ClientHandshake> handshake_;
  std::vector<std::byte> received_;
  std::size_t requestsLeft_ = 0;
  std::map<std::uint64_t, Asked> asked_;  // by cookie
};

}  // namespace Simulation
