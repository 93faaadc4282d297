// Compressed blocks in both directions. The first byte chooses the length of blocks, the next two that of the
// data that the rest, a payload from a peer, is to stand for. The same bytes are also compressed by us, and
// must come back.

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "nbd/compressed.h"
#include "nbdd/compression/block_codec.h"

namespace {

void expect(bool promise) {
  if (!promise) std::abort();
}

// Whatever the payload says, nothing beyond the data's end is written.
void checkExpansion(Nbd::Bytes payload, std::size_t plainLength, std::uint32_t blockLength) {
  constexpr auto guard = std::byte{0xA5};
  std::vector<std::byte> plain(plainLength + 64, guard);
  const bool good = Nbdd::expandBlocks(payload, blockLength, std::span(plain).first(plainLength));
  expect(std::ranges::all_of(std::span(plain).subspan(plainLength),
                             [](std::byte byte) { return byte == guard; }));
  const auto blocks = Nbd::splitBlocks(payload, plainLength, blockLength);
  expect(!good || blocks);
  if (!blocks) return;
  std::size_t onWire = 0;
  std::size_t expanded = 0;
  for (const Nbd::CompressedBlock& block : *blocks) {
    onWire += Nbd::blockHeadSize + block.data.size();
    expanded += block.plainLength;
    expect(block.plainLength > 0 && block.plainLength <= blockLength);
  }
  expect(onWire == payload.size() && expanded == plainLength && blocks->size() <= plainLength);
}

void checkRoundTrip(Nbd::Bytes data, std::uint32_t blockLength, Nbdd::Effort effort) {
  if (data.empty()) return;
  std::vector<std::byte> output(data.size());
  std::vector<Nbdd::Attempt> attempts(Nbd::blockCount(data.size(), blockLength), Nbdd::Attempt::hopeful);
  const std::size_t length = Nbdd::compressBlocks(data, blockLength, effort, attempts, output);
  if (length == 0) return;
  expect(Nbd::isCompressedLength(length, data.size()));
  std::vector<std::byte> again(data.size());
  expect(Nbdd::expandBlocks(std::span(output).first(length), blockLength, again));
  expect(std::ranges::equal(again, data));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  const std::uint32_t blockLength = std::uint32_t{1} << (data[0] % 18);
  const std::size_t plainLength = data[1] * std::size_t{256} + data[2];
  const Nbd::Bytes rest = std::as_bytes(std::span(data, size)).subspan(3);
  checkExpansion(rest, plainLength, blockLength);
  checkRoundTrip(rest, blockLength, Nbdd::Effort::quick);
  checkRoundTrip(rest, blockLength, Nbdd::Effort::thorough);
  if (const auto piece = Nbd::decodeCompressedPiece(rest))
    expect(Nbd::isCompressedLength(piece->blocks.size(), piece->plainLength));
  return 0;
}
