#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <map>
#include <thread>
#include <vector>

#include "nbd/limits.h"
#include "tests/hostile/hostile_fixture.h"

namespace {

using namespace std::chrono_literals;
using Hostile::HostileTest;
using Nbd::Command;
using Nbd::Error;
using Nbd::Request;
using Wire::Buffer;
using Wire::RawClient;

constexpr std::uint64_t top = std::numeric_limits<std::uint64_t>::max();

struct BadRequest {
  const char* name;
  Command type;
  std::uint16_t flags;
  std::uint64_t offset;
  std::uint32_t length;
  Error expected;
};

class HostileRequests : public HostileTest {
 protected:
  static constexpr BadRequest badRequests[] = {
      {"read beyond the end", Command::read, 0, targetSize, 1, Error::inval},
      {"read across the end", Command::read, 0, targetSize - 1, 2, Error::inval},
      {"read with a wrapped sum", Command::read, 0, top - 511, 1024, Error::inval},
      {"read of too much", Command::read, 0, 0, Nbd::maxPayload + 1, Error::overflow},
      {"read of everything", Command::read, 0, 0, 0xffff'ffff, Error::overflow},
      {"read with an unknown flag", Command::read, 1 << 14, 0, 512, Error::inval},
      {"read with a flag of another command", Command::read, Nbd::CommandFlag::noHole, 0, 512, Error::inval},
      {"write beyond the end", Command::write, 0, targetSize, 512, Error::nospc},
      {"write across the end", Command::write, 0, targetSize - 1, 512, Error::nospc},
      {"write with a wrapped sum", Command::write, 0, top, 512, Error::nospc},
      {"write with an unknown flag", Command::write, 1 << 5, 0, 512, Error::inval},
      {"write of too much", Command::write, 0, 0, Nbd::maxPayload + 1, Error::inval},
      {"flush with a length", Command::flush, 0, 0, 512, Error::inval},
      {"trim beyond the end", Command::trim, 0, targetSize - 512, 1024, Error::inval},
      {"trim with a wrapped sum", Command::trim, 0, top - 511, 0xffff'fe00, Error::inval},
      {"zeroes beyond the end", Command::writeZeroes, 0, 1, targetSize, Error::nospc},
      {"zeroes with an unknown flag", Command::writeZeroes, Nbd::CommandFlag::reqOne, 0, 512, Error::inval},
      {"cache beyond the end", Command::cache, 0, targetSize, 512, Error::inval},
      {"status without a context", Command::blockStatus, 0, 0, 512, Error::inval},
      {"an unknown command", Command{8}, 0, 0, 0, Error::inval},
      {"another unknown command", Command{0xffff}, 0xffff, top, 0xffff'ffff, Error::inval},
  };

  static Request wireRequest(const BadRequest& row, std::uint64_t cookie) {
    return {
        .flags = row.flags, .type = row.type, .cookie = cookie, .offset = row.offset, .length = row.length};
  }
  static Buffer payloadOf(const BadRequest& row) {
    return row.type == Command::write ? Buffer(row.length, std::byte{0xee}) : Buffer();
  }
  /// Awaits the end of all sessions of the target, and with them of all that they might still write.
  void awaitNoClients() {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (nbdd_.clientCount(target_) != 0 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(5ms);
    }
    ASSERT_EQ(nbdd_.clientCount(target_), 0U);
  }
};

TEST_F(HostileRequests, BadOnesGetTheirErrorInASimpleReply) {
  RawClient client = enter();
  std::uint64_t cookie = 0xabcd'0000'0000'0000;
  for (const BadRequest& row : badRequests) {
    client.request(wireRequest(row, ++cookie), payloadOf(row));
    EXPECT_EQ(client.receiveSimpleReply(), (Nbd::SimpleReply{.error = row.expected, .cookie = cookie}))
        << row.name;
    EXPECT_EQ(client.read(0, 512).second, Buffer(512)) << "behind: " << row.name;
  }
}

TEST_F(HostileRequests, BadOnesGetTheirErrorInAChunk) {
  RawClient client = enter({.structuredReplies = true});
  std::uint64_t cookie = 0;
  for (const BadRequest& row : badRequests) {
    client.request(wireRequest(row, ++cookie), payloadOf(row));
    const RawClient::Chunk chunk = client.receiveChunk();
    EXPECT_EQ(chunk.header.cookie, cookie);
    EXPECT_TRUE(chunk.header.isDone());
    ASSERT_TRUE(chunk.header.isError()) << row.name;
    const auto error = Nbd::decodeError(chunk.header.type, chunk.payload);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->error, row.expected) << row.name;
  }
}

TEST_F(HostileRequests, BadOnesChangeNothing) {
  RawClient client = enter();
  std::uint64_t cookie = 0;
  for (const BadRequest& row : badRequests) client.request(wireRequest(row, ++cookie), payloadOf(row));
  for (std::size_t index = 0; index < std::size(badRequests); ++index) client.receiveSimpleReply();
  client.disconnect();
  EXPECT_TRUE(client.isClosedByServer());
  EXPECT_EQ(targetBytes(0, targetSize), Buffer(targetSize));
  EXPECT_EQ(std::filesystem::file_size(target_.file), targetSize);
}

TEST_F(HostileRequests, AReadOnlyExportRefusesEveryChange) {
  const auto readOnly = nbdd_.publish("read-only", 1024 * 1024, true);
  RawClient client = connect();
  client.enter(readOnly.name);
  for (const Command type : {Command::write, Command::trim, Command::writeZeroes}) {
    const Buffer payload(type == Command::write ? 512 : 0, std::byte{0xee});
    client.request({.type = type, .cookie = 5, .offset = 0, .length = 512}, payload);
    EXPECT_EQ(client.receiveSimpleReply().error, Error::perm);
  }
  EXPECT_EQ(client.read(0, 512).second, Buffer(512));
}

TEST_F(HostileRequests, WrongMagicEndsTheConnection) {
  RawClient client = enter();
  EXPECT_EQ(client.write(0, Buffer(512, std::byte{1})), Error::none);
  client.send(Buffer(Nbd::requestSize, std::byte{0x25}));
  EXPECT_EQ(client.receiveToEnd(), Buffer());
}

TEST_F(HostileRequests, AnnouncingEndlessDataEndsTheConnection) {
  std::vector<RawClient> clients;
  for (int index = 0; index < 50; ++index) {
    clients.push_back(enter());
    clients.back().request({.type = Command::write, .cookie = 1, .offset = 0, .length = 0xffff'ffff});
  }
  for (RawClient& client : clients) EXPECT_TRUE(client.isClosedByServer());
  expectMemoryBelow(32 * 1024);
}

// Half the data of a write, then the end: nothing of it is written, whatever its size and however the client
// went.
TEST_F(HostileRequests, HalfAWriteIsNoWrite) {
  for (const std::uint32_t length : {512U, 4096U, 65'536U, 1024U * 1024U, Nbd::maxPayload}) {
    for (const bool isReset : {false, true}) {
      RawClient client = enter();
      client.request({.type = Command::write, .cookie = 1, .offset = 4096, .length = length});
      client.send(Buffer(length / 2, std::byte{0xee}));
      std::this_thread::sleep_for(20ms);
      isReset ? client.reset() : client.close();
      awaitNoClients();
      EXPECT_EQ(targetBytes(4096, length), Buffer(length)) << length;
    }
  }
  EXPECT_EQ(targetBytes(0, targetSize), Buffer(targetSize));
}

// All but the last byte, and then the client's side of the stream ends in order.
TEST_F(HostileRequests, AWriteThatLacksAByteIsNoWrite) {
  for (const std::uint32_t length : {512U, 65'536U, 1024U * 1024U}) {
    RawClient client = enter();
    client.request({.type = Command::write, .cookie = 1, .offset = 0, .length = length});
    client.send(Buffer(length - 1, std::byte{0xee}));
    client.endSending();
    EXPECT_EQ(client.receiveToEnd(), Buffer()) << "no reply to what did not arrive";
    awaitNoClients();
    EXPECT_EQ(targetBytes(0, length), Buffer(length));
  }
}

TEST_F(HostileRequests, DisconnectLetsRunningRequestsFinish) {
  constexpr std::uint32_t length = 64 * 1024;
  constexpr std::uint64_t count = 128;
  RawClient client = enter();
  Buffer words;
  Buffer request(Nbd::requestSize);
  for (std::uint64_t cookie = 1; cookie <= count; ++cookie) {
    const bool isWrite = cookie % 2 == 0;
    Nbd::encodeRequest(std::span(request).first<Nbd::requestSize>(),
                       {.type = isWrite ? Command::write : Command::read,
                        .cookie = cookie,
                        .offset = cookie * length,
                        .length = length});
    words = Wire::join({words, request, Buffer(isWrite ? length : 0, std::byte{0x77})});
  }
  Nbd::encodeRequest(std::span(request).first<Nbd::requestSize>(), {.type = Command::disconnect});
  words.insert(words.end(), request.begin(), request.end());
  std::thread sender([&] { client.send(words); });
  const Buffer replies = client.receiveToEnd();
  sender.join();

  std::map<std::uint64_t, Error> answered;
  Nbd::Reader reader(replies);
  while (const auto bytes = reader.bytes(Nbd::simpleReplySize)) {
    const auto reply = Nbd::decodeSimpleReply(bytes->first<Nbd::simpleReplySize>());
    ASSERT_TRUE(reply.has_value());
    answered[reply->cookie] = reply->error;
    if (reply->cookie % 2 == 1) {
      const auto data = reader.bytes(length);
      ASSERT_TRUE(data.has_value());
      EXPECT_EQ(Buffer(data->begin(), data->end()), Buffer(length));
    }
  }
  EXPECT_TRUE(reader.atEnd());
  EXPECT_EQ(answered.size(), count);
  for (const auto& [cookie, error] : answered) EXPECT_EQ(error, Error::none) << cookie;
  for (std::uint64_t cookie = 2; cookie <= count; cookie += 2) {
    EXPECT_EQ(targetBytes(cookie * length, length), Buffer(length, std::byte{0x77}));
  }
}

TEST_F(HostileRequests, NothingHappensToTheRequestBehindADisconnect) {
  RawClient client = enter();
  Buffer words(2 * Nbd::requestSize);
  Nbd::encodeRequest(std::span(words).first<Nbd::requestSize>(), {.type = Command::disconnect});
  Nbd::encodeRequest(std::span(words).last<Nbd::requestSize>(),
                     {.type = Command::write, .cookie = 1, .offset = 0, .length = 512});
  client.send(Wire::join({words, Buffer(512, std::byte{0xee})}));
  EXPECT_EQ(client.receiveToEnd(), Buffer());
  awaitNoClients();
  EXPECT_EQ(targetBytes(0, 512), Buffer(512));
}

TEST_F(HostileRequests, EmptyRequestsSucceed) {
  RawClient client = enter();
  for (const Command type :
       {Command::read, Command::write, Command::flush, Command::trim, Command::cache, Command::writeZeroes}) {
    client.request({.type = type, .cookie = 9, .offset = 0, .length = 0});
    EXPECT_EQ(client.receiveSimpleReply(), (Nbd::SimpleReply{.error = Error::none, .cookie = 9}))
        << static_cast<int>(type);
  }
  RawClient structured = enter({.structuredReplies = true});
  structured.request({.type = Command::read, .cookie = 9, .offset = 0, .length = 0});
  const RawClient::Chunk chunk = structured.receiveChunk();
  EXPECT_EQ(chunk.header.type, Nbd::ReplyChunk::none) << "there is no chunk of no data";
  EXPECT_TRUE(chunk.header.isDone());
}

// What others wrote or read must not shine through where nothing was written.
TEST_F(HostileRequests, HolesReadAsZeroesWhateverMemoryHeldBefore) {
  constexpr std::uint32_t length = 1024 * 1024;
  RawClient writer = enter();
  const Buffer secret(length, std::byte{0x5e});
  for (std::uint64_t index = 0; index < 8; ++index)
    EXPECT_EQ(writer.write(index * length, secret), Error::none);
  for (std::uint64_t index = 0; index < 8; ++index)
    EXPECT_EQ(writer.read(index * length, length).second, secret);
  for (std::uint64_t index = 8; index < 16; ++index) {
    EXPECT_EQ(writer.read(index * length, length).second, Buffer(length));
  }
}

}  // namespace
