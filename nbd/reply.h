#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "nbd/bytes.h"
#include "nbd/constants.h"
#include "nbd/contract.h"
#include "nbd/limits.h"
#include "nbd/request.h"

/// What replies of the transmission phase are made of, and how a client reads them. A server puts whole
/// replies together with ReplyEncoder.
namespace Nbd {

/// A run of bytes with one status in one metadata context.
struct Extent {
  std::uint64_t length = 0;  // bytes, never 0 on the wire; below 4 GiB without extended headers
  std::uint64_t status = 0;  // AllocationFlag, for base:allocation; 32 bits without extended headers

  friend bool operator==(const Extent&, const Extent&) = default;
};

// --- Headers, as the server encodes them
// -------------------------------------------------------------------------------

/// The reply to a request when no structured replies were agreed on; the data of a READ that succeeded
/// follow. With structured replies it is legal for every command but READ and BLOCK_STATUS, with extended
/// headers never.
inline void encodeSimpleReply(std::span<std::byte, simpleReplySize> bytes, std::uint64_t cookie,
                              Error error = Error::none) {
  storeBig<std::uint32_t>(bytes.subspan<0, 4>(), simpleReplyMagic);
  storeBig<Error>(bytes.subspan<4, 4>(), error);
  storeBig<std::uint64_t>(bytes.subspan<8, 8>(), cookie);
}

/// The header of a chunk of a structured reply, with `length` bytes behind it. `flags` is ReplyFlag::done for
/// the last chunk of a reply and 0 for any other.
inline void encodeChunkHeader(std::span<std::byte, chunkHeaderSize> bytes, std::uint64_t cookie,
                              std::uint16_t flags, ReplyChunk type, std::uint64_t length) {
  storeBig<std::uint32_t>(bytes.subspan<0, 4>(), chunkMagic);
  storeBig<std::uint16_t>(bytes.subspan<4, 2>(), flags);
  storeBig<ReplyChunk>(bytes.subspan<6, 2>(), type);
  storeBig<std::uint64_t>(bytes.subspan<8, 8>(), cookie);
  storeBig<std::uint32_t>(bytes.subspan<16, 4>(), narrow<std::uint32_t>(length));
}

/// The same with extended headers. `requestOffset` is that of the request.
inline void encodeExtendedChunkHeader(std::span<std::byte, extendedChunkHeaderSize> bytes,
                                      std::uint64_t cookie, std::uint64_t requestOffset, std::uint16_t flags,
                                      ReplyChunk type, std::uint64_t length) {
  storeBig<std::uint32_t>(bytes.subspan<0, 4>(), extendedChunkMagic);
  storeBig<std::uint16_t>(bytes.subspan<4, 2>(), flags);
  storeBig<ReplyChunk>(bytes.subspan<6, 2>(), type);
  storeBig<std::uint64_t>(bytes.subspan<8, 8>(), cookie);
  storeBig<std::uint64_t>(bytes.subspan<16, 8>(), requestOffset);
  storeBig<std::uint64_t>(bytes.subspan<24, 8>(), length);
}

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
  std::uint64_t requestOffset = 0;  // with extended headers: must be that of the request with the cookie
  std::uint32_t length = 0;         // bytes behind the header: a legal chunk has no more than this can hold

  [[nodiscard]] constexpr bool isDone() const { return (flags & ReplyFlag::done) != 0; }
  [[nodiscard]] constexpr bool isError() const {
    return (static_cast<std::uint16_t>(type) & chunkErrorBit) != 0;
  }
  friend bool operator==(const ChunkHeader&, const ChunkHeader&) = default;
};

/// The header of a chunk of a structured reply. Nothing if the magic is wrong, or the length cannot be one of
/// a chunk of that type (for data: more than `maximumPayload` bytes of it). A chunk of an unknown type is
/// nothing unless it is an error.
[[nodiscard]] std::optional<ChunkHeader> decodeChunkHeader(std::span<const std::byte, chunkHeaderSize> bytes,
                                                           std::uint32_t maximumPayload = maxPayload);

/// The same with extended headers.
[[nodiscard]] std::optional<ChunkHeader> decodeExtendedChunkHeader(
    std::span<const std::byte, extendedChunkHeaderSize> bytes, std::uint32_t maximumPayload = maxPayload);

struct Hole {
  std::uint64_t offset = 0;
  std::uint32_t length = 0;

  friend bool operator==(const Hole&, const Hole&) = default;
};

/// The payload of an OFFSET_HOLE chunk.
[[nodiscard]] std::optional<Hole> decodeOffsetHole(Bytes payload);

/// The payload of a BLOCK_STATUS chunk of this type, extended or not: returns the context's id and replaces
/// what is in `extents`.
[[nodiscard]] std::optional<std::uint32_t> decodeBlockStatus(ReplyChunk type, Bytes payload,
                                                             std::vector<Extent>& extents);

/// Whether the extents may be an answer to that BLOCK_STATUS: they go on to its end or fall short of it, the
/// last alone may reach beyond, and with REQ_ONE there is a single one that does not. Nothing can wrap.
[[nodiscard]] bool isAnswer(const Request& request, std::span<const Extent> extents);

struct ErrorChunk {
  Error error = Error::inval;           // never `none`
  std::string_view message = {};        // in the payload; neither UTF-8 nor harmless to a terminal
  std::optional<std::uint64_t> offset;  // of ERROR_OFFSET
};

/// The payload of an error chunk, of a known or unknown type.
[[nodiscard]] std::optional<ErrorChunk> decodeError(ReplyChunk type, Bytes payload);

}  // namespace Nbd
