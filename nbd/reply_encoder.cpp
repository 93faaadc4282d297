#include "nbd/reply_encoder.h"

#include <algorithm>

#include "nbd/contract.h"

namespace Nbd {

// With structured replies whatever carries no payload may be a simple reply, which is shorter; a READ may
// not.
std::size_t ReplyEncoder::success(std::span<std::byte> bytes, const Request& request) const {
  const bool isChunk = headers_ == HeaderStyle::extended ||
                       (headers_ == HeaderStyle::structured && request.type == Command::read);
  if (isChunk) return chunkHeader(bytes, request, ReplyFlag::done, ReplyChunk::none, 0);
  encodeSimpleReply(bytes.first<simpleReplySize>(), request.cookie);
  return simpleReplySize;
}

std::size_t ReplyEncoder::failure(std::span<std::byte> bytes, const Request& request, Error error,
                                  std::string_view message, std::optional<std::uint64_t> offset) const {
  require(error != Error::none);
  if (!hasChunks()) {
    encodeSimpleReply(bytes.first<simpleReplySize>(), request.cookie, error);
    return simpleReplySize;
  }
  const std::string_view text = truncateUtf8(message, maxErrorMessageSent);
  const std::size_t length = errorFixedSize + text.size() + (offset ? offsetSize : 0);
  const std::size_t header = chunkHeader(bytes, request, ReplyFlag::done,
                                         offset ? ReplyChunk::errorOffset : ReplyChunk::error, length);
  const std::span<std::byte> payload = bytes.subspan(header, length);
  storeBig<Error>(payload.first<4>(), error);
  storeBig<std::uint16_t>(payload.subspan<4, 2>(), static_cast<std::uint16_t>(text.size()));
  std::ranges::copy(std::as_bytes(std::span(text)), payload.begin() + errorFixedSize);
  if (offset) storeBig<std::uint64_t>(payload.last<offsetSize>(), *offset);
  return header + length;
}

std::size_t ReplyEncoder::blockStatus(std::span<std::byte> bytes, const Request& request, std::uint16_t flags,
                                      std::uint32_t contextId, std::span<const Extent> extents) const {
  const std::size_t size = blockStatusSize(extents.size());
  require(!extents.empty() && extents.size() <= maxExtentsSent && bytes.size() >= size);
  const bool isExtended = headers_ == HeaderStyle::extended;
  const std::size_t header = chunkHeader(
      bytes, request, flags, isExtended ? ReplyChunk::extendedBlockStatus : ReplyChunk::blockStatus,
      size - headerSize());
  storeBig<std::uint32_t>(bytes.subspan(header).first<4>(), contextId);
  std::span<std::byte> rest = bytes.subspan(header + blockStatusFixedSize);
  if (isExtended) {
    storeBig<std::uint32_t>(rest.first<4>(), static_cast<std::uint32_t>(extents.size()));
    rest = rest.subspan(4);
    for (const Extent& extent : extents) {
      storeBig<std::uint64_t>(rest.first<8>(), extent.length);
      storeBig<std::uint64_t>(rest.subspan<8, 8>(), extent.status);
      rest = rest.subspan(extendedExtentSize);
    }
    return size;
  }
  for (const Extent& extent : extents) {
    storeBig<std::uint32_t>(rest.first<4>(), narrow<std::uint32_t>(extent.length));
    storeBig<std::uint32_t>(rest.subspan<4, 4>(), narrow<std::uint32_t>(extent.status));
    rest = rest.subspan(extentSize);
  }
  return size;
}

}  // namespace Nbd
