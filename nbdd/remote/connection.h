#pragma once

#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "nbd/client_handshake.h"
#include "nbd/compressed.h"
#include "nbd/constants.h"
#include "nbd/extension.h"
#include "nbdd/compression/block_codec.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/scope.h"
#include "nbdd/io/signal.h"
#include "nbdd/io/stream.h"
#include "nbdd/io/task.h"
#include "nbdd/limits.h"
#include "nbdd/remote/dialler.h"
#include "nbdd/remote/request.h"

namespace Nbdd::Remote {

/// One connection to a remote export in the transmission phase: carries many requests at a time, and checks
/// every reply. One loop's thread.
class Connection {
 public:
  /// How it ended.
  struct Ending {
    enum class Kind : std::uint8_t {
      closed,     ///< the server ended it: whatever it had received is done or dropped
      silent,     ///< nothing was heard until TCP gave up: the server may still act on what it has received
      violation,  ///< the server broke the protocol, and has ended it since
      retired,    ///< the server announced its end, and it was ended in good order
      stopped,    ///< by stop()
    };
    Kind kind = Kind::closed;
    std::string reason;  ///< for people
  };

  /// What the owner is told. None of them may destroy the connection.
  struct Events {
    /// A request was answered: there is room for another.
    std::function<void()> answered;
    /// It takes no more requests, and waits for the server to end it; this may take long. Why, for people.
    /// Not told after leave(), which is expected to be short.
    std::function<void(const std::string&)> draining;
  };

  Connection(Io::EventLoop& loop, Dialled dialled, Events events);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// The whole life, from the first request to the end at the server: to be run once.
  Io::Task<Ending> run();

  /// Whether `submit` may be called.
  bool hasRoom() const { return accepting_ && inFlight_ < Limits::importRequestsInFlight; }
  /// Bytes of data of the requests in flight, both ways; each counts for a few thousand at least.
  std::uint64_t load() const { return load_; }
  /// Sends the request at the end of the loop's turn.
  void submit(Request& request);

  /// After the end: the requests without an answer, oldest first. They are the caller's again.
  std::vector<Request*> takeUnanswered();
  /// Whether the server has given at least one good answer.
  bool provedGood() const { return provedGood_; }

  /// Takes no more requests, and ends in good order when those that it has are answered.
  void leave();
  bool hasLeft() const { return left_; }
  /// Ends it at once, whatever the server does.
  void stop();

 private:
  using Kind = Ending::Kind;
  using Bytes = std::span<const std::byte>;

  // Sending.
  Io::Task<void> sendAll();
  void compressNext();
  void compress(Request& request, Effort effort);
  std::size_t collect(std::span<iovec> pieces) const;
  void sent(std::size_t count);

  // Receiving.
  Io::Task<Ending> receiveAll();
  Io::Task<bool> drain();
  bool consumeInput();
  bool takeHeader();
  bool takeSimpleReply(Bytes bytes);
  bool takeChunk(Bytes bytes);
  bool sendsChunks() const { return agreement_.headers != Nbd::HeaderStyle::simple; }
  bool beginChunkPayload(const Nbd::ChunkHeader& header, Request& request);
  static std::span<std::byte> destinationOf(Request& request, std::uint64_t offset, std::size_t length);
  std::span<std::byte> roomForInput();
  bool takePayload(Bytes payload);
  bool takeDataOffset(Bytes payload);
  bool takeHole(Bytes payload);
  bool takeCompressed(Bytes payload);
  bool takeBlockStatus(Bytes payload);
  bool takeError(Bytes payload);
  bool endOfData();
  bool endOfChunk();
  bool finish(Request& request);
  bool answer(Request& request, Nbd::Error error);
  void complete(Request& request, Nbd::Error error);
  void retire();
  void takeLeave();
  bool violation(std::string_view what);

  Request* find(std::uint64_t cookie) const;
  /// The request as the protocol has it.
  static Nbd::Request wireRequest(const Request& request);
  std::size_t requestSize() const { return Nbd::requestSizeOf(agreement_.headers); }
  /// What is sent of it before its data, and what for its data.
  Bytes wireHeader(const Request& request) const;
  static Bytes wireData(const Request& request) {
    return request.compressed_.empty() ? request.payload : Bytes(request.compressed_);
  }
  std::size_t wireSize(const Request& request) const {
    return wireHeader(request).size() + wireData(request).size();
  }
  void encode(const Nbd::Request& request, std::span<std::byte, Nbd::extendedRequestSize> bytes) const;

  static constexpr std::size_t slotBits = 8;
  static constexpr std::size_t slots = std::size_t{1} << slotBits;
  static_assert(Limits::importRequestsInFlight <= slots);

  std::unique_ptr<Io::Stream> stream_;
  const Nbd::ClientHandshake::Agreement agreement_;
  const Events events_;
  const std::optional<Nbd::Extension::Compression> compression_;
  CompressionSampler sampler_;

  // Requests in the server's hands. A cookie is a running number and, in its last bits, the slot.
  struct Slot {
    Request* request = nullptr;
    std::array<std::byte, Nbd::extendedRequestSize + Nbd::compressedLengthSize> header;
  };
  std::array<Slot, slots> inSlot_;
  std::vector<std::uint8_t> freeSlots_;
  std::uint64_t nextNumber_ = 0;
  std::size_t inFlight_ = 0;
  std::uint64_t load_ = 0;
  std::deque<Request*> outgoing_;  // not sent to the end yet; the first perhaps in part
  std::size_t ready_ = 0;          // so many of them, from the front, went through compressNext()
  std::vector<Request*> refused_;  // answered with "I am about to end"
  bool accepting_ = true;
  bool retiring_ = false;
  bool left_ = false;     // by leave()
  int sendingError_ = 0;  // an errno
  bool over_ = false;
  bool stopped_ = false;
  bool provedGood_ = false;
  Io::Scope sending_;
  Io::Signal work_;

  // What is being received: `input_` holds bytes [begin_, end_); of the present chunk or reply, first
  // `payload_` is collected up to `awaited_`, then `data_` is filled. Of a compressed chunk these are the
  // payload.
  std::vector<std::byte> input_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  Request* current_ = nullptr;  // null: a header comes next
  Nbd::ChunkHeader chunk_;
  bool simple_ = false;
  std::size_t awaited_ = 0;
  std::vector<std::byte> payload_;
  std::span<std::byte> data_;
  std::string violation_;
};

}  // namespace Nbdd::Remote
