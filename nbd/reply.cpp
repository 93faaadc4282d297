#include "nbd/reply.h"

namespace Nbd {

namespace {

// Whether a block status payload of `length` bytes is a fixed part and whole extents, one at least.
constexpr bool holdsExtents(std::uint64_t length, std::size_t fixed, std::size_t extent) {
  return length >= fixed + extent && length <= fixed + extent * maxExtentsReceived &&
         (length - fixed) % extent == 0;
}

bool lengthIsLegal(const ChunkHeader& header, std::uint64_t length, bool isExtended,
                   std::uint32_t maximumPayload) {
  switch (header.type) {
    case ReplyChunk::none:
      return length == 0 && header.isDone();
    case ReplyChunk::offsetData:
      return length > offsetSize && length - offsetSize <= maximumPayload;
    case ReplyChunk::offsetHole:
      return length == holePayloadSize;
    case ReplyChunk::compressedData:
      return length > compressedFixedSize && length - compressedFixedSize <= maximumPayload;
    case ReplyChunk::blockStatus:
      return !isExtended && holdsExtents(length, blockStatusFixedSize, extentSize);
    case ReplyChunk::extendedBlockStatus:
      return isExtended && holdsExtents(length, extendedStatusFixedSize, extendedExtentSize);
    case ReplyChunk::errorOffset:
      return length >= errorFixedSize + offsetSize && length <= errorFixedSize + maxStringLength + offsetSize;
    case ReplyChunk::error:
      return length >= errorFixedSize && length <= errorFixedSize + maxStringLength;
  }
  // Errors of a later protocol: a message and whatever else, but not without bound.
  return header.isError() && length >= errorFixedSize && length <= maxUnknownErrorLength;
}

}  // namespace

std::optional<ChunkHeader> decodeChunkHeader(std::span<const std::byte, chunkHeaderSize> bytes,
                                             std::uint32_t maximumPayload) {
  if (loadBig<std::uint32_t>(bytes.subspan<0, 4>()) != chunkMagic) return std::nullopt;
  const ChunkHeader header{.flags = loadBig<std::uint16_t>(bytes.subspan<4, 2>()),
                           .type = loadBig<ReplyChunk>(bytes.subspan<6, 2>()),
                           .cookie = loadBig<std::uint64_t>(bytes.subspan<8, 8>()),
                           .length = loadBig<std::uint32_t>(bytes.subspan<16, 4>())};
  if (!lengthIsLegal(header, header.length, false, maximumPayload)) return std::nullopt;
  return header;
}

std::optional<ChunkHeader> decodeExtendedChunkHeader(
    std::span<const std::byte, extendedChunkHeaderSize> bytes, std::uint32_t maximumPayload) {
  if (loadBig<std::uint32_t>(bytes.subspan<0, 4>()) != extendedChunkMagic) return std::nullopt;
  const auto length = loadBig<std::uint64_t>(bytes.subspan<24, 8>());
  const ChunkHeader header{.flags = loadBig<std::uint16_t>(bytes.subspan<4, 2>()),
                           .type = loadBig<ReplyChunk>(bytes.subspan<6, 2>()),
                           .cookie = loadBig<std::uint64_t>(bytes.subspan<8, 8>()),
                           .requestOffset = loadBig<std::uint64_t>(bytes.subspan<16, 8>()),
                           .length = static_cast<std::uint32_t>(length)};
  if (!lengthIsLegal(header, length, true, maximumPayload)) return std::nullopt;
  return header;
}

std::optional<Hole> decodeOffsetHole(Bytes payload) {
  Reader reader(payload);
  const auto offset = reader.number<std::uint64_t>();
  const auto length = reader.number<std::uint32_t>();
  if (!offset || !length || *length == 0 || !reader.atEnd()) return std::nullopt;
  return Hole{.offset = *offset, .length = *length};
}

std::optional<std::uint32_t> decodeBlockStatus(ReplyChunk type, Bytes payload, std::vector<Extent>& extents) {
  extents.clear();
  const bool isExtended = type == ReplyChunk::extendedBlockStatus;
  const std::size_t sizeOfOne = isExtended ? extendedExtentSize : extentSize;
  Reader reader(payload);
  const auto contextId = reader.number<std::uint32_t>();
  std::optional<std::uint32_t> announced;
  if (isExtended) announced = reader.number<std::uint32_t>();
  const std::size_t count = reader.remaining() / sizeOfOne;
  if (!contextId || count == 0 || count > maxExtentsReceived || reader.remaining() % sizeOfOne != 0 ||
      (isExtended && announced != count)) {
    return std::nullopt;
  }
  extents.reserve(count);
  while (!reader.atEnd()) {
    Extent extent;
    if (isExtended) {
      extent = {.length = *reader.number<std::uint64_t>(), .status = *reader.number<std::uint64_t>()};
    } else {
      extent = {.length = *reader.number<std::uint32_t>(), .status = *reader.number<std::uint32_t>()};
    }
    if (extent.length == 0) return std::nullopt;
    extents.push_back(extent);
  }
  return contextId;
}

bool isAnswer(const Request& request, std::span<const Extent> extents) {
  if (extents.empty()) return false;
  if ((request.flags & CommandFlag::reqOne) != 0) {
    return extents.size() == 1 && extents.front().length <= request.length;
  }
  std::uint64_t left = request.length;
  for (const Extent& extent : extents.first(extents.size() - 1)) {
    if (extent.length >= left) return false;
    left -= extent.length;
  }
  return true;
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
