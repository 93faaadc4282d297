#include "nbd/request.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <array>

namespace {

using Nbd::Command;
using Nbd::Request;

constexpr auto bytesOf(const unsigned char (&values)[Nbd::requestSize]) {
  std::array<std::byte, Nbd::requestSize> bytes{};
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

TEST(Request, OnlyWritesCarryData) {
  for (std::uint16_t type = 0; type < 16; ++type) {
    const Request request{.type = static_cast<Command>(type), .length = 77};
    EXPECT_EQ(Nbd::payloadLength(request), type == 1 ? 77U : 0U) << type;
  }
}

RC_GTEST_PROP(RequestProperty, DecodeUndoesEncode,
              (std::uint16_t flags, std::uint16_t type, std::uint64_t cookie, std::uint64_t offset,
               std::uint32_t length)) {
  const Request request{flags, static_cast<Command>(type), cookie, offset, length};
  std::array<std::byte, Nbd::requestSize> bytes{};
  Nbd::encodeRequest(bytes, request);
  RC_ASSERT(Nbd::decodeRequest(bytes) == request);
}

}  // namespace
