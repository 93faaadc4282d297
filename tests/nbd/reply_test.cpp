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

// The header that `bytes` begins with, as a client reads it.
std::optional<ChunkHeader> headerOf(Nbd::Bytes bytes) {
  return Nbd::decodeChunkHeader(bytes.first<Nbd::chunkHeaderSize>());
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

TEST(Chunk, NoneHasKnownBytes) {
  std::array<std::byte, Nbd::chunkHeaderSize> bytes{};
  Nbd::encodeNone(bytes, cookie);
  EXPECT_EQ(toBuffer(bytes),
            bytesOf({0x66, 0x8e, 0x33, 0xef, 0, 1, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0}));
}

TEST(Chunk, OffsetDataHasKnownBytes) {
  std::array<std::byte, Nbd::offsetDataHeaderSize> bytes{};
  Nbd::encodeOffsetData(bytes, cookie, Nbd::ReplyFlag::done, 0x200, 0x1000);
  EXPECT_EQ(toBuffer(bytes), bytesOf({0x66, 0x8e, 0x33, 0xef, 0,    1, 0, 1, 1, 2, 3, 4, 5, 6,
                                      7,    8,    0,    0,    0x10, 8, 0, 0, 0, 0, 0, 0, 2, 0}));
}

TEST(Chunk, OffsetHoleHasKnownBytes) {
  std::array<std::byte, Nbd::offsetHoleSize> bytes{};
  Nbd::encodeOffsetHole(bytes, cookie, 0, 0x200, 0x1000);
  EXPECT_EQ(toBuffer(bytes), bytesOf({0x66, 0x8e, 0x33, 0xef, 0, 0, 0, 2, 1, 2, 3, 4, 5, 6, 7,    8,
                                      0,    0,    0,    12,   0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0x10, 0}));
  EXPECT_EQ(Nbd::decodeOffsetHole(std::span(bytes).subspan(Nbd::chunkHeaderSize)),
            (Nbd::Hole{.offset = 0x200, .length = 0x1000}));
}

TEST(Chunk, BlockStatusHasKnownBytes) {
  const Extent extents[] = {{.length = 0x1000, .status = 0}, {.length = 0x200, .status = 3}};
  std::array<std::byte, Nbd::blockStatusSize(2)> bytes{};
  EXPECT_EQ(Nbd::encodeBlockStatus(bytes, cookie, Nbd::ReplyFlag::done, 1, extents), bytes.size());
  EXPECT_EQ(toBuffer(bytes),
            bytesOf({0x66, 0x8e, 0x33, 0xef, 0, 1, 0,    5, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 20,
                     0,    0,    0,    1,    0, 0, 0x10, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 3}));
}

TEST(Chunk, ErrorHasKnownBytes) {
  std::array<std::byte, Nbd::maxErrorChunkSize> bytes{};
  const std::size_t size = Nbd::encodeError(bytes, cookie, Nbd::ReplyFlag::done, Error::io, "bad");
  EXPECT_EQ(toBuffer(bytes, size), bytesOf({0x66, 0x8e, 0x33, 0xef, 0, 1, 0x80, 1, 1, 2, 3, 4,   5,   6,  7,
                                            8,    0,    0,    0,    9, 0, 0,    0, 5, 0, 3, 'b', 'a', 'd'}));
}

TEST(Chunk, ErrorOffsetHasKnownBytes) {
  std::array<std::byte, Nbd::maxErrorChunkSize> bytes{};
  const std::size_t size = Nbd::encodeError(bytes, cookie, 0, Error::io, "", 0x200);
  EXPECT_EQ(toBuffer(bytes, size),
            bytesOf({0x66, 0x8e, 0x33, 0xef, 0, 0, 0x80, 2, 1, 2, 3, 4, 5, 6, 7, 8, 0,
                     0,    0,    14,   0,    0, 0, 5,    0, 0, 0, 0, 0, 0, 0, 0, 2, 0}));
}

TEST(Chunk, LongMessagesAreCutBetweenCharacters) {
  std::string message(Nbd::maxErrorMessageSent - 1, 'x');
  message += "\xe2\x82\xac";
  std::array<std::byte, Nbd::maxErrorChunkSize> bytes{};
  const std::size_t size = Nbd::encodeError(bytes, cookie, 0, Error::io, message, 7);
  const auto error = Nbd::decodeError(ReplyChunk::errorOffset, Nbd::Bytes(bytes).first(size).subspan(20));
  ASSERT_TRUE(error.has_value());
  EXPECT_EQ(error->message, std::string(Nbd::maxErrorMessageSent - 1, 'x'));
  EXPECT_EQ(error->offset, 7U);
}

TEST(ChunkDeath, BreakingThePromiseEndsTheProgram) {
  std::array<std::byte, Nbd::maxErrorChunkSize> bytes{};
  EXPECT_DEATH(Nbd::encodeError(bytes, cookie, 0, Error::none), "");
  EXPECT_DEATH(Nbd::encodeBlockStatus(bytes, cookie, 0, 1, {}), "");
  const std::vector<Extent> extents(64, Extent{.length = 512, .status = 0});
  EXPECT_DEATH(Nbd::encodeBlockStatus(bytes, cookie, 0, 1, extents), "") << "the extents need more room";
}

struct LengthCase {
  ReplyChunk type;
  std::uint16_t flags;
  std::uint32_t length;
  bool legal;
};

constexpr auto unknownChunk = static_cast<ReplyChunk>(3);
constexpr auto extendedBlockStatus = static_cast<ReplyChunk>(6);
constexpr auto unknownError = static_cast<ReplyChunk>(0x8003);

TEST(ChunkHeader, LengthMustFitTheType) {
  const LengthCase rows[] = {
      {ReplyChunk::none, 1, 0, true},
      {ReplyChunk::none, 0, 0, false},  // always the last one
      {ReplyChunk::none, 1, 1, false},
      {ReplyChunk::offsetData, 0, 9, true},
      {ReplyChunk::offsetData, 0, 8, false},  // no data
      {ReplyChunk::offsetData, 0, 7, false},
      {ReplyChunk::offsetData, 0, 8 + Nbd::maxPayload, true},
      {ReplyChunk::offsetData, 0, 9 + Nbd::maxPayload, false},
      {ReplyChunk::offsetData, 0, 0xffff'ffff, false},
      {ReplyChunk::offsetHole, 0, 12, true},
      {ReplyChunk::offsetHole, 0, 11, false},
      {ReplyChunk::offsetHole, 0, 13, false},
      {ReplyChunk::blockStatus, 0, 12, true},
      {ReplyChunk::blockStatus, 0, 4, false},  // no extent
      {ReplyChunk::blockStatus, 0, 16, false},
      {ReplyChunk::blockStatus, 0, 4 + 8 * 1024 * 1024, true},
      {ReplyChunk::blockStatus, 0, 12 + 8 * 1024 * 1024, false},
      {ReplyChunk::error, 0, 6, true},
      {ReplyChunk::error, 0, 5, false},
      {ReplyChunk::error, 0, 6 + 4096, true},
      {ReplyChunk::error, 0, 7 + 4096, false},
      {ReplyChunk::errorOffset, 0, 14, true},
      {ReplyChunk::errorOffset, 0, 13, false},
      {ReplyChunk::errorOffset, 0, 14 + 4096, true},
      {ReplyChunk::errorOffset, 0, 15 + 4096, false},
      {unknownError, 0, 6, true},  // fails its request alone
      {unknownError, 0, 5, false},
      {unknownError, 0, 0xffff'ffff, false},
      {unknownChunk, 0, 0, false},
      {extendedBlockStatus, 0, 24, false},  // nobody agreed on extended headers
  };
  for (const auto& [type, flags, length, legal] : rows) {
    std::array<std::byte, Nbd::chunkHeaderSize> bytes{};
    Nbd::encodeChunkHeader(bytes, cookie, flags, type, length);
    EXPECT_EQ(headerOf(bytes).has_value(), legal) << static_cast<int>(type) << " of " << length;
  }
}

TEST(ChunkHeader, WrongMagicIsNoHeader) {
  std::array<std::byte, Nbd::chunkHeaderSize> bytes{};
  Nbd::encodeNone(bytes, cookie);
  bytes[3] ^= std::byte{1};
  EXPECT_EQ(headerOf(bytes), std::nullopt);
}

TEST(ChunkHeader, DataAreBoundedByWhatWasAgreed) {
  std::array<std::byte, Nbd::offsetDataHeaderSize> bytes{};
  Nbd::encodeOffsetData(bytes, cookie, 0, 0, 65'537);
  const auto header = std::span<const std::byte>(bytes).first<Nbd::chunkHeaderSize>();
  EXPECT_TRUE(Nbd::decodeChunkHeader(header, 65'537).has_value());
  EXPECT_FALSE(Nbd::decodeChunkHeader(header, 65'536).has_value());
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
  EXPECT_FALSE(Nbd::decodeBlockStatus({}, extents).has_value());
  EXPECT_FALSE(Nbd::decodeBlockStatus(context, extents).has_value());
  EXPECT_FALSE(Nbd::decodeBlockStatus(Wire::join({context, four}), extents).has_value());
  EXPECT_FALSE(Nbd::decodeBlockStatus(Wire::join({context, four, zero, zero, zero}), extents).has_value());
  EXPECT_EQ(Nbd::decodeBlockStatus(Wire::join({context, four, zero}), extents), 1U);
  EXPECT_EQ(extents, (std::vector<Extent>{{.length = 4, .status = 0}}));
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

RC_GTEST_PROP(ReplyProperty, BlockStatusSurvivesTheWire, (std::uint32_t context, bool done)) {
  const auto pairs = *rc::gen::nonEmpty<std::vector<std::pair<std::uint32_t, std::uint32_t>>>();
  std::vector<Extent> extents;
  for (const auto& [length, status] : pairs)
    extents.push_back({.length = std::max(length, 1U), .status = status});
  Buffer bytes(Nbd::blockStatusSize(extents.size()));
  const std::uint16_t flags = done ? Nbd::ReplyFlag::done : 0;
  Nbd::encodeBlockStatus(bytes, cookie, flags, context, extents);
  const auto header = headerOf(bytes);
  RC_ASSERT(header.has_value());
  RC_ASSERT(header->isDone() == done);
  RC_ASSERT(header->length == bytes.size() - Nbd::chunkHeaderSize);
  std::vector<Extent> decoded;
  RC_ASSERT(Nbd::decodeBlockStatus(Nbd::Bytes(bytes).subspan(Nbd::chunkHeaderSize), decoded) == context);
  RC_ASSERT(decoded == extents);
}

RC_GTEST_PROP(ReplyProperty, ErrorsSurviveTheWire,
              (std::uint32_t number, bool hasOffset, std::uint64_t position)) {
  const auto offset = hasOffset ? std::optional(position) : std::nullopt;
  const auto message = *rc::gen::container<std::string>(rc::gen::inRange('a', 'z'));
  RC_PRE(number != 0 && message.size() <= Nbd::maxErrorMessageSent);
  std::array<std::byte, Nbd::maxErrorChunkSize> bytes{};
  const auto sent = static_cast<Error>(number);
  const std::size_t size = Nbd::encodeError(bytes, cookie, Nbd::ReplyFlag::done, sent, message, offset);
  const auto header = headerOf(bytes);
  RC_ASSERT(header.has_value());
  RC_ASSERT(header->isError());
  RC_ASSERT(header->length == size - Nbd::chunkHeaderSize);
  const auto error =
      Nbd::decodeError(header->type, Nbd::Bytes(bytes).first(size).subspan(Nbd::chunkHeaderSize));
  RC_ASSERT(error.has_value());
  RC_ASSERT(error->error == sent);
  RC_ASSERT(error->message == message);
  RC_ASSERT(error->offset == offset);
}

}  // namespace
