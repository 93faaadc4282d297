#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "nbd/bytes.h"

/// Data that cross the wire in compressed blocks, where both sides agreed on it: how the blocks are framed.
/// docs/extension.md is the definition. What is in a block is for a compressor to know.
namespace Nbd {

/// The length of all blocks together, which stands behind the header of a WRITE with CommandFlag::compressed.
inline constexpr std::size_t compressedLengthSize = 4;

/// What stands before each block: the length of its bytes on the wire, and whether they are plain.
inline constexpr std::size_t blockHeadSize = 4;
inline constexpr std::uint32_t plainBlockBit = 0x8000'0000;

[[nodiscard]] constexpr std::uint64_t blockCount(std::uint64_t plainLength, std::uint32_t blockLength) {
  return plainLength / blockLength + (plainLength % blockLength != 0 ? 1 : 0);
}

/// Whether data of `plainLength` bytes may be so long on the wire: shorter, or they would go plain.
[[nodiscard]] constexpr bool isCompressedLength(std::uint64_t wireLength, std::uint64_t plainLength) {
  return wireLength > blockHeadSize && wireLength < plainLength;
}

/// One block, as it stood on the wire.
struct CompressedBlock {
  Bytes data;
  std::uint32_t plainLength = 0;  // bytes that it must become
  bool isPlain = false;           // it is these bytes already
};

/// The blocks that stand for `plainLength` bytes, each for `blockLength` of them and the last for the rest.
/// Nothing unless they fill `payload` exactly, a plain one has as many bytes as it stands for, any other has
/// fewer, and isCompressedLength() holds.
[[nodiscard]] std::optional<std::vector<CompressedBlock>> splitBlocks(Bytes payload,
                                                                      std::uint64_t plainLength,
                                                                      std::uint32_t blockLength);

/// Stores what stands before a block of `length` bytes on the wire.
void storeBlockHead(std::span<std::byte, blockHeadSize> bytes, std::uint32_t length, bool isPlain);

/// What stands before the blocks in a chunk of compressed data.
struct CompressedPiece {
  std::uint64_t offset = 0;       // of the export
  std::uint32_t plainLength = 0;  // bytes
  Bytes blocks;
};

/// The payload of a chunk of compressed data. Nothing unless isCompressedLength() holds for it.
[[nodiscard]] std::optional<CompressedPiece> decodeCompressedPiece(Bytes payload);

}  // namespace Nbd
