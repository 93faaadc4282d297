#include "nbd/reply.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <array>
#include <string>

#include "tests/support/wire.h"

namespace {

using Nbd::ChunkHeader;
using Nbd::Error;
using Nbd::Extent;
using Nbd::ReplyChunk;
using Wire::Buffer;

constexpr std::uint64_t cookie = 0x0102'0304'0506'0708;

Buffer bytesOf(std::initializer_list<int> values) {
  Buffer bytes;
  for (const int value : values) bytes.push_back(static_cast<std::byte>(value));
  return bytes;
}

template <std::size_t size>
Buffer toBuffer(const std::array<std::byte, size>& bytes, std::size_t length = size) {
  return {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length)};
}

TEST(SimpleReply, HasKnownBytes) {
  std::array<std::byte, Nbd::simpleReplySize> bytes{};
  Nbd::encodeSimpleReply(bytes, cookie, Error::nospc);
  EXPECT_EQ(toBuffer(bytes), bytesOf({0x67, 0x44, 0x66, 0x98, 0, 0, 0, 28, 1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(Nbd::decodeSimpleReply(bytes), (Nbd::SimpleReply{.error = Error::nospc, .cookie = cookie}));
  bytes[0] ^= std::byte{1};
  EXPECT_EQ(Nbd::decodeSimpleReply(bytes), std::nullopt);
}

struct ErrorNumber {
  Error error;
  int number;
};

TEST(SimpleReply, ErrorsHaveTheirNumbers) {
  const ErrorNumber rows[] = {{Error::none, 0},      {Error::perm, 1},    {Error::io, 5},
                              {Error::nomem, 12},    {Error::inval, 22},  {Error::nospc, 28},
                              {Error::overflow, 75}, {Error::notsup, 95}, {Error::shutdown, 108}};
  for (const auto& [error, number] : rows) {
    std::array<std::byte, Nbd::simpleReplySize> bytes{};
    Nbd::encodeSimpleReply(bytes, cookie, error);
    EXPECT_EQ(std::to_integer<int>(bytes[7]), number);
  }
}

struct LengthCase {
  ReplyChunk type;
  std::uint16_t flags;
  std::uint64_t length;
  bool legal;          // in a structured reply
  bool legalExtended;  // with extended headers
};

constexpr auto unknownChunk = static_cast<ReplyChunk>(3);
constexpr auto unknownError = static_cast<ReplyChunk>(0x8003);

const LengthCase lengthCases[] = {
    {ReplyChunk::none, 1, 0, true, true},
    {ReplyChunk::none, 0, 0, false, false},  // always the last one
    {ReplyChunk::none, 1, 1, false, false},
    {ReplyChunk::offsetData, 0, 9, true, true},
    {ReplyChunk::offsetData, 0, 8, false, false},  // no data
    {ReplyChunk::offsetData, 0, 7, false, false},
    {ReplyChunk::offsetData, 0, 8 + Nbd::maxPayload, true, true},
    {ReplyChunk::offsetData, 0, 9 + Nbd::maxPayload, false, false},
    {ReplyChunk::offsetData, 0, 0xffff'ffff, false, false},
    {ReplyChunk::offsetHole, 0, 12, true, true},
    {ReplyChunk::offsetHole, 0, 11, false, false},
    {ReplyChunk::offsetHole, 0, 13, false, false},
    {ReplyChunk::compressedData, 0, 13, true, true},
    {ReplyChunk::compressedData, 0, 12, false, false},  // no block
    {ReplyChunk::compressedData, 0, 12 + Nbd::maxPayload, true, true},
    {ReplyChunk::compressedData, 0, 13 + Nbd::maxPayload, false, false},
    {ReplyChunk::blockStatus, 0, 12, true, false},
    {ReplyChunk::blockStatus, 0, 4, false, false},  // no extent
    {ReplyChunk::blockStatus, 0, 16, false, false},
    {ReplyChunk::blockStatus, 0, 4 + 8 * 1024 * 1024, true, false},
    {ReplyChunk::blockStatus, 0, 12 + 8 * 1024 * 1024, false, false},
    {ReplyChunk::extendedBlockStatus, 0, 24, false, true},
    {ReplyChunk::extendedBlockStatus, 0, 8, false, false},  // no extent
    {ReplyChunk::extendedBlockStatus, 0, 32, false, false},
    {ReplyChunk::extendedBlockStatus, 0, 8 + 16 * 1024 * 1024, false, true},
    {ReplyChunk::extendedBlockStatus, 0, 24 + 16 * 1024 * 1024, false, false},
    {ReplyChunk::error, 0, 6, true, true},
    {ReplyChunk::error, 0, 5, false, false},
    {ReplyChunk::error, 0, 6 + 4096, true, true},
    {ReplyChunk::error, 0, 7 + 4096, false, false},
    {ReplyChunk::errorOffset, 0, 14, true, true},
    {ReplyChunk::errorOffset, 0, 13, false, false},
    {ReplyChunk::errorOffset, 0, 14 + 4096, true, true},
    {ReplyChunk::errorOffset, 0, 15 + 4096, false, false},
    {unknownError, 0, 6, true, true},  // fails its request alone
    {unknownError, 0, 5, false, false},
    {unknownError, 0, 0xffff'ffff, false, false},
    {unknownChunk, 0, 0, false, false},
};

TEST(ChunkHeader, LengthMustFitTheType) {
  for (const LengthCase& row : lengthCases) {
    std::array<std::byte, Nbd::chunkHeaderSize> bytes{};
    Nbd::encodeChunkHeader(bytes, cookie, row.flags, row.type, row.length);
    EXPECT_EQ(Nbd::decodeChunkHeader(bytes).has_value(), row.legal)
        << static_cast<int>(row.type) << " of " << row.length;
  }
}

TEST(ExtendedChunkHeader, LengthMustFitTheType) {
  for (const LengthCase& row : lengthCases) {
    // What has the same low half as a legal length is not legal for that.
    for (const std::uint64_t more : {std::uint64_t{0}, std::uint64_t{1} << 32, std::uint64_t{1} << 63}) {
      std::array<std::byte, Nbd::extendedChunkHeaderSize> bytes{};
      Nbd::encodeExtendedChunkHeader(bytes, cookie, 512, row.flags, row.type, row.length + more);
      EXPECT_EQ(Nbd::decodeExtendedChunkHeader(bytes).has_value(), row.legalExtended && more == 0)
          << static_cast<int>(row.type) << " of " << row.length + more;
    }
  }
}

TEST(ChunkHeader, WrongMagicIsNoHeader) {
  std::array<std::byte, Nbd::chunkHeaderSize> bytes{};
  Nbd::encodeChunkHeader(bytes, cookie, Nbd::ReplyFlag::done, ReplyChunk::none, 0);
  EXPECT_TRUE(Nbd::decodeChunkHeader(bytes).has_value());
  bytes[3] ^= std::byte{1};
  EXPECT_EQ(Nbd::decodeChunkHeader(bytes), std::nullopt);
}

TEST(ExtendedChunkHeader, WrongMagicIsNoHeader) {
  std::array<std::byte, Nbd::extendedChunkHeaderSize> bytes{};
  Nbd::encodeExtendedChunkHeader(bytes, cookie, 512, Nbd::ReplyFlag::done, ReplyChunk::none, 0);
  EXPECT_EQ(
      Nbd::decodeExtendedChunkHeader(bytes),
      (ChunkHeader{
          .flags = Nbd::ReplyFlag::done, .type = ReplyChunk::none, .cookie = cookie, .requestOffset = 512}));
  bytes[3] ^= std::byte{1};
  EXPECT_EQ(Nbd::decodeExtendedChunkHeader(bytes), std::nullopt);
}

TEST(ChunkHeader, DataAreBoundedByWhatWasAgreed) {
  std::array<std::byte, Nbd::chunkHeaderSize> bytes{};
  Nbd::encodeChunkHeader(bytes, cookie, 0, ReplyChunk::offsetData, 8 + 65'537);
  EXPECT_TRUE(Nbd::decodeChunkHeader(bytes, 65'537).has_value());
  EXPECT_FALSE(Nbd::decodeChunkHeader(bytes, 65'536).has_value());
}

TEST(Hole, MayNotBeEmptyOrCut) {
  const Buffer offset = Wire::number<std::uint64_t>(512);
  EXPECT_FALSE(Nbd::decodeOffsetHole(offset).has_value());
  EXPECT_FALSE(Nbd::decodeOffsetHole(Wire::join({offset, Wire::number<std::uint32_t>(0)})).has_value());
  EXPECT_TRUE(Nbd::decodeOffsetHole(Wire::join({offset, Wire::number<std::uint32_t>(1)})).has_value());
  EXPECT_FALSE(Nbd::decodeOffsetHole(Wire::join({offset, Wire::number<std::uint64_t>(1)})).has_value());
}

TEST(BlockStatus, RefusesCutAndEmptyExtents) {
  std::vector<Extent> extents;
  const Buffer context = Wire::number<std::uint32_t>(1);
  const Buffer four = Wire::number<std::uint32_t>(4);
  const Buffer zero = Wire::number<std::uint32_t>(0);
  const auto decode = [&](std::initializer_list<Buffer> parts) {
    return Nbd::decodeBlockStatus(ReplyChunk::blockStatus, Wire::join(parts), extents);
  };
  EXPECT_FALSE(decode({}).has_value());
  EXPECT_FALSE(decode({context}).has_value());
  EXPECT_FALSE(decode({context, four}).has_value());
  EXPECT_FALSE(decode({context, four, zero, zero, zero}).has_value());
  EXPECT_EQ(decode({context, four, zero}), 1U);
  EXPECT_EQ(extents, (std::vector<Extent>{{.length = 4, .status = 0}}));
}

TEST(BlockStatus, RefusesCutEmptyAndMiscountedExtendedExtents) {
  std::vector<Extent> extents;
  const Buffer context = Wire::number<std::uint32_t>(1);
  const auto count = [](std::uint32_t value) { return Wire::number(value); };
  const Buffer large = Wire::number(std::uint64_t{1} << 43);
  const Buffer zero = Wire::number<std::uint64_t>(0);
  const auto decode = [&](std::initializer_list<Buffer> parts) {
    return Nbd::decodeBlockStatus(ReplyChunk::extendedBlockStatus, Wire::join(parts), extents);
  };
  EXPECT_FALSE(decode({}).has_value());
  EXPECT_FALSE(decode({context}).has_value());
  EXPECT_FALSE(decode({context, count(0)}).has_value());
  EXPECT_FALSE(decode({context, count(1)}).has_value());
  EXPECT_FALSE(decode({context, count(1), large}).has_value());
  EXPECT_FALSE(decode({context, count(1), zero, zero}).has_value()) << "an extent of nothing";
  EXPECT_FALSE(decode({context, count(2), large, zero}).has_value());
  EXPECT_FALSE(decode({context, count(1), large, zero, large, zero}).has_value());
  EXPECT_FALSE(decode({context, count(0xffff'ffff), large, zero}).has_value());
  EXPECT_EQ(decode({context, count(1), large, zero}), 1U);
  EXPECT_EQ(extents, (std::vector<Extent>{{.length = std::uint64_t{1} << 43, .status = 0}}));
}

TEST(BlockStatus, AnswersReachNoFurtherThanTheProtocolAllows) {
  constexpr std::uint64_t most = 0xffff'ffff'ffff'ffff;
  const auto isAnswer = [](std::uint16_t flags, std::vector<std::uint64_t> lengths) {
    std::vector<Extent> extents;
    for (const std::uint64_t length : lengths) extents.push_back({.length = length, .status = 0});
    return Nbd::isAnswer({.flags = flags, .type = Nbd::Command::blockStatus, .length = 100}, extents);
  };
  EXPECT_TRUE(isAnswer(0, {100}));
  EXPECT_TRUE(isAnswer(0, {1}));
  EXPECT_TRUE(isAnswer(0, {most}));
  EXPECT_TRUE(isAnswer(0, {99, most}));
  EXPECT_TRUE(isAnswer(0, {40, 40}));
  EXPECT_FALSE(isAnswer(0, {}));
  EXPECT_FALSE(isAnswer(0, {100, 1}));
  EXPECT_FALSE(isAnswer(0, {most, most}));
  EXPECT_FALSE(isAnswer(0, {50, most - 10, 5}));
  EXPECT_TRUE(isAnswer(Nbd::CommandFlag::reqOne, {100}));
  EXPECT_FALSE(isAnswer(Nbd::CommandFlag::reqOne, {101}));
  EXPECT_FALSE(isAnswer(Nbd::CommandFlag::reqOne, {50, 50}));
}

TEST(ErrorChunk, ChecksItsLengths) {
  const Buffer io = Wire::number(Error::io);
  const Buffer none = Wire::number(Error::none);
  const auto length = [](std::uint16_t value) { return Wire::number(value); };
  const auto decodes = [](ReplyChunk type, std::initializer_list<Buffer> parts) {
    return Nbd::decodeError(type, Wire::join(parts)).has_value();
  };
  EXPECT_TRUE(decodes(ReplyChunk::error, {io, length(0)}));
  EXPECT_TRUE(decodes(ReplyChunk::error, {io, length(2), Wire::text("ab")}));
  EXPECT_FALSE(decodes(ReplyChunk::error, {io, length(3), Wire::text("ab")}));
  EXPECT_FALSE(decodes(ReplyChunk::error, {io}));
  EXPECT_FALSE(decodes(ReplyChunk::error, {none, length(0)})) << "an error that is none";
  EXPECT_FALSE(decodes(ReplyChunk::error, {io, length(4097), Buffer(4097)}));
  EXPECT_TRUE(decodes(ReplyChunk::errorOffset, {io, length(2), Wire::text("ab"), Buffer(8)}));
  EXPECT_FALSE(decodes(ReplyChunk::errorOffset, {io, length(2), Wire::text("ab"), Buffer(7)}));
  EXPECT_FALSE(decodes(ReplyChunk::errorOffset, {io, length(10), Wire::text("ab"), Buffer(7)}));
  EXPECT_TRUE(decodes(unknownError, {io, length(1), Wire::text("a"), Buffer(3)}));
}

}  // namespace
