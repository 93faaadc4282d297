#include "nbd/request.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <array>
#include <vector>

namespace {

using Nbd::Command;
using Nbd::HeaderStyle;
using Nbd::Request;

template <std::size_t size>
constexpr auto bytesOf(const unsigned char (&values)[size]) {
  std::array<std::byte, size> bytes{};
  for (std::size_t index = 0; index < bytes.size(); ++index) bytes[index] = std::byte{values[index]};
  return bytes;
}

constexpr auto writeBytes = bytesOf({0x25, 0x60, 0x95, 0x13,                          // magic
                                     0x00, 0x01,                                      // FUA
                                     0x00, 0x01,                                      // WRITE
                                     0x63, 0x6f, 0x6f, 0x6b, 0x69, 0x65, 0x21, 0x21,  // cookie
                                     0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x02, 0x00,  // offset
                                     0x00, 0x00, 0x10, 0x00});                        // length
const Request writeRequest{.flags = Nbd::CommandFlag::fua,
                           .type = Command::write,
                           .cookie = 0x636f6f6b69652121,
                           .offset = 0x1'0000'0200,
                           .length = 4096};

TEST(Request, DecodesKnownBytes) { EXPECT_EQ(Nbd::decodeRequest(writeBytes), writeRequest); }

TEST(Request, EncodesKnownBytes) {
  std::array<std::byte, Nbd::requestSize> bytes{};
  Nbd::encodeRequest(bytes, writeRequest);
  EXPECT_EQ(bytes, writeBytes);
}

TEST(Request, WrongMagicIsNoRequest) {
  for (std::size_t index = 0; index < 4; ++index) {
    auto bytes = writeBytes;
    bytes[index] ^= std::byte{1};
    EXPECT_EQ(Nbd::decodeRequest(bytes), std::nullopt) << index;
  }
}

constexpr auto extendedTrimBytes = bytesOf({0x21, 0xe4, 0x1c, 0x71,                            // magic
                                            0x00, 0x01,                                        // FUA
                                            0x00, 0x04,                                        // TRIM
                                            0x63, 0x6f, 0x6f, 0x6b, 0x69, 0x65, 0x21, 0x21,    // cookie
                                            0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x02, 0x00,    // offset
                                            0x00, 0x00, 0x08, 0x00, 0x00, 0x00, 0x10, 0x00});  // length
const Request extendedTrim{.flags = Nbd::CommandFlag::fua,
                           .type = Command::trim,
                           .cookie = 0x636f6f6b69652121,
                           .offset = 0x1'0000'0200,
                           .length = 0x800'0000'1000};

TEST(ExtendedRequest, DecodesKnownBytes) {
  EXPECT_EQ(Nbd::decodeExtendedRequest(extendedTrimBytes), extendedTrim);
}

TEST(ExtendedRequest, EncodesKnownBytes) {
  std::array<std::byte, Nbd::extendedRequestSize> bytes{};
  Nbd::encodeExtendedRequest(bytes, extendedTrim);
  EXPECT_EQ(bytes, extendedTrimBytes);
}

TEST(ExtendedRequest, WrongMagicIsNoRequest) {
  for (std::size_t index = 0; index < 4; ++index) {
    auto bytes = extendedTrimBytes;
    bytes[index] ^= std::byte{1};
    EXPECT_EQ(Nbd::decodeExtendedRequest(bytes), std::nullopt) << index;
  }
  auto bytes = extendedTrimBytes;
  std::ranges::copy(std::span(writeBytes).first<4>(), bytes.begin());
  EXPECT_EQ(Nbd::decodeExtendedRequest(bytes), std::nullopt) << "the magic of a compact request";
}

TEST(RequestDeath, ALengthThatDoesNotFitEndsTheProgram) {
  std::array<std::byte, Nbd::requestSize> bytes{};
  EXPECT_DEATH(Nbd::encodeRequest(bytes, extendedTrim), "");
}

TEST(Request, OnlyWritesCarryData) {
  for (std::uint16_t type = 0; type < 16; ++type) {
    for (const std::uint16_t flags : {std::uint16_t{0}, Nbd::CommandFlag::payloadLength}) {
      const Request request{.flags = flags, .type = static_cast<Command>(type), .length = 77};
      EXPECT_EQ(Nbd::payloadLength(request, HeaderStyle::simple), type == 1 ? 77U : 0U) << type;
      EXPECT_EQ(Nbd::payloadLength(request, HeaderStyle::structured), type == 1 ? 77U : 0U) << type;
    }
  }
}

TEST(ExtendedRequest, CarriesDataWhereItSaysSo) {
  for (std::uint16_t type = 0; type < 16; ++type) {
    Request request{.type = static_cast<Command>(type), .length = 77};
    EXPECT_EQ(Nbd::payloadLength(request, HeaderStyle::extended), 0U) << type;
    request.flags = Nbd::CommandFlag::payloadLength | Nbd::CommandFlag::fua;
    EXPECT_EQ(Nbd::payloadLength(request, HeaderStyle::extended), 77U) << type;
  }
  EXPECT_EQ(Nbd::plainFlags(Command::write, HeaderStyle::extended), Nbd::CommandFlag::payloadLength);
  EXPECT_EQ(Nbd::plainFlags(Command::write, HeaderStyle::structured), 0);
  EXPECT_EQ(Nbd::plainFlags(Command::read, HeaderStyle::extended), 0);
}

const Request filteredStatus{.flags = Nbd::CommandFlag::payloadLength | Nbd::CommandFlag::reqOne,
                             .type = Command::blockStatus,
                             .cookie = 5,
                             .offset = 4096,
                             .length = 12};

TEST(StatusFilter, HasKnownBytesAndBecomesAPlainRequest) {
  constexpr std::uint32_t ids[] = {7};
  std::array<std::byte, Nbd::statusFilterSize(1)> bytes{};
  Nbd::encodeStatusFilter(bytes, 0x800'0000'1000, ids);
  constexpr unsigned char expected[] = {0, 0, 8, 0, 0, 0, 0x10, 0, 0, 0, 0, 7};
  EXPECT_TRUE(std::ranges::equal(bytes, std::as_bytes(std::span(expected))));
  EXPECT_EQ(Nbd::applyStatusFilter(filteredStatus, bytes, 7), (Request{.flags = Nbd::CommandFlag::reqOne,
                                                                       .type = Command::blockStatus,
                                                                       .cookie = 5,
                                                                       .offset = 4096,
                                                                       .length = 0x800'0000'1000}));
}

TEST(StatusFilter, NamesTheSelectedContextOnce) {
  const auto isAccepted = [](std::vector<std::uint32_t> ids, std::size_t cut = 0) {
    std::vector<std::byte> bytes(Nbd::statusFilterSize(ids.size()));
    Nbd::encodeStatusFilter(bytes, 512, ids);
    return Nbd::applyStatusFilter(filteredStatus, Nbd::Bytes(bytes).first(bytes.size() - cut), 7).has_value();
  };
  EXPECT_TRUE(isAccepted({7}));
  EXPECT_FALSE(isAccepted({8})) << "unknown";
  EXPECT_FALSE(isAccepted({})) << "none";
  EXPECT_FALSE(isAccepted({7, 7})) << "twice";
  EXPECT_FALSE(isAccepted({7, 8}));
  for (std::size_t cut = 1; cut <= 12; ++cut) EXPECT_FALSE(isAccepted({7}, cut)) << cut;
}

RC_GTEST_PROP(RequestProperty, DecodeUndoesEncode,
              (std::uint16_t flags, std::uint16_t type, std::uint64_t cookie, std::uint64_t offset,
               std::uint32_t length)) {
  const Request request{flags, static_cast<Command>(type), cookie, offset, length};
  std::array<std::byte, Nbd::requestSize> bytes{};
  Nbd::encodeRequest(bytes, request);
  RC_ASSERT(Nbd::decodeRequest(bytes) == request);
}

RC_GTEST_PROP(RequestProperty, ExtendedDecodeUndoesEncode,
              (std::uint16_t flags, std::uint16_t type, std::uint64_t cookie, std::uint64_t offset,
               std::uint64_t length)) {
  const Request request{flags, static_cast<Command>(type), cookie, offset, length};
  std::array<std::byte, Nbd::extendedRequestSize> bytes{};
  Nbd::encodeExtendedRequest(bytes, request);
  RC_ASSERT(Nbd::decodeExtendedRequest(bytes) == request);
}

}  // namespace
