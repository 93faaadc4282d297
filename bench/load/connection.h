#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "bench/load/histogram.h"
#include "bench/load/target.h"
#include "nbd/client_handshake.h"
#include "nbd/constants.h"
#include "nbdd/io/file_descriptor.h"

namespace Bench {

using Clock = std::chrono::steady_clock;

/// What a client does once it is connected.
struct Load {
  std::uint32_t depth = 1;         // requests that it keeps under way
  std::uint32_t blockSize = 4096;  // bytes of each request
  bool write = false;              // else it reads
  bool reads = true;               // false: it sends its requests and never takes a reply
};

/// What the connections of one thread share: memory for one system call, random numbers, and the measurement.
struct Workspace {
  Workspace();

  std::vector<std::byte> input;
  std::vector<std::byte> output;
  std::vector<std::byte> payload;  // of a WRITE
  std::minstd_rand random;

  bool measuring = false;
  Histogram latencies;       // of the requests that ended while measuring
  std::uint64_t errors = 0;  // replies that were not a success, at any time
};

/// One client: a socket, its handshake, then random requests at a constant depth. Never blocks; its owner
/// waits for the socket (edge-triggered, both directions) and calls onReady(). One thread at a time.
class Connection {
 public:
  enum class State : std::uint8_t { negotiating, standing, loading, failed };

  /// Begins to connect. `number` counts the connections: beyond some thousands to the same host they take
  /// other addresses of the loopback network, because ports run out.
  static std::expected<std::unique_ptr<Connection>, std::string> open(const Target& target,
                                                                      std::size_t number);

  /// Does all that can be done without waiting.
  void onReady(Workspace& workspace);

  /// Sends the first requests. Only while it stands.
  void begin(const Load& load, Workspace& workspace);
  /// Sends one request alone; the connection stands again when it is answered.
  void ask(const Load& load, Workspace& workspace);

  [[nodiscard]] State state() const { return state_; }
  [[nodiscard]] int descriptor() const { return socket_.number(); }
  /// Requests that ended while the workspace was measuring.
  [[nodiscard]] std::uint64_t requests() const { return requests_; }
  /// Why it failed, for people.
  [[nodiscard]] const std::string& failure() const { return failure_; }

 private:
  Connection(Nbdd::Io::FileDescriptor socket, const std::string& exportName);

  void negotiate(Workspace& workspace);
  void receive(Workspace& workspace);
  void take(Nbd::Bytes bytes, Workspace& workspace);
  void takeHeader(Workspace& workspace);
  void complete(Workspace& workspace);
  void issue(std::size_t slot, Workspace& workspace);
  void send(std::vector<std::byte>& output);
  void sendUnsent();
  void fail(std::string why);

  Nbdd::Io::FileDescriptor socket_;
  State state_ = State::negotiating;
  bool once_ = false;                                // ask(), not begin()
  std::unique_ptr<Nbd::ClientHandshake> handshake_;  // until it stands
  std::uint64_t size_ = 0;                           // of the export
  Load load_;
  std::vector<Clock::time_point> sent_;  // when each request was, by cookie; the epoch: it is not under way
  std::vector<std::byte> unsent_;        // what the socket did not take yet
  std::uint64_t requests_ = 0;

  // The reply that arrives:
  std::array<std::byte, Nbd::simpleReplySize> header_{};
  std::size_t headerFilled_ = 0;
  std::size_t dataLeft_ = 0;
  std::size_t slot_ = 0;
  Clock::time_point now_{};

  std::string failure_;
};

}  // namespace Bench
