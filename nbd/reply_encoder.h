#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "nbd/constants.h"
#include "nbd/reply.h"
#include "nbd/request.h"

namespace Nbd {

/// Puts a server's replies together in the form that one connection agreed on.
///
/// Every function stores into the caller's memory, which must have room for what it says, and returns how
/// many bytes it stored. `flags` is ReplyFlag::done for the last chunk of a reply and 0 for any other. The
/// part that each reply to a READ needs is inline: the form is one branch that always goes the same way.
class ReplyEncoder {
 public:
  explicit constexpr ReplyEncoder(HeaderStyle headers) : headers_(headers) {}

  /// Whether a READ may be answered in several pieces, holes among them. If not, its only piece is all data.
  [[nodiscard]] constexpr bool hasChunks() const { return headers_ != HeaderStyle::simple; }

  /// Room for what stands before data of a READ.
  [[nodiscard]] constexpr std::size_t dataHeaderSize() const {
    return hasChunks() ? headerSize() + offsetSize : simpleReplySize;
  }

  /// Room for what stands before the blocks of compressed data.
  [[nodiscard]] constexpr std::size_t compressedHeaderSize() const {
    return headerSize() + compressedFixedSize;
  }

  /// Room for a hole.
  [[nodiscard]] constexpr std::size_t holeSize() const { return headerSize() + holePayloadSize; }

  /// Room for so many extents.
  [[nodiscard]] constexpr std::size_t blockStatusSize(std::size_t extentCount) const {
    return headers_ == HeaderStyle::extended
               ? extendedChunkHeaderSize + extendedStatusFixedSize + extendedExtentSize * extentCount
               : chunkHeaderSize + blockStatusFixedSize + extentSize * extentCount;
  }

  /// Room for a success or a failure, whatever the form.
  static constexpr std::size_t maxVerdictSize =
      extendedChunkHeaderSize + errorFixedSize + maxErrorMessageSent + offsetSize;

  /// A whole reply without data: the request was carried out.
  std::size_t success(std::span<std::byte> bytes, const Request& request) const;

  /// A whole reply: the request failed altogether, or (with `offset`) from that byte of the export on. Simple
  /// replies tell the error alone. `message` is for people, may be empty and is cut at maxErrorMessageSent
  /// bytes.
  std::size_t failure(std::span<std::byte> bytes, const Request& request, Error error,
                      std::string_view message = {},
                      std::optional<std::uint64_t> offset = std::nullopt) const;

  /// What stands before `length` bytes (1 to maxPayload) of data for a READ, that belong at `offset` of the
  /// export.
  std::size_t dataHeader(std::span<std::byte> bytes, const Request& request, std::uint16_t flags,
                         std::uint64_t offset, std::uint64_t length) const {
    if (!hasChunks()) {
      encodeSimpleReply(bytes.first<simpleReplySize>(), request.cookie);
      return simpleReplySize;
    }
    const std::size_t header =
        chunkHeader(bytes, request, flags, ReplyChunk::offsetData, offsetSize + length);
    storeBig<std::uint64_t>(bytes.subspan(header).first<offsetSize>(), offset);
    return header + offsetSize;
  }

  /// What stands before `wireLength` bytes of compressed blocks that stand for `length` bytes of data at
  /// `offset` of the export. Only where hasChunks(), and both sides agreed on it.
  std::size_t compressedHeader(std::span<std::byte> bytes, const Request& request, std::uint16_t flags,
                               std::uint64_t offset, std::uint64_t length, std::uint64_t wireLength) const {
    const std::size_t header =
        chunkHeader(bytes, request, flags, ReplyChunk::compressedData, compressedFixedSize + wireLength);
    storeBig<std::uint64_t>(bytes.subspan(header).first<8>(), offset);
    storeBig<std::uint32_t>(bytes.subspan(header + 8).first<4>(), narrow<std::uint32_t>(length));
    return header + compressedFixedSize;
  }

  /// A whole chunk: `length` bytes (not 0) at `offset` of the export read as zeroes. Only where hasChunks().
  std::size_t hole(std::span<std::byte> bytes, const Request& request, std::uint16_t flags,
                   std::uint64_t offset, std::uint64_t length) const {
    const std::size_t header = chunkHeader(bytes, request, flags, ReplyChunk::offsetHole, holePayloadSize);
    storeBig<std::uint64_t>(bytes.subspan(header).first<8>(), offset);
    storeBig<std::uint32_t>(bytes.subspan(header + 8).first<4>(), narrow<std::uint32_t>(length));
    return header + holePayloadSize;
  }

  /// A whole chunk with 1 to maxExtentsSent extents of the context with that id. Only where hasChunks().
  std::size_t blockStatus(std::span<std::byte> bytes, const Request& request, std::uint16_t flags,
                          std::uint32_t contextId, std::span<const Extent> extents) const;

 private:
  [[nodiscard]] constexpr std::size_t headerSize() const {
    return headers_ == HeaderStyle::extended ? extendedChunkHeaderSize : chunkHeaderSize;
  }

  std::size_t chunkHeader(std::span<std::byte> bytes, const Request& request, std::uint16_t flags,
                          ReplyChunk type, std::uint64_t length) const {
    if (headers_ == HeaderStyle::extended) {
      encodeExtendedChunkHeader(bytes.first<extendedChunkHeaderSize>(), request.cookie, request.offset, flags,
                                type, length);
    } else {
      encodeChunkHeader(bytes.first<chunkHeaderSize>(), request.cookie, flags, type, length);
    }
    return headerSize();
  }

  HeaderStyle headers_;
};

}  // namespace Nbd
