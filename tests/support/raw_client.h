#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "nbd/reply.h"
#include "nbd/request.h"
#include "tests/support/wire.h"

namespace Wire {

/// The server did not do what a test counts on: it closed, said nothing in time, or said something malformed.
class Disappointment : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A TCP client on loopback that says whatever a test wants, well-behaved or not. It blocks, but never longer
/// than `patience`; then it throws a Disappointment. One thread at a time.
class RawClient {
 public:
  static constexpr std::chrono::seconds patience{10};

  /// Connects. With a `receiveBuffer` of few bytes the server's sending comes to a halt early.
  explicit RawClient(std::uint16_t port, std::optional<int> receiveBuffer = std::nullopt);
  ~RawClient();
  RawClient(RawClient&& other) noexcept;
  RawClient& operator=(RawClient&&) = delete;

  // --- Bytes ---

  void send(Nbd::Bytes bytes, std::chrono::milliseconds limit = patience);
  /// Sends as much as the server takes without delay, at most all; returns how much. 0 as well when it has
  /// closed.
  std::size_t sendWithoutWaiting(Nbd::Bytes bytes);
  Buffer receive(std::size_t length, std::chrono::milliseconds limit = patience);
  /// Everything up to the end of the stream, which must come in time.
  Buffer receiveToEnd(std::chrono::milliseconds limit = patience);
  /// Whether the server ends the connection in time. What it still says is passed over.
  bool isClosedByServer(std::chrono::milliseconds limit = patience);

  void endSending();  // the other direction stays open
  void close();
  void reset();  // closes, and what is under way is lost

  // --- Handshake ---

  /// Reads the greeting; returns the handshake flags.
  std::uint16_t receiveGreeting();
  OptionReply receiveOptionReply();
  /// Sends the option and reads its replies up to the final one, whose type it returns.
  Nbd::ReplyType ask(Nbd::Option option, const Buffer& data = {});

  struct Session {
    bool structuredReplies = false;
    bool allocationContext = false;  // needs one of the others
    bool extendedHeaders = false;
  };
  /// The whole handshake, up to the use of the export of that name.
  void enter(std::string_view exportName, Session session);
  void enter(std::string_view exportName) { enter(exportName, Session()); }

  // --- Transmission ---

  /// The form of headers that the session has; `request` and `receiveChunk` follow it.
  [[nodiscard]] Nbd::HeaderStyle headers() const { return headers_; }
  void request(const Nbd::Request& request, Nbd::Bytes payload = {});
  Nbd::SimpleReply receiveSimpleReply();
  struct Chunk {
    Nbd::ChunkHeader header;
    Buffer payload;
  };
  Chunk receiveChunk();

  /// One READ, WRITE or DISC of a session without structured replies. The data of a READ that succeeded, and
  /// the error.
  std::pair<Nbd::Error, Buffer> read(std::uint64_t offset, std::uint32_t length);
  Nbd::Error write(std::uint64_t offset, Nbd::Bytes data, std::uint16_t flags = 0);
  void disconnect();

 private:
  int socket_ = -1;
  Nbd::HeaderStyle headers_ = Nbd::HeaderStyle::simple;
  std::uint64_t nextCookie_ = 1;
};

}  // namespace Wire
