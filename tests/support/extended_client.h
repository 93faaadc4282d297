#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "nbd/client_handshake.h"
#include "nbd/reply.h"
#include "nbd/request.h"
#include "tests/support/raw_client.h"

namespace Wire {

/// A well-behaved client with extended headers, one request at a time: it holds the server to the letter of
/// the protocol and throws a Disappointment at whatever departs from it. Blocks, as RawClient does. One
/// thread at a time.
class ExtendedClient {
 public:
  /// Connects and takes the export of that name into use, with base:allocation selected.
  ExtendedClient(std::uint16_t port, std::string exportName);

  /// What the handshake agreed on.
  [[nodiscard]] const Nbd::ClientHandshake::Agreement& agreement() const { return agreement_; }

  /// Reads into one buffer whatever pieces the server chose. The data are empty after an error.
  std::pair<Nbd::Error, Buffer> read(std::uint64_t offset, std::uint64_t length, std::uint16_t flags = 0);
  Nbd::Error write(std::uint64_t offset, Nbd::Bytes data, std::uint16_t flags = 0);
  /// FLUSH, TRIM, CACHE or WRITE_ZEROES.
  Nbd::Error command(Nbd::Command type, std::uint64_t offset, std::uint64_t length, std::uint16_t flags = 0);

  struct Status {
    Nbd::Error error = Nbd::Error::none;
    std::vector<Nbd::Extent> extents;  // of base:allocation
  };
  Status blockStatus(std::uint64_t offset, std::uint64_t length, std::uint16_t flags = 0);
  /// The same with a payload that names the contexts.
  Status filteredBlockStatus(std::uint64_t offset, std::uint64_t length,
                             std::span<const std::uint32_t> contexts, std::uint16_t flags = 0);

  /// The largest piece of the last READ that held data, and how many pieces it had.
  [[nodiscard]] std::uint64_t largestPiece() const { return largestPiece_; }
  [[nodiscard]] std::size_t pieceCount() const { return pieceCount_; }

  void disconnect();

  /// The connection underneath, for what a well-behaved client would not say.
  RawClient& raw() { return raw_; }
  /// Sends a request as it stands, with a cookie of its own, which it returns.
  std::uint64_t send(Nbd::Request request, Nbd::Bytes payload = {});
  /// Reads the reply to a request that carries no data: the error it tells.
  Nbd::Error receiveVerdict(const Nbd::Request& request);

 private:
  struct Chunk {
    Nbd::ChunkHeader header;
    Buffer payload;
  };
  Chunk receiveChunk(const Nbd::Request& request);
  Status receiveStatus(const Nbd::Request& request);

  RawClient raw_;
  Nbd::ClientHandshake::Agreement agreement_;
  std::uint64_t nextCookie_ = 0xe0e0'0000'0000'0000;
  std::uint64_t largestPiece_ = 0;
  std::size_t pieceCount_ = 0;
};

}  // namespace Wire
