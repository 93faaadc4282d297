#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "nbd/constants.h"
#include "nbd/extension.h"
#include "nbd/reply_encoder.h"
#include "nbd/request.h"
#include "nbd/server_handshake.h"
#include "nbdd/compression/block_codec.h"
#include "nbdd/exports/publication.h"
#include "nbdd/io/buffer.h"
#include "nbdd/io/scope.h"
#include "nbdd/io/signal.h"
#include "nbdd/io/stream.h"
#include "nbdd/io/task.h"
#include "nbdd/server/memory_budget.h"
#include "nbdd/server/receive_moderation.h"
#include "nbdd/server/reply_batch.h"
#include "nbdd/server/sender.h"

namespace Nbdd {

class Worker;

/// The transmission phase of one connection: requests in, replies out, many at a time.
///
/// One turn takes what has arrived, carries out at once what needs no waiting (bytes that are in memory), and
/// sends all those replies with one system call. What has to wait for storage becomes a coroutine of its own
/// and replies when it is done, in any order. Nothing of a request is carried out before all of it has
/// arrived. One worker's thread.
class Transmission {
 public:
  Transmission(Worker& worker, Io::Stream& stream, Sender& sender,
               std::shared_ptr<const Publication> publication,
               const Nbd::ServerHandshake::Agreement& agreement,
               std::optional<Nbd::Extension::Compression> compression = std::nullopt);

  /// Serves until the client ends the session, breaks the protocol or is gone, or until `stop`; then awaits
  /// the requests that run. `received` is what arrived behind the handshake.
  Io::Task<void> run(std::vector<std::byte> received);

  /// Takes no further request.
  void stop();

 private:
  using Request = Nbd::Request;

  // Taking requests (transmission.cpp)
  std::optional<std::span<const std::byte>> takeInput();
  void guardExpired();
  std::size_t execute(std::span<const std::byte> input);
  std::size_t executeOne(std::span<const std::byte> input);
  std::size_t executeWrite(const Request& request, std::span<const std::byte> payload);
  std::size_t executeFiltered(const Request& request, std::span<const std::byte> payload);
  std::size_t refuse(const Request& request, Nbd::Error error);
  bool reserveMemory(const Request& request);
  bool mustWait(const Request& request) const;
  void expectNext(std::span<const std::byte> input) const;
  void carryOut(const Request& request);
  bool hasRoom() const;
  void keep(std::span<const std::byte> rest);
  void endTurn();
  void over() { over_ = true; }
  Io::Task<void> receivePayload();
  struct Payload {
    Io::Buffer buffer;
    std::size_t filled = 0;
    MemoryBudget::Share share;
  };
  Io::Task<bool> receiveUpTo(Payload& payload, std::size_t length);

  // What needs no waiting, and replies (immediate.cpp)
  void read(const Request& request);
  bool isWorthALook();
  bool readFromMemory(const Request& request);
  bool readWithoutWaiting(std::span<std::byte> data, std::uint64_t offset) const;
  void readBySendFile(const Request& request);
  void writeAtOnce(const Request& request, std::span<const std::byte> data);
  void flush(const Request& request);

  // What waits (requests.cpp)
  void begin(std::size_t bytes, Io::Task<void> task);
  Io::Task<void> counted(std::size_t bytes, Io::Task<void> task);
  Io::Task<void> readSlowly(Request request);
  /// `wireLength`: bytes that carried the payload, if they were compressed.
  Io::Task<void> writeSlowly(Request request, Io::Buffer payload, MemoryBudget::Share share,
                             std::size_t wireLength = 0);
  Io::Task<void> syncSlowly(Request request);
  Io::Task<void> trimSlowly(Request request);
  Io::Task<void> writeZeroesSlowly(Request request);
  Io::Task<void> cacheSlowly(Request request);
  Io::Task<void> blockStatusSlowly(Request request);
  Io::Task<int> syncIfAsked(Request request, int error);

  // Compressed transfers, where they were agreed on (compressed.cpp)
  bool goesCompressed(const Request& request) const;
  std::size_t executeCompressedWrite(Request request, std::span<const std::byte> behind);
  Io::Task<void> endWrite(Request request, int error, std::size_t wireLength);
  Io::Task<void> writeCompressed(Request request, Io::Buffer blocks, MemoryBudget::Share share);
  Io::Task<void> readCompressed(Request request);

  // Replies
  void reply(const Request& request, Nbd::Error error);  // within a turn
  void logFailure(const Request& request, int error) const;
  void postReply(const Request& request, int error);  // from a coroutine; 0 or a positive errno
  std::size_t encodeReply(std::span<std::byte> bytes, const Request& request, Nbd::Error error) const;
  bool mayAnswerWithHoles(const Request& request) const;
  void countSent(std::uint64_t bytes, std::uint64_t transferred);

  Storage& storage() const { return *publication_->storage; }

  Worker& worker_;
  Io::Stream& stream_;
  Sender& sender_;
  const std::shared_ptr<const Publication> publication_;
  const Nbd::ExportLimits limits_;
  const Nbd::ReplyEncoder replies_;
  const std::optional<std::uint32_t> allocationContext_;

  const std::optional<Nbd::Extension::Compression> compression_;
  CompressionSampler sampler_;

  ReplyBatch batch_;                  // of this turn
  TransferCounters::Batch received_;  // of this turn
  TransferCounters::Batch sent_;      // of this turn
  ReceiveModeration moderation_;
  Io::Timer guard_;                  // runs while a wait for several requests does
  std::size_t taken_ = 0;            // requests of this turn
  Io::Buffer carried_;               // arrived, but not carried out yet
  bool carriedIsRunnable_ = false;   // it starts with a whole request
  std::uint64_t drain_ = 0;          // bytes of a refused request's data still to be read past
  std::optional<Request> incoming_;  // a large write whose data are arriving
  std::size_t incomingWire_ = 0;     // bytes of them, if they are compressed
  std::size_t inFlight_ = 0;         // requests that wait for storage
  std::size_t inFlightBytes_ = 0;
  unsigned int misses_ = 0;       // reads in a row that were not in memory
  unsigned int passedOver_ = 0;   // reads that were not even tried
  std::size_t neededMemory_ = 0;  // for the write at the front, which waits for it
  MemoryBudget::Share memory_;    // for the next write
  bool largeWriteEnded_ = false;  // just now
  bool over_ = false;
  Io::Scope requests_;
  Io::Signal room_;
};

}  // namespace Nbdd
