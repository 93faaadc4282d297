#include "tests/support/extended_client.h"

#include <algorithm>

#include "nbd/read_reply.h"

namespace Wire {

namespace {

using Nbd::Error;
using Nbd::ReplyChunk;
using Nbd::Request;

void expect(bool promise, const char* what) {
  if (!promise) throw Disappointment(what);
}

Nbd::ErrorChunk errorOf(ReplyChunk type, Nbd::Bytes payload) {
  const auto error = Nbd::decodeError(type, payload);
  expect(error.has_value(), "the error chunk is malformed");
  return *error;
}

}  // namespace

ExtendedClient::ExtendedClient(std::uint16_t port, std::string exportName) : raw_(port) {
  using State = Nbd::ClientHandshake::State;
  Nbd::ClientHandshake handshake(
      {.exportName = std::move(exportName), .extendedHeaders = true, .structuredReplies = false});
  // Byte by byte, so that nothing behind the handshake is taken.
  Buffer output;
  for (State state = State::negotiating; state == State::negotiating;) {
    state = handshake.advance(raw_.receive(1), output).state;
    raw_.send(output);
    output.clear();
    expect(state == State::negotiating || state == State::transmission, "the handshake failed");
  }
  agreement_ = handshake.agreement();
  expect(agreement_.headers == Nbd::HeaderStyle::extended, "the server has no extended headers");
}

std::uint64_t ExtendedClient::send(Request request, Nbd::Bytes payload) {
  request.cookie = ++nextCookie_;
  Buffer bytes(Nbd::extendedRequestSize);
  Nbd::encodeExtendedRequest(std::span(bytes).first<Nbd::extendedRequestSize>(), request);
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  raw_.send(bytes);
  return request.cookie;
}

ExtendedClient::Chunk ExtendedClient::receiveChunk(const Request& request) {
  const Buffer bytes = raw_.receive(Nbd::extendedChunkHeaderSize);
  const auto header = Nbd::decodeExtendedChunkHeader(std::span(bytes).first<Nbd::extendedChunkHeaderSize>(),
                                                     agreement_.remote.maximumPayload);
  expect(header.has_value(), "the chunk is malformed");
  expect(header->cookie == request.cookie, "the reply is to another request");
  expect(header->requestOffset == request.offset, "the reply does not echo the request's offset");
  return {.header = *header, .payload = raw_.receive(header->length)};
}

std::pair<Error, Buffer> ExtendedClient::read(std::uint64_t offset, std::uint64_t length,
                                              std::uint16_t flags) {
  Request request{.flags = flags, .type = Nbd::Command::read, .offset = offset, .length = length};
  request.cookie = send(request);
  // A request that must fail may ask for more than there is memory.
  Buffer data(std::min<std::uint64_t>(length, agreement_.remote.maximumPayload), std::byte{0xee});
  Nbd::ReadReply reply(request);
  largestPiece_ = 0;
  pieceCount_ = 0;
  const auto place = [&](std::uint64_t at, std::uint64_t size) {
    expect(reply.takeContent(at, size), "the pieces do not tile the request");
    ++pieceCount_;
    return data.begin() + static_cast<std::ptrdiff_t>(at - offset);
  };
  for (bool isDone = false; !isDone;) {
    const Chunk chunk = receiveChunk(request);
    isDone = chunk.header.isDone();
    if (chunk.header.isError()) {
      expect(reply.takeError(errorOf(chunk.header.type, chunk.payload)), "the error is out of place");
    } else if (chunk.header.type == ReplyChunk::offsetData) {
      const Nbd::Bytes content = Nbd::Bytes(chunk.payload).subspan(Nbd::offsetSize);
      const auto at = Nbd::loadBig<std::uint64_t>(Nbd::Bytes(chunk.payload).first<Nbd::offsetSize>());
      std::ranges::copy(content, place(at, content.size()));
      largestPiece_ = std::max<std::uint64_t>(largestPiece_, content.size());
    } else if (chunk.header.type == ReplyChunk::offsetHole) {
      const auto hole = Nbd::decodeOffsetHole(chunk.payload);
      expect(hole.has_value(), "the hole is malformed");
      std::fill_n(place(hole->offset, hole->length), hole->length, std::byte{0});
    } else {
      expect(chunk.header.type == ReplyChunk::none, "the chunk does not belong to a READ");
    }
  }
  expect(reply.isComplete(), "the reply lacks a piece");
  return {reply.error(), reply.error() == Error::none ? data : Buffer()};
}

Error ExtendedClient::write(std::uint64_t offset, Nbd::Bytes data, std::uint16_t flags) {
  Request request{.flags = static_cast<std::uint16_t>(flags | Nbd::CommandFlag::payloadLength),
                  .type = Nbd::Command::write,
                  .offset = offset,
                  .length = data.size()};
  request.cookie = send(request, data);
  return receiveVerdict(request);
}

Error ExtendedClient::command(Nbd::Command type, std::uint64_t offset, std::uint64_t length,
                              std::uint16_t flags) {
  Request request{.flags = flags, .type = type, .offset = offset, .length = length};
  request.cookie = send(request);
  return receiveVerdict(request);
}

Error ExtendedClient::receiveVerdict(const Request& request) {
  const Chunk chunk = receiveChunk(request);
  expect(chunk.header.isDone(), "more is to come behind a verdict");
  if (chunk.header.isError()) return errorOf(chunk.header.type, chunk.payload).error;
  expect(chunk.header.type == ReplyChunk::none, "the reply carries something");
  return Error::none;
}

ExtendedClient::Status ExtendedClient::blockStatus(std::uint64_t offset, std::uint64_t length,
                                                   std::uint16_t flags) {
  Request request{.flags = flags, .type = Nbd::Command::blockStatus, .offset = offset, .length = length};
  request.cookie = send(request);
  return receiveStatus(request);
}

ExtendedClient::Status ExtendedClient::filteredBlockStatus(std::uint64_t offset, std::uint64_t length,
                                                           std::span<const std::uint32_t> contexts,
                                                           std::uint16_t flags) {
  Buffer payload(Nbd::statusFilterSize(contexts.size()));
  Nbd::encodeStatusFilter(payload, length, contexts);
  Request request{.flags = static_cast<std::uint16_t>(flags | Nbd::CommandFlag::payloadLength),
                  .type = Nbd::Command::blockStatus,
                  .offset = offset,
                  .length = payload.size()};
  request.cookie = send(request, payload);
  request.length = length;
  return receiveStatus(request);
}

ExtendedClient::Status ExtendedClient::receiveStatus(const Request& request) {
  Status status;
  for (bool isDone = false; !isDone;) {
    const Chunk chunk = receiveChunk(request);
    isDone = chunk.header.isDone();
    if (chunk.header.isError()) {
      status.error = errorOf(chunk.header.type, chunk.payload).error;
    } else if (chunk.header.type == ReplyChunk::extendedBlockStatus) {
      expect(status.extents.empty(), "the context is told of twice");
      const auto context = Nbd::decodeBlockStatus(chunk.header.type, chunk.payload, status.extents);
      expect(context.has_value() && context == agreement_.allocationContext, "the status is malformed");
      expect(Nbd::isAnswer(request, status.extents), "the extents are no answer to the request");
    } else {
      expect(chunk.header.type == ReplyChunk::none, "the chunk does not belong to a BLOCK_STATUS");
    }
  }
  expect(status.error != Error::none || !status.extents.empty(), "the status is missing");
  return status;
}

void ExtendedClient::disconnect() { send({.type = Nbd::Command::disconnect}); }

}  // namespace Wire
