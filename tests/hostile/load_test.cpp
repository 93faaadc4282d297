#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

#include "nbd/limits.h"
#include "tests/hostile/hostile_fixture.h"

namespace {

using namespace std::chrono_literals;
using Hostile::HostileTest;
using Nbd::Command;
using Nbd::Error;
using Nbd::Option;
using Wire::Buffer;
using Wire::RawClient;

constexpr std::uint32_t mebibyte = 1024 * 1024;

class HostileLoad : public HostileTest {};

TEST_F(HostileLoad, AThousandConnectionsAreServedAndForgotten) {
  std::vector<RawClient> clients;
  for (int index = 0; index < 1000; ++index) clients.push_back(enter());
  std::uint64_t offset = 0;
  for (RawClient& client : clients) {
    EXPECT_EQ(client.write(offset, Buffer(512, std::byte{1})), Error::none);
    offset += 512;
  }
  for (RawClient& client : clients) EXPECT_EQ(client.read(0, 512).second, Buffer(512, std::byte{1}));
  expectMemoryBelow(128 * 1024);
  // A third each: goodbye, a closed stream, a broken one.
  for (std::size_t index = 0; index < clients.size(); ++index) {
    if (index % 3 == 0) clients[index].disconnect();
    if (index % 3 == 1) clients[index].close();
    if (index % 3 == 2) clients[index].reset();
  }
}

// Clients that ask for data and never take it: no more of their requests is begun than fits a bounded queue.
TEST_F(HostileLoad, ReadersThatNeverReadComeToAHalt) {
  std::vector<RawClient> clients;
  Buffer words;
  for (std::uint64_t cookie = 0; cookie < 2000; ++cookie) {
    Buffer request(Nbd::requestSize);
    Nbd::encodeRequest(std::span(request).first<Nbd::requestSize>(),
                       {.cookie = cookie, .offset = cookie % 32 * mebibyte, .length = mebibyte});
    words.insert(words.end(), request.begin(), request.end());
  }
  for (int index = 0; index < 32; ++index) {
    RawClient client(nbdd_.port(), 4096);
    client.enter(target_.name, {.structuredReplies = index % 2 == 0});
    client.sendWithoutWaiting(words);
    clients.push_back(std::move(client));
  }
  for (int look = 0; look < 10; ++look) {
    std::this_thread::sleep_for(100ms);
    expectMemoryBelow(400 * 1024);
  }
  EXPECT_EQ(enter().read(0, 4096).first, Error::none);
}

TEST_F(HostileLoad, RandomBytesDoNoHarm) {
  const auto seed = static_cast<unsigned int>(std::random_device()());
  RecordProperty("seed", static_cast<int>(seed));
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> byte(0, 255);
  std::uniform_int_distribution<std::size_t> length(1, 5000);
  for (int turn = 0; turn < 300; ++turn) {
    RawClient client = turn % 3 == 0 ? connect() : turn % 3 == 1 ? negotiate() : enter();
    Buffer noise(length(random));
    for (std::byte& each : noise) each = static_cast<std::byte>(byte(random));
    client.sendWithoutWaiting(noise);
    if (turn % 2 == 0) {
      client.endSending();
      EXPECT_TRUE(client.isClosedByServer());
    } else {
      client.reset();
    }
  }
  EXPECT_EQ(targetBytes(0, targetSize), Buffer(targetSize));
  expectMemoryBelow(64 * 1024);
}

// Connections that come and go as fast as they can, at every stage.
TEST_F(HostileLoad, ComingAndGoingLeavesNothingBehind) {
  for (int turn = 0; turn < 2000; ++turn) {
    RawClient client = connect();
    if (turn % 4 == 1) client.receiveGreeting();
    if (turn % 4 == 2) client.send(Wire::clientFlags());
    if (turn % 4 == 3) client.reset();
  }
  expectMemoryBelow(32 * 1024);
}

TEST_F(HostileLoad, RequestsWithoutEndBehindAFullQueueAreNotLost) {
  constexpr std::uint64_t count = 5000;
  RawClient client = enter();
  std::thread sender([&] {
    for (std::uint64_t cookie = 1; cookie <= count; ++cookie) {
      client.request({.type = Command::read, .cookie = cookie, .offset = 0, .length = 4096});
    }
  });
  std::vector<bool> answered(count + 1);
  for (std::uint64_t index = 0; index < count; ++index) {
    const Nbd::SimpleReply reply = client.receiveSimpleReply();
    ASSERT_EQ(reply.error, Error::none);
    ASSERT_TRUE(reply.cookie >= 1 && reply.cookie <= count && !answered[reply.cookie]);
    answered[reply.cookie] = true;
    client.receive(4096);
  }
  sender.join();
}

// A session that has ended still reads for a moment what the client sends. That must not take the others'
// time.
TEST_F(HostileLoad, AFloodBehindTheEndKeepsNobodyWaiting) {
  std::atomic<bool> finishing = false;
  std::vector<std::thread> flooders;
  for (int index = 0; index < 6; ++index) {
    flooders.emplace_back([&] {
      const Buffer flood(4 * mebibyte);
      while (!finishing) {
        RawClient client = connect();
        client.send(Wire::clientFlags(0xffff'ffff));
        // When nothing more is taken for a while, the server has had enough of it: the next one comes.
        for (int refusals = 0; !finishing && refusals < 50; ++refusals) {
          if (client.sendWithoutWaiting(flood) > 0) refusals = 0;
          if (refusals > 0) std::this_thread::sleep_for(1ms);
        }
      }
    });
  }
  std::this_thread::sleep_for(4s);
  finishing = true;
  for (std::thread& flooder : flooders) flooder.join();
}

// Options by the thousand, all in one go, from many at once: each is answered, and between them so are
// others.
TEST_F(HostileLoad, ManyOptionsAtOnceKeepNobodyWaiting) {
  Buffer many;
  for (int index = 0; index < 15'000; ++index) {
    const Buffer one = Wire::option(static_cast<Option>(77));
    many.insert(many.end(), one.begin(), one.end());
  }
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> talkers;
  for (int index = 0; index < 8; ++index) {
    talkers.emplace_back([&] {
      RawClient client = negotiate();
      std::thread sender([&] { client.send(many); });
      for (int reply = 0; reply < 15'000; ++reply) {
        EXPECT_EQ(client.receiveOptionReply().type, Nbd::ReplyType::unsupported);
      }
      sender.join();
    });
  }
  for (std::thread& talker : talkers) talker.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
}

/// The bystander moves a mebibyte at a time: memory that is shared with the attackers.
class HostileLoadBesideLargeTransfers : public HostileTest {
 protected:
  HostileLoadBesideLargeTransfers() : HostileTest(mebibyte) {}
};

/// Clients that announce writes of the largest size, send a little of them and then nothing.
std::vector<RawClient> announceAndStall(std::uint16_t port, const std::string& exportName) {
  std::vector<RawClient> clients;
  for (int index = 0; index < 64; ++index) {
    RawClient client(port);
    client.enter(exportName);
    client.request({.type = Command::write, .cookie = 1, .offset = 0, .length = Nbd::maxPayload},
                   Buffer(100));
    clients.push_back(std::move(client));
  }
  return clients;
}

TEST_F(HostileLoad, WritesThatNeverArriveKeepNobodyWaiting) {
  std::vector<RawClient> clients = announceAndStall(nbdd_.port(), target_.name);
  std::this_thread::sleep_for(2s);
  expectMemoryBelow(400 * 1024);
  for (RawClient& client : clients) client.reset();
}

// Off, and known to fail: memory for large payloads is reserved when a write is announced, so those who
// announce and stall keep large transfers of others waiting until they are cut off for stalling.
TEST_F(HostileLoadBesideLargeTransfers, WritesThatNeverArriveKeepNobodyWaiting) {
  std::vector<RawClient> clients = announceAndStall(nbdd_.port(), target_.name);
  std::this_thread::sleep_for(5s);
  for (RawClient& client : clients) client.reset();
}

TEST_F(HostileLoadBesideLargeTransfers, ReadersThatNeverReadKeepNobodyWaiting) {
  std::vector<RawClient> clients;
  for (int index = 0; index < 64; ++index) {
    RawClient client(nbdd_.port(), 4096);
    client.enter(target_.name);
    for (std::uint64_t cookie = 0; cookie < 16; ++cookie) {
      client.request({.type = Command::read, .cookie = cookie, .offset = 0, .length = Nbd::maxPayload});
    }
    clients.push_back(std::move(client));
  }
  std::this_thread::sleep_for(5s);
  expectMemoryBelow(1024 * 1024);
  for (RawClient& client : clients) client.reset();
}

}  // namespace
