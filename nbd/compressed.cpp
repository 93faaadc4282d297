#include "nbd/compressed.h"

#include <algorithm>

#include "nbd/constants.h"
#include "nbd/contract.h"

namespace Nbd {

std::optional<std::vector<CompressedBlock>> splitBlocks(Bytes payload, std::uint64_t plainLength,
                                                        std::uint32_t blockLength) {
  require(blockLength > 0);
  if (!isCompressedLength(payload.size(), plainLength)) return std::nullopt;
  // Every block takes some bytes of the payload: so many can be asked for only by sending them.
  if (blockCount(plainLength, blockLength) > payload.size() / (blockHeadSize + 1)) return std::nullopt;
  std::vector<CompressedBlock> blocks;
  blocks.reserve(blockCount(plainLength, blockLength));
  Reader reader(payload);
  for (std::uint64_t left = plainLength; left > 0;) {
    const auto plain = static_cast<std::uint32_t>(std::min<std::uint64_t>(left, blockLength));
    const auto head = reader.number<std::uint32_t>();
    if (!head) return std::nullopt;
    const bool isPlain = (*head & plainBlockBit) != 0;
    const std::uint32_t length = *head & ~plainBlockBit;
    if (isPlain ? length != plain : length == 0 || length >= plain) return std::nullopt;
    const std::optional<Bytes> data = reader.bytes(length);
    if (!data) return std::nullopt;
    blocks.push_back({.data = *data, .plainLength = plain, .isPlain = isPlain});
    left -= plain;
  }
  if (!reader.atEnd()) return std::nullopt;
  return blocks;
}

void storeBlockHead(std::span<std::byte, blockHeadSize> bytes, std::uint32_t length, bool isPlain) {
  require((length & plainBlockBit) == 0);
  storeBig<std::uint32_t>(bytes, length | (isPlain ? plainBlockBit : 0U));
}

std::optional<CompressedPiece> decodeCompressedPiece(Bytes payload) {
  Reader reader(payload);
  const auto offset = reader.number<std::uint64_t>();
  const auto plainLength = offset ? reader.number<std::uint32_t>() : std::nullopt;
  if (!plainLength || !isCompressedLength(reader.remaining(), *plainLength)) return std::nullopt;
  return CompressedPiece{
      .offset = *offset, .plainLength = *plainLength, .blocks = *reader.bytes(reader.remaining())};
}

}  // namespace Nbd
