#include "nbd/reply_encoder.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "tests/support/wire.h"

namespace {

using Nbd::ChunkHeader;
using Nbd::Command;
using Nbd::Error;
using Nbd::Extent;
using Nbd::HeaderStyle;
using Nbd::ReplyChunk;
using Nbd::ReplyEncoder;
using Nbd::Request;
using Wire::Buffer;

constexpr Request request{.cookie = 0x0102'0304'0506'0708, .offset = 0x1122, .length = 0x9999};
constexpr Request writeRequest{
    .type = Command::write, .cookie = 0x0102'0304'0506'0708, .offset = 0x1122, .length = 0x9999};
constexpr auto done = Nbd::ReplyFlag::done;

constexpr ReplyEncoder simple(HeaderStyle::simple);
constexpr ReplyEncoder structured(HeaderStyle::structured);
constexpr ReplyEncoder extended(HeaderStyle::extended);

Buffer bytesOf(std::initializer_list<int> values) {
  Buffer bytes;
  for (const int value : values) bytes.push_back(static_cast<std::byte>(value));
  return bytes;
}

// What `encode` stores: the size it returns, and not a byte behind that.
template <typename Encode>
Buffer stored(Encode encode) {
  Buffer bytes(1024, std::byte{0xee});
  const std::size_t size = encode(std::span(bytes));
  EXPECT_TRUE(std::ranges::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(size), bytes.end(),
                                  [](std::byte byte) { return byte == std::byte{0xee}; }));
  bytes.resize(size);
  return bytes;
}

// A compact header behind its flags, for a chunk of `type` with `length` bytes.
Buffer structuredHeader(int flags, int typeHigh, int type, int length) {
  return bytesOf({0x66, 0x8e, 0x33, 0xef, 0, flags, typeHigh, type, 1,           2,
                  3,    4,    5,    6,    7, 8,     0,        0,    length >> 8, length & 0xff});
}
Buffer extendedHeader(int flags, int typeHigh, int type, int length) {
  return bytesOf(
      {0x6e, 0x8a, 0x27, 0x8c, 0, flags, typeHigh, type, 1, 2, 3, 4, 5, 6, 7,           8,
       0,    0,    0,    0,    0, 0,     0x11,     0x22, 0, 0, 0, 0, 0, 0, length >> 8, length & 0xff});
}

TEST(ReplyEncoder, SuccessHasKnownBytes) {
  const Buffer simpleSuccess = bytesOf({0x67, 0x44, 0x66, 0x98, 0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8});
  const auto success = [](const ReplyEncoder& encoder, const Request& answered) {
    return stored([&](std::span<std::byte> room) { return encoder.success(room, answered); });
  };
  EXPECT_EQ(success(simple, request), simpleSuccess);
  EXPECT_EQ(success(simple, writeRequest), simpleSuccess);
  EXPECT_EQ(success(structured, request), structuredHeader(1, 0, 0, 0)) << "a READ of nothing";
  EXPECT_EQ(success(structured, writeRequest), simpleSuccess);
  EXPECT_EQ(success(extended, request), extendedHeader(1, 0, 0, 0));
  EXPECT_EQ(success(extended, writeRequest), extendedHeader(1, 0, 0, 0)) << "never a simple reply";
}

TEST(ReplyEncoder, DataHeaderHasKnownBytes) {
  const auto header = [](const ReplyEncoder& encoder) {
    const Buffer bytes = stored(
        [&](std::span<std::byte> room) { return encoder.dataHeader(room, request, done, 0x200, 0x1000); });
    EXPECT_EQ(bytes.size(), encoder.dataHeaderSize());
    return bytes;
  };
  const Buffer offset = bytesOf({0, 0, 0, 0, 0, 0, 2, 0});
  EXPECT_EQ(header(simple), bytesOf({0x67, 0x44, 0x66, 0x98, 0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(header(structured), Wire::join({structuredHeader(1, 0, 1, 0x1008), offset}));
  EXPECT_EQ(header(extended), Wire::join({extendedHeader(1, 0, 1, 0x1008), offset}));
}

TEST(ReplyEncoder, HoleHasKnownBytes) {
  const auto hole = [](const ReplyEncoder& encoder) {
    const Buffer bytes =
        stored([&](std::span<std::byte> room) { return encoder.hole(room, request, 0, 0x200, 0x1000); });
    EXPECT_EQ(bytes.size(), encoder.holeSize());
    return bytes;
  };
  const Buffer payload = bytesOf({0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0x10, 0});
  EXPECT_EQ(hole(structured), Wire::join({structuredHeader(0, 0, 2, 12), payload}));
  EXPECT_EQ(hole(extended), Wire::join({extendedHeader(0, 0, 2, 12), payload}));
  EXPECT_EQ(Nbd::decodeOffsetHole(payload), (Nbd::Hole{.offset = 0x200, .length = 0x1000}));
}

TEST(ReplyEncoder, BlockStatusHasKnownBytes) {
  const Extent extents[] = {{.length = 0x1000, .status = 0}, {.length = 0x200, .status = 3}};
  const auto status = [&](const ReplyEncoder& encoder) {
    const Buffer bytes = stored(
        [&](std::span<std::byte> room) { return encoder.blockStatus(room, request, done, 1, extents); });
    EXPECT_EQ(bytes.size(), encoder.blockStatusSize(2));
    return bytes;
  };
  EXPECT_EQ(status(structured),
            Wire::join({structuredHeader(1, 0, 5, 20),
                        bytesOf({0, 0, 0, 1, 0, 0, 0x10, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 3})}));
  EXPECT_EQ(status(extended),
            Wire::join({extendedHeader(1, 0, 6, 40), bytesOf({0, 0, 0, 1, 0, 0, 0, 2}),
                        Wire::number<std::uint64_t>(0x1000), Wire::number<std::uint64_t>(0),
                        Wire::number<std::uint64_t>(0x200), Wire::number<std::uint64_t>(3)}));
}

TEST(ReplyEncoder, FailureHasKnownBytes) {
  const auto failure = [](const ReplyEncoder& encoder, std::string_view message,
                          std::optional<std::uint64_t> offset = std::nullopt) {
    return stored([&](std::span<std::byte> room) {
      return encoder.failure(room, request, Error::io, message, offset);
    });
  };
  const Buffer bad = bytesOf({0, 0, 0, 5, 0, 3, 'b', 'a', 'd'});
  const Buffer silent = bytesOf({0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0});
  EXPECT_EQ(failure(simple, "bad", 7), bytesOf({0x67, 0x44, 0x66, 0x98, 0, 0, 0, 5, 1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(failure(structured, "bad"), Wire::join({structuredHeader(1, 0x80, 1, 9), bad}));
  EXPECT_EQ(failure(extended, "bad"), Wire::join({extendedHeader(1, 0x80, 1, 9), bad}));
  EXPECT_EQ(failure(structured, "", 0x200), Wire::join({structuredHeader(1, 0x80, 2, 14), silent}));
  EXPECT_EQ(failure(extended, "", 0x200), Wire::join({extendedHeader(1, 0x80, 2, 14), silent}));
}

TEST(ReplyEncoder, LongMessagesAreCutBetweenCharacters) {
  std::string message(Nbd::maxErrorMessageSent - 1, 'x');
  message += "\xe2\x82\xac";
  std::array<std::byte, ReplyEncoder::maxVerdictSize> bytes{};
  for (const ReplyEncoder& encoder : {structured, extended}) {
    const std::size_t header = encoder.dataHeaderSize() - Nbd::offsetSize;  // that of any chunk
    const std::size_t size = encoder.failure(bytes, request, Error::io, message, 7);
    const auto error =
        Nbd::decodeError(ReplyChunk::errorOffset, Nbd::Bytes(bytes).first(size).subspan(header));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->message, std::string(Nbd::maxErrorMessageSent - 1, 'x'));
    EXPECT_EQ(error->offset, 7U);
  }
}

TEST(ReplyEncoderDeath, BreakingThePromiseEndsTheProgram) {
  std::array<std::byte, ReplyEncoder::maxVerdictSize> bytes{};
  EXPECT_DEATH(structured.failure(bytes, request, Error::none), "");
  EXPECT_DEATH(structured.blockStatus(bytes, request, 0, 1, {}), "");
  const std::vector<Extent> many(64, Extent{.length = 512, .status = 0});
  EXPECT_DEATH(structured.blockStatus(bytes, request, 0, 1, many), "") << "the extents need more room";
  const std::vector<Extent> large(1, Extent{.length = std::uint64_t{1} << 32, .status = 0});
  EXPECT_DEATH(structured.blockStatus(bytes, request, 0, 1, large), "") << "the extent needs more bits";
  EXPECT_GT(extended.blockStatus(bytes, request, 0, 1, large), 0U);
}

// The header of a whole chunk, as a client reads it, and the payload behind.
struct Received {
  std::optional<ChunkHeader> header;
  Nbd::Bytes payload;

  Received(HeaderStyle headers, Nbd::Bytes bytes) {
    if (headers == HeaderStyle::extended) {
      header = Nbd::decodeExtendedChunkHeader(bytes.first<Nbd::extendedChunkHeaderSize>());
      payload = bytes.subspan(Nbd::extendedChunkHeaderSize);
    } else {
      header = Nbd::decodeChunkHeader(bytes.first<Nbd::chunkHeaderSize>());
      payload = bytes.subspan(Nbd::chunkHeaderSize);
    }
  }
};

HeaderStyle anyChunkStyle() { return *rc::gen::element(HeaderStyle::structured, HeaderStyle::extended); }

RC_GTEST_PROP(ReplyProperty, BlockStatusSurvivesTheWire, (std::uint32_t context, bool isLast)) {
  const HeaderStyle headers = anyChunkStyle();
  const std::uint64_t mask = headers == HeaderStyle::extended ? ~std::uint64_t{0} : 0xffff'ffff;
  const auto pairs = *rc::gen::nonEmpty<std::vector<std::pair<std::uint64_t, std::uint64_t>>>();
  std::vector<Extent> extents;
  for (const auto& [length, status] : pairs)
    extents.push_back({.length = std::max<std::uint64_t>(length & mask, 1), .status = status & mask});
  const ReplyEncoder encoder(headers);
  Buffer bytes(encoder.blockStatusSize(extents.size()));
  const std::uint16_t flags = isLast ? done : std::uint16_t{0};
  RC_ASSERT(encoder.blockStatus(bytes, request, flags, context, extents) == bytes.size());
  const Received received(headers, bytes);
  RC_ASSERT(received.header.has_value());
  RC_ASSERT(received.header->isDone() == isLast);
  RC_ASSERT(received.header->length == received.payload.size());
  std::vector<Extent> decoded;
  RC_ASSERT(Nbd::decodeBlockStatus(received.header->type, received.payload, decoded) == context);
  RC_ASSERT(decoded == extents);
}

RC_GTEST_PROP(ReplyProperty, FailuresSurviveTheWire,
              (std::uint32_t number, bool hasOffset, std::uint64_t position, std::uint64_t requestOffset)) {
  const HeaderStyle headers = anyChunkStyle();
  const auto offset = hasOffset ? std::optional(position) : std::nullopt;
  const auto message = *rc::gen::container<std::string>(rc::gen::inRange('a', 'z'));
  RC_PRE(number != 0 && message.size() <= Nbd::maxErrorMessageSent);
  std::array<std::byte, ReplyEncoder::maxVerdictSize> bytes{};
  const auto sent = static_cast<Error>(number);
  const Request answered{.cookie = 77, .offset = requestOffset};
  const std::size_t size = ReplyEncoder(headers).failure(bytes, answered, sent, message, offset);
  const Received received(headers, Nbd::Bytes(bytes).first(size));
  RC_ASSERT(received.header.has_value());
  RC_ASSERT(received.header->isError());
  RC_ASSERT(received.header->cookie == 77U);
  RC_ASSERT(received.header->requestOffset == (headers == HeaderStyle::extended ? requestOffset : 0U));
  RC_ASSERT(received.header->length == received.payload.size());
  const auto error = Nbd::decodeError(received.header->type, received.payload);
  RC_ASSERT(error.has_value());
  RC_ASSERT(error->error == sent);
  RC_ASSERT(error->message == message);
  RC_ASSERT(error->offset == offset);
}

}  // namespace
