// What a server sends during transmission, as a client reads it: a simple reply or a chunk, compact or
// extended as its magic says, header and payload. What is accepted and could have come from our own server is
// encoded again and must be the same bytes.

#include <algorithm>
#include <array>
#include <cstdlib>

#include "nbd/reply.h"
#include "nbd/reply_encoder.h"

namespace {

using Nbd::HeaderStyle;
using Nbd::ReplyChunk;

void expect(bool promise) {
  if (!promise) std::abort();
}

bool isSame(Nbd::Bytes one, Nbd::Bytes other) { return std::ranges::equal(one, other); }

void checkSimple(std::span<const std::byte, Nbd::simpleReplySize> bytes) {
  const auto reply = Nbd::decodeSimpleReply(bytes);
  if (!reply) return;
  std::array<std::byte, Nbd::simpleReplySize> again{};
  Nbd::encodeSimpleReply(again, reply->cookie, reply->error);
  expect(isSame(again, bytes));
}

// A chunk whose header was accepted, taken apart.
struct Chunk {
  HeaderStyle headers;
  Nbd::ChunkHeader header;
  Nbd::Bytes bytes;
  Nbd::Bytes payload;

  [[nodiscard]] Nbd::ReplyEncoder encoder() const { return Nbd::ReplyEncoder(headers); }
  [[nodiscard]] Nbd::Request request() const {
    return {.cookie = header.cookie, .offset = header.requestOffset};
  }
};

void checkHole(const Chunk& chunk) {
  const auto hole = Nbd::decodeOffsetHole(chunk.payload);
  if (!hole) return;
  std::vector<std::byte> again(chunk.encoder().holeSize());
  chunk.encoder().hole(again, chunk.request(), chunk.header.flags, hole->offset, hole->length);
  expect(isSame(again, chunk.bytes));
}

void checkBlockStatus(const Chunk& chunk) {
  std::vector<Nbd::Extent> extents;
  const auto context = Nbd::decodeBlockStatus(chunk.header.type, chunk.payload, extents);
  if (!context) return;
  expect(!extents.empty() && std::ranges::count(extents, 0U, &Nbd::Extent::length) == 0);
  if (extents.size() > Nbd::maxExtentsSent) return;
  std::vector<std::byte> again(chunk.encoder().blockStatusSize(extents.size()));
  expect(chunk.encoder().blockStatus(again, chunk.request(), chunk.header.flags, *context, extents) ==
         again.size());
  expect(isSame(again, chunk.bytes));
}

void checkError(const Chunk& chunk) {
  const auto error = Nbd::decodeError(chunk.header.type, chunk.payload);
  if (!error) return;
  expect(error->error != Nbd::Error::none && error->message.size() <= Nbd::maxStringLength);
  const bool isKnown = chunk.header.type == ReplyChunk::error || chunk.header.type == ReplyChunk::errorOffset;
  const bool isOurs = isKnown && chunk.header.flags == Nbd::ReplyFlag::done &&
                      error->message.size() <= Nbd::maxErrorMessageSent;
  if (!isOurs) return;
  std::array<std::byte, Nbd::ReplyEncoder::maxVerdictSize> again{};
  const std::size_t size =
      chunk.encoder().failure(again, chunk.request(), error->error, error->message, error->offset);
  if (size == chunk.bytes.size()) expect(isSame(Nbd::Bytes(again).first(size), chunk.bytes));
}

void checkChunk(HeaderStyle headers, const std::optional<Nbd::ChunkHeader>& header, std::size_t headerSize,
                Nbd::Bytes input) {
  if (!header || input.size() - headerSize < header->length) return;
  const Nbd::Bytes bytes = input.first(headerSize + header->length);
  const Chunk chunk{
      .headers = headers, .header = *header, .bytes = bytes, .payload = bytes.subspan(headerSize)};
  if (header->type == ReplyChunk::offsetHole) checkHole(chunk);
  if (header->type == ReplyChunk::blockStatus) checkBlockStatus(chunk);
  if (header->type == ReplyChunk::extendedBlockStatus) checkBlockStatus(chunk);
  if (header->isError()) checkError(chunk);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Nbd::Bytes input = std::as_bytes(std::span(data, size));
  if (input.size() >= Nbd::simpleReplySize) checkSimple(input.first<Nbd::simpleReplySize>());
  if (input.size() >= Nbd::chunkHeaderSize) {
    checkChunk(HeaderStyle::structured, Nbd::decodeChunkHeader(input.first<Nbd::chunkHeaderSize>()),
               Nbd::chunkHeaderSize, input);
  }
  if (input.size() >= Nbd::extendedChunkHeaderSize) {
    checkChunk(HeaderStyle::extended,
               Nbd::decodeExtendedChunkHeader(input.first<Nbd::extendedChunkHeaderSize>()),
               Nbd::extendedChunkHeaderSize, input);
  }
  return 0;
}
