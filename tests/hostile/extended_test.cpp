#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <string>
#include <vector>

#include "nbd/limits.h"
#include "tests/hostile/hostile_fixture.h"

// Clients that agree on extended headers and then abuse them: lengths of 64 bits, and payloads where none
// belong.

namespace {

using Hostile::HostileTest;
using Nbd::Command;
using Nbd::Error;
using Nbd::Request;
using Wire::Buffer;
using Wire::RawClient;

constexpr std::uint64_t top = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint16_t withPayload = Nbd::CommandFlag::payloadLength;

class HostileExtended : public HostileTest {
 protected:
  [[nodiscard]] RawClient enterExtended() const {
    return enter({.allocationContext = true, .extendedHeaders = true});
  }

  /// Reads one error chunk and expects it to be the whole reply to `request`.
  static void expectError(RawClient& client, const Request& request, Error expected,
                          const std::string& which) {
    const RawClient::Chunk chunk = client.receiveChunk();
    EXPECT_EQ(chunk.header.cookie, request.cookie) << which;
    EXPECT_EQ(chunk.header.requestOffset, request.offset) << which;
    EXPECT_TRUE(chunk.header.isDone()) << which;
    ASSERT_TRUE(chunk.header.isError()) << which;
    const auto error = Nbd::decodeError(chunk.header.type, chunk.payload);
    ASSERT_TRUE(error.has_value()) << which;
    EXPECT_EQ(error->error, expected) << which;
  }

