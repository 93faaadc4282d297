#include "nbd/reply.h"

#include <algorithm>

#include "nbd/contract.h"

namespace Nbd {

namespace {

constexpr std::uint32_t errorFixedLength = 6;  // error number and message length

bool lengthIsLegal(const ChunkHeader& header, std::uint32_t maximumPayload) {
  const std::uint32_t length = header.length;
  switch (header.type) {
    case ReplyChunk::none:
      return length == 0 && header.isDone();
    case ReplyChunk::offsetData:
      return length > 8 && length - 8 <= maximumPayload;
    case ReplyChunk::offsetHole:
      return length == 12;
    case ReplyChunk::blockStatus:
      return length >= 4 + extentSize && length <= maxChunkOverhead && (length - 4) % extentSize == 0;
    case ReplyChunk::errorOffset:
      return length >= errorFixedLength + errorOffsetSize &&
             length <= errorFixedLength + maxStringLength + errorOffsetSize;
    case ReplyChunk::error:
      return length >= errorFixedLength && length <= errorFixedLength + maxStringLength;
  }
  // Errors of a later protocol: a message and whatever else, but not without bound.
  return header.isError() && length >= errorFixedLength && length <= maxChunkOverhead;
}

}  // namespace

std::size_t encodeBlockStatus(std::span<std::byte> bytes, std::uint64_t cookie, std::uint16_t flags,
                              std::uint32_t contextId, std::span<const Extent> extents) {
  const std::size_t size = blockStatusSize(extents.size());
  require(!extents.empty() && extents.size() <= maxExtentsSent && bytes.size() >= size);
  encodeChunkHeader(bytes.first<chunkHeaderSize>(), cookie, flags, ReplyChunk::blockStatus,
                    static_cast<std::uint32_t>(size - chunkHeaderSize));
  storeBig<std::uint32_t>(bytes.subspan<chunkHeaderSize, 4>(), contextId);
  std::span<std::byte> rest = bytes.subspan(blockStatusHeaderSize);
  for (const Extent& extent : extents) {
    storeBig<std::uint32_t>(rest.subspan<0, 4>(), extent.length);
    storeBig<std::uint32_t>(rest.subspan<4, 4>(), extent.status);
    rest = rest.subspan(extentSize);
  }
  return size;
}

std::size_t encodeError(std::span<std::byte, maxErrorChunkSize> bytes, std::uint64_t cookie,
                        std::uint16_t flags, Error error, std::string_view message,
                        std::optional<std::uint64_t> offset) {
  require(error != Error::none);
  const std::string_view text = truncateUtf8(message, maxErrorMessageSent);
  const std::size_t size = errorHeaderSize + text.size() + (offset ? errorOffsetSize : 0);
  encodeChunkHeader(bytes.first<chunkHeaderSize>(), cookie, flags,
                    offset ? ReplyChunk::errorOffset : ReplyChunk::error,
                    static_cast<std::uint32_t>(size - chunkHeaderSize));
  storeBig<Error>(bytes.subspan<chunkHeaderSize, 4>(), error);
  storeBig<std::uint16_t>(bytes.subspan<chunkHeaderSize + 4, 2>(), static_cast<std::uint16_t>(text.size()));
  std::ranges::copy(std::as_bytes(std::span(text)), bytes.begin() + errorHeaderSize);
  if (offset) {
    storeBig<std::uint64_t>(bytes.subspan(errorHeaderSize + text.size()).first<errorOffsetSize>(), *offset);
  }
  return size;
}

std::optional<ChunkHeader> decodeChunkHeader(std::span<const std::byte, chunkHeaderSize> bytes,
                                             std::uint32_t maximumPayload) {
  if (loadBig<std::uint32_t>(bytes.subspan<0, 4>()) != chunkMagic) return std::nullopt;
  const ChunkHeader header{.flags = loadBig<std::uint16_t>(bytes.subspan<4, 2>()),
                           .type = loadBig<ReplyChunk>(bytes.subspan<6, 2>()),
                           .cookie = loadBig<std::uint64_t>(bytes.subspan<8, 8>()),
                           .length = loadBig<std::uint32_t>(bytes.subspan<16, 4>())};
  if (!lengthIsLegal(header, maximumPayload)) return std::nullopt;
  return header;
}

std::optional<Hole> decodeOffsetHole(Bytes payload) {
  Reader reader(payload);
  const auto offset = reader.number<std::uint64_t>();
  const auto length = reader.number<std::uint32_t>();
  if (!offset || !length || *length == 0 || !reader.atEnd()) return std::nullopt;
  return Hole{.offset = *offset, .length = *length};
}

std::optional<std::uint32_t> decodeBlockStatus(Bytes payload, std::vector<Extent>& extents) {
  extents.clear();
  Reader reader(payload);
  const auto contextId = reader.number<std::uint32_t>();
  if (!contextId || reader.atEnd() || reader.remaining() > extentSize * maxExtentsReceived)
    return std::nullopt;
  extents.reserve(reader.remaining() / extentSize);
  while (!reader.atEnd()) {
    const auto length = reader.number<std::uint32_t>();
    const auto status = reader.number<std::uint32_t>();
    if (!length || !status || *length == 0) return std::nullopt;
    extents.push_back({.length = *length, .status = *status});
  }
  return contextId;
}

std::optional<ErrorChunk> decodeError(ReplyChunk type, Bytes payload) {
  Reader reader(payload);
  const auto error = reader.number<Error>();
  const auto messageLength = reader.number<std::uint16_t>();
  if (!error || *error == Error::none || !messageLength || *messageLength > maxStringLength)
    return std::nullopt;
  const std::optional<std::string_view> message = reader.text(*messageLength);
  if (!message) return std::nullopt;
  ErrorChunk chunk{.error = *error, .message = *message, .offset = std::nullopt};
  if (type == ReplyChunk::errorOffset) {
    chunk.offset = reader.number<std::uint64_t>();
    if (!chunk.offset) return std::nullopt;
  }
  return chunk;  // what follows the message, or the offset, is for later protocols
}

}  // namespace Nbd
