#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "nbd/bytes.h"
#include "nbd/constants.h"
#include "nbd/limits.h"

/// Replies of the transmission phase, both directions. Encoders store into the caller's memory, whose size is
/// part of their type wherever it is constant. `flags` is ReplyFlag::done for the last chunk of a reply and 0
/// for any other.
namespace Nbd {

/// A run of bytes with one status in one metadata context.
struct Extent {
  std::uint32_t length = 0;  // bytes, never 0 on the wire
  std::uint32_t status = 0;  // AllocationFlag, for base:allocation

  friend bool operator==(const Extent&, const Extent&) = default;
};

// --- The server's side
// -------------------------------------------------------------------------------------------

/// The reply to a request when no structured replies were agreed on; the data of a READ that succeeded
/// follow. With structured replies it is legal for every command but READ and BLOCK_STATUS.
inline void encodeSimpleReply(std::span<std::byte, simpleReplySize> bytes, std::uint64_t cookie,
                              Error error = Error::none) {
  storeBig<std::uint32_t>(bytes.subspan<0, 4>(), simpleReplyMagic);
  storeBig<Error>(bytes.subspan<4, 4>(), error);
  storeBig<std::uint64_t>(bytes.subspan<8, 8>(), cookie);
}

/// The header of a chunk with `length` bytes behind it.
inline void encodeChunkHeader(std::span<std::byte, chunkHeaderSize> bytes, std::uint64_t cookie,
                              std::uint16_t flags, ReplyChunk type, std::uint32_t length) {
  storeBig<std::uint32_t>(bytes.subspan<0, 4>(), chunkMagic);
  storeBig<std::uint16_t>(bytes.subspan<4, 2>(), flags);
  storeBig<ReplyChunk>(bytes.subspan<6, 2>(), type);
  storeBig<std::uint64_t>(bytes.subspan<8, 8>(), cookie);
  storeBig<std::uint32_t>(bytes.subspan<16, 4>(), length);
}

/// A whole chunk: the end of a reply, and its success if no error chunk came before.
inline void encodeNone(std::span<std::byte, chunkHeaderSize> bytes, std::uint64_t cookie) {
  encodeChunkHeader(bytes, cookie, ReplyFlag::done, ReplyChunk::none, 0);
}

/// What stands before `dataLength` bytes of data (1 to maxPayload) that belong at `offset` of the export.
inline void encodeOffsetData(std::span<std::byte, offsetDataHeaderSize> bytes, std::uint64_t cookie,
                             std::uint16_t flags, std::uint64_t offset, std::uint32_t dataLength) {
  encodeChunkHeader(bytes.first<chunkHeaderSize>(), cookie, flags, ReplyChunk::offsetData, 8 + dataLength);
  storeBig<std::uint64_t>(bytes.subspan<chunkHeaderSize, 8>(), offset);
}

/// A whole chunk: `holeLength` bytes (not 0) at `offset` of the export read as zeroes.
inline void encodeOffsetHole(std::span<std::byte, offsetHoleSize> bytes, std::uint64_t cookie,
                             std::uint16_t flags, std::uint64_t offset, std::uint32_t holeLength) {
  encodeChunkHeader(bytes.first<chunkHeaderSize>(), cookie, flags, ReplyChunk::offsetHole, 12);
  storeBig<std::uint64_t>(bytes.subspan<chunkHeaderSize, 8>(), offset);
  storeBig<std::uint32_t>(bytes.subspan<chunkHeaderSize + 8, 4>(), holeLength);
}

/// Bytes that encodeBlockStatus() writes for so many extents.
[[nodiscard]] constexpr std::size_t blockStatusSize(std::size_t extentCount) {
  return blockStatusHeaderSize + extentSize * extentCount;
}

/// A whole chunk with 1 to maxExtentsSent extents of the context with that id. `bytes` holds at least
/// blockStatusSize(extents.size()) bytes; returns that size.
std::size_t encodeBlockStatus(std::span<std::byte> bytes, std::uint64_t cookie, std::uint16_t flags,
                              std::uint32_t contextId, std::span<const Extent> extents);

/// Enough room for any error chunk that we send.
inline constexpr std::size_t maxErrorChunkSize = errorHeaderSize + maxErrorMessageSent + errorOffsetSize;

/// A whole error chunk: the request failed as a whole, or (with `offset`) from that byte of the export on.
/// `message` is for people, may be empty and is cut at maxErrorMessageSent bytes. Returns the bytes written.
std::size_t encodeError(std::span<std::byte, maxErrorChunkSize> bytes, std::uint64_t cookie,
                        std::uint16_t flags, Error error, std::string_view message = {},
                        std::optional<std::uint64_t> offset = std::nullopt);

// --- The client's side: nothing means that the server broke the protocol, and the client must disconnect
// ----------

struct SimpleReply {
  Error error = Error::none;  // may hold a number that no Error names: to be read as Error::inval
  std::uint64_t cookie = 0;

  friend bool operator==(const SimpleReply&, const SimpleReply&) = default;
};

/// Nothing if the magic is wrong.
[[nodiscard]] inline std::optional<SimpleReply> decodeSimpleReply(
    std::span<const std::byte, simpleReplySize> bytes) {
  if (loadBig<std::uint32_t>(bytes.subspan<0, 4>()) != simpleReplyMagic) return std::nullopt;
  return SimpleReply{.error = loadBig<Error>(bytes.subspan<4, 4>()),
                     .cookie = loadBig<std::uint64_t>(bytes.subspan<8, 8>())};
}

struct ChunkHeader {
  std::uint16_t flags = 0;
  ReplyChunk type = ReplyChunk::none;  // may hold a number that no ReplyChunk names
  std::uint64_t cookie = 0;
  std::uint32_t length = 0;  // bytes behind the header

  [[nodiscard]] constexpr bool isDone() const { return (flags & ReplyFlag::done) != 0; }
  [[nodiscard]] constexpr bool isError() const {
    return (static_cast<std::uint16_t>(type) & chunkErrorBit) != 0;
  }
  friend bool operator==(const ChunkHeader&, const ChunkHeader&) = default;
};

/// Nothing if the magic is wrong, or the length cannot be one of a chunk of that type (for data: more than
/// `maximumPayload` bytes of it). A chunk of an unknown type is nothing unless it is an error.
[[nodiscard]] std::optional<ChunkHeader> decodeChunkHeader(std::span<const std::byte, chunkHeaderSize> bytes,
                                                           std::uint32_t maximumPayload = maxPayload);

struct Hole {
  std::uint64_t offset = 0;
  std::uint32_t length = 0;

  friend bool operator==(const Hole&, const Hole&) = default;
};

/// The payload of an OFFSET_HOLE chunk.
[[nodiscard]] std::optional<Hole> decodeOffsetHole(Bytes payload);

/// The payload of a BLOCK_STATUS chunk: returns the context's id and replaces what is in `extents`.
[[nodiscard]] std::optional<std::uint32_t> decodeBlockStatus(Bytes payload, std::vector<Extent>& extents);

struct ErrorChunk {
  Error error = Error::inval;           // never `none`
  std::string_view message = {};        // in the payload; neither UTF-8 nor harmless to a terminal
  std::optional<std::uint64_t> offset;  // of ERROR_OFFSET
};

/// The payload of an error chunk, of a known or unknown type.
[[nodiscard]] std::optional<ErrorChunk> decodeError(ReplyChunk type, Bytes payload);

}  // namespace Nbd
