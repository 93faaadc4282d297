// What a server sends during transmission, as a client reads it: a simple reply or a chunk, header and
// payload. What is accepted and could have come from our own server is encoded again and must be the same
// bytes.

#include <algorithm>
#include <array>
#include <cstdlib>

#include "nbd/reply.h"

namespace {

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

void checkHole(const Nbd::ChunkHeader& header, Nbd::Bytes chunk, Nbd::Bytes payload) {
  const auto hole = Nbd::decodeOffsetHole(payload);
  if (!hole) return;
  std::array<std::byte, Nbd::offsetHoleSize> again{};
  Nbd::encodeOffsetHole(again, header.cookie, header.flags, hole->offset, hole->length);
  expect(isSame(again, chunk));
}

void checkBlockStatus(const Nbd::ChunkHeader& header, Nbd::Bytes chunk, Nbd::Bytes payload) {
  std::vector<Nbd::Extent> extents;
  const auto context = Nbd::decodeBlockStatus(payload, extents);
  if (!context) return;
  expect(!extents.empty() && std::ranges::count(extents, 0U, &Nbd::Extent::length) == 0);
  if (extents.size() > Nbd::maxExtentsSent) return;
  std::vector<std::byte> again(Nbd::blockStatusSize(extents.size()));
  expect(Nbd::encodeBlockStatus(again, header.cookie, header.flags, *context, extents) == again.size());
  expect(isSame(again, chunk));
}

void checkError(const Nbd::ChunkHeader& header, Nbd::Bytes chunk, Nbd::Bytes payload) {
  const auto error = Nbd::decodeError(header.type, payload);
  if (!error) return;
  expect(error->error != Nbd::Error::none && error->message.size() <= Nbd::maxStringLength);
  std::array<std::byte, Nbd::maxErrorChunkSize> again{};
  const std::size_t size =
      Nbd::encodeError(again, header.cookie, header.flags, error->error, error->message, error->offset);
  const bool isOurs = header.type == Nbd::ReplyChunk::error || header.type == Nbd::ReplyChunk::errorOffset;
  if (isOurs && size == chunk.size() && error->message.size() <= Nbd::maxErrorMessageSent) {
    expect(isSame(Nbd::Bytes(again).first(size), chunk));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Nbd::Bytes input = std::as_bytes(std::span(data, size));
  if (input.size() >= Nbd::simpleReplySize) checkSimple(input.first<Nbd::simpleReplySize>());
  if (input.size() < Nbd::chunkHeaderSize) return 0;
  const auto header = Nbd::decodeChunkHeader(input.first<Nbd::chunkHeaderSize>());
  if (!header || input.size() - Nbd::chunkHeaderSize < header->length) return 0;
  const Nbd::Bytes chunk = input.first(Nbd::chunkHeaderSize + header->length);
  const Nbd::Bytes payload = chunk.subspan(Nbd::chunkHeaderSize);
  if (header->type == Nbd::ReplyChunk::offsetHole) checkHole(*header, chunk, payload);
  if (header->type == Nbd::ReplyChunk::blockStatus) checkBlockStatus(*header, chunk, payload);
  if (header->isError()) checkError(*header, chunk, payload);
  return 0;
}