  /// Expects a connection that is in step: it answers a READ of zeroes with a hole.
  static void expectInStep(RawClient& client, const std::string& which) {
    client.request({.cookie = 0x57e9, .offset = 4096, .length = 4096});
    const RawClient::Chunk chunk = client.receiveChunk();
    EXPECT_EQ(chunk.header.cookie, 0x57e9U) << which;
    EXPECT_EQ(chunk.header.type, Nbd::ReplyChunk::offsetHole) << which;
  }
};

struct BadRequest {
  const char* name;
  Request request;
  Error expected;
};

const BadRequest badRequests[] = {
    {"read of all there could be", {.type = Command::read, .length = top}, Error::overflow},
    {"read whose length has a legal low half",
     {.type = Command::read, .length = (std::uint64_t{1} << 32) + 512},
     Error::overflow},
    {"trim of all there could be", {.type = Command::trim, .length = top}, Error::inval},
    {"trim with a wrapped sum", {.type = Command::trim, .offset = top - 511, .length = 1024}, Error::inval},
    {"zeroes of all there could be", {.type = Command::writeZeroes, .length = top}, Error::nospc},
    {"zeroes with a wrapped sum", {.type = Command::writeZeroes, .offset = 512, .length = top}, Error::nospc},
    {"status of all there could be", {.type = Command::blockStatus, .length = top}, Error::inval},
    {"status of nothing", {.type = Command::blockStatus, .length = 0}, Error::inval},
    {"cache of all there could be", {.type = Command::cache, .length = top}, Error::inval},
    {"flush with a length", {.type = Command::flush, .length = std::uint64_t{1} << 32}, Error::inval},
    {"write without payload", {.type = Command::write, .length = 4096}, Error::inval},
    {"write of nothing without payload", {.type = Command::write}, Error::inval},
    {"endless write without payload", {.type = Command::write, .length = top}, Error::inval},
    {"write with payload beyond the end",
     {.flags = withPayload, .type = Command::write, .offset = std::uint64_t{1} << 40, .length = 4096},
     Error::nospc},
    {"read with payload", {.flags = withPayload, .type = Command::read, .length = 4096}, Error::inval},
    {"trim with payload", {.flags = withPayload, .type = Command::trim, .length = 4096}, Error::inval},
    {"flush with payload", {.flags = withPayload, .type = Command::flush, .length = 4096}, Error::inval},
    {"cache with payload", {.flags = withPayload, .type = Command::cache, .length = 100'000}, Error::inval},
    {"zeroes with payload", {.flags = withPayload, .type = Command::writeZeroes, .length = 1}, Error::inval},
    {"read with the largest payload",
     {.flags = withPayload, .type = Command::read, .length = Nbd::maxPayload},
     Error::inval},
    {"unknown command with payload", {.flags = withPayload, .type = Command{9}, .length = 777}, Error::inval},
    {"status of an unknown context",
     {.flags = withPayload, .type = Command::blockStatus, .length = 12},
     Error::inval},
    {"status with half a context",
     {.flags = withPayload, .type = Command::blockStatus, .length = 10},
     Error::inval},
    {"status with a million contexts",
     {.flags = withPayload, .type = Command::blockStatus, .length = 8 + 4 * 1'000'000},
     Error::inval},
    {"status with an unknown flag",
     {.flags = withPayload | 1 << 6, .type = Command::blockStatus, .length = 12},
     Error::inval},
};

Buffer payloadOf(const Request& request) {
  return Buffer(Nbd::payloadLength(request, Nbd::HeaderStyle::extended), std::byte{0xee});
}

TEST_F(HostileExtended, BadRequestsGetTheirErrorAndNothingIsOutOfStep) {
  RawClient client = enterExtended();
  for (const BadRequest& row : badRequests) {
    client.request(row.request, payloadOf(row.request));
    expectError(client, row.request, row.expected, row.name);
    expectInStep(client, row.name);
  }
  EXPECT_EQ(targetBytes(0, targetSize), Buffer(targetSize));
  expectMemoryBelow(64 * 1024);
}

// All of them in one stream, cut into pieces that no request respects.
TEST_F(HostileExtended, AnySplitOfTheBytesGetsTheSameAnswers) {
  Buffer words;
  for (const BadRequest& row : badRequests) {
    if (payloadOf(row.request).size() > 200'000) continue;
    Buffer header(Nbd::extendedRequestSize);
    Nbd::encodeExtendedRequest(std::span(header).first<Nbd::extendedRequestSize>(), row.request);
    words = Wire::join({words, header, payloadOf(row.request)});
  }
  std::mt19937 random(20260101);
  for (const std::size_t largest : {std::size_t{7}, std::size_t{45}, std::size_t{5000}}) {
    RawClient client = enterExtended();
    std::uniform_int_distribution<std::size_t> piece(1, largest);
    const std::size_t most = largest < 100 ? 3000 : words.size();
    Nbd::Bytes rest(words);
    for (std::size_t sent = 0; !rest.empty();) {
      // A few thousand tiny pieces are enough, and would otherwise take minutes.
      const std::size_t size = std::min(rest.size(), sent < most ? piece(random) : rest.size());
      client.send(rest.first(size));
      rest = rest.subspan(size);
      sent += size;
    }
    for (const BadRequest& row : badRequests) {
      if (payloadOf(row.request).size() > 200'000) continue;
      expectError(client, row.request, row.expected, row.name);
    }
    expectInStep(client, "at the end");
  }
}

TEST_F(HostileExtended, AnnouncingMoreThanTheLargestPayloadEndsTheConnection) {
  for (const Command type : {Command::write, Command::read, Command::blockStatus, Command{9}}) {
    for (const std::uint64_t length : {std::uint64_t{Nbd::maxPayload} + 1, std::uint64_t{1} << 32, top}) {
      RawClient client = enterExtended();
      client.request({.flags = withPayload, .type = type, .cookie = 1, .length = length});
      EXPECT_EQ(client.receiveToEnd(), Buffer()) << static_cast<int>(type) << " of " << length;
    }
  }
  expectMemoryBelow(32 * 1024);
}

TEST_F(HostileExtended, ACompactRequestEndsTheConnection) {
  RawClient client = enterExtended();
  Buffer compact(Nbd::requestSize);
  Nbd::encodeRequest(std::span(compact).first<Nbd::requestSize>(), {.cookie = 1, .length = 512});
  client.send(Wire::join({compact, Buffer(100)}));
  EXPECT_EQ(client.receiveToEnd(), Buffer());
}

TEST_F(HostileExtended, AnExtendedRequestThatWasNotAgreedOnEndsTheConnection) {
  for (const bool isStructured : {false, true}) {
    RawClient client = enter({.structuredReplies = isStructured});
    Buffer request(Nbd::extendedRequestSize);
    Nbd::encodeExtendedRequest(std::span(request).first<Nbd::extendedRequestSize>(),
                               {.cookie = 1, .length = 512});
    client.send(request);
    EXPECT_EQ(client.receiveToEnd(), Buffer());
  }
}

TEST_F(HostileExtended, APayloadThatNeverArrivesIsNotWaitedForInMemory) {
  std::vector<RawClient> clients;
  for (int index = 0; index < 64; ++index) {
    clients.push_back(enterExtended());
    const Command type = index % 2 == 0 ? Command::write : Command::trim;
    clients.back().request({.flags = withPayload, .type = type, .cookie = 1, .length = Nbd::maxPayload},
                           Buffer(100));
  }
  expectMemoryBelow(64 * 1024);
  for (RawClient& client : clients) client.reset();
}

TEST_F(HostileExtended, HalfAFilterIsNoRequest) {
  RawClient client = enterExtended();
  client.request({.flags = withPayload, .type = Command::blockStatus, .cookie = 1, .length = 12}, Buffer(11));
  client.endSending();
  EXPECT_EQ(client.receiveToEnd(), Buffer());
}

TEST_F(HostileExtended, ExportNameBehindExtendedHeadersEndsTheConnection) {
  RawClient client = negotiate();
  ASSERT_EQ(client.ask(Nbd::Option::extendedHeaders), Nbd::ReplyType::ack);
  EXPECT_EQ(client.ask(Nbd::Option::structuredReply), Nbd::ReplyType::extendedHeadersRequired);
  client.send(Wire::option(Nbd::Option::exportName, Wire::text(target_.name)));
  EXPECT_EQ(client.receiveToEnd(), Buffer());
}

}  // namespace
