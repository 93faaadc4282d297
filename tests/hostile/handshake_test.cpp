#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "nbd/limits.h"
#include "tests/hostile/hostile_fixture.h"

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using Hostile::HostileTest;
using Nbd::Error;
using Nbd::Option;
using Nbd::ReplyType;
using Wire::Buffer;
using Wire::RawClient;

constexpr auto unheardOf = static_cast<Option>(0x5a5a'5a5a);

class HostileHandshake : public HostileTest {};

TEST_F(HostileHandshake, UnknownOptionsAreRefusedAndPassedOver) {
  RawClient client = negotiate();
  EXPECT_EQ(client.ask(unheardOf), ReplyType::unsupported);
  EXPECT_EQ(client.ask(unheardOf, Buffer(1000)), ReplyType::unsupported);
  EXPECT_EQ(client.ask(Option::startTls), ReplyType::unsupported);
  EXPECT_EQ(client.ask(Option::peekExport), ReplyType::unsupported);
  EXPECT_EQ(client.ask(Option::list), ReplyType::ack);
  EXPECT_EQ(client.ask(Option::abort), ReplyType::ack);
  EXPECT_TRUE(client.isClosedByServer());
}

TEST_F(HostileHandshake, OversizeOptionsArePassedOverWithoutBeingHeld) {
  RawClient client = negotiate();
  EXPECT_EQ(client.ask(unheardOf, Buffer(Nbd::maxOptionDrained)), ReplyType::unsupported);
  EXPECT_EQ(client.ask(Option::go, Buffer(Nbd::maxOptionLength + 1)), ReplyType::tooBig);
  EXPECT_EQ(client.ask(Option::go, Wire::infoData(target_.name)), ReplyType::ack);
  EXPECT_EQ(client.read(0, 512).second, Buffer(512));
}

TEST_F(HostileHandshake, AnnouncingTooMuchEndsTheConnection) {
  std::vector<RawClient> clients;
  for (int index = 0; index < 100; ++index) {
    clients.push_back(negotiate());
    clients.back().send(Wire::join({Wire::number(Nbd::optionMagic), Wire::number(Option::go),
                                    Wire::number(std::uint32_t{0xffff'ffff})}));
  }
  for (RawClient& client : clients) EXPECT_TRUE(client.isClosedByServer());
  expectMemoryBelow(32 * 1024);
}

TEST_F(HostileHandshake, ManyHalfOptionsTakeLittleMemory) {
  std::vector<RawClient> clients;
  const Buffer half = Wire::join({Wire::number(Nbd::optionMagic), Wire::number(Option::go),
                                  Wire::number(std::uint32_t{Nbd::maxOptionLength}), Buffer(1000)});
  for (int index = 0; index < 500; ++index) {
    clients.push_back(negotiate());
    clients.back().send(half);
  }
  EXPECT_EQ(enter().read(0, 512).first, Error::none);
  expectMemoryBelow(64 * 1024);
}

TEST_F(HostileHandshake, NamesThatAreNoTextAreRefused) {
  RawClient client = negotiate();
  for (const std::string& name : {"target\0"s, "\0"s, "\xff\xfe"s, "\xc0\x80"s, std::string(4097, 'n')}) {
    EXPECT_EQ(client.ask(Option::go, Wire::infoData(name)), ReplyType::invalid)
        << testing::PrintToString(name);
    EXPECT_EQ(client.ask(Option::info, Wire::infoData(name)), ReplyType::invalid);
    RawClient blunt = negotiate();
    blunt.send(Wire::option(Option::exportName, Wire::text(name)));
    EXPECT_EQ(blunt.receiveToEnd(), Buffer()) << testing::PrintToString(name);
  }
  EXPECT_EQ(client.ask(Option::go, Wire::infoData("../target")), ReplyType::unknown) << "a name is no path";
  EXPECT_EQ(client.ask(Option::go, Wire::infoData(target_.file.string())), ReplyType::unknown);
  EXPECT_EQ(client.ask(Option::go, Wire::infoData(target_.name)), ReplyType::ack);
}

TEST_F(HostileHandshake, ExportNameOfAnUnknownNameEndsTheConnection) {
  for (const char* name :
       {"nothing", "", "targe", "target2"}) {  // two exports: the empty name is none of them
    RawClient client = negotiate();
    client.send(Wire::option(Option::exportName, Wire::text(name)));
    EXPECT_EQ(client.receiveToEnd(), Buffer()) << name;
  }
}

TEST_F(HostileHandshake, ZeroesAreLeftOutOnlyWhenBothAgree) {
  for (const bool noZeroes : {true, false}) {
    RawClient client = connect();
    ASSERT_EQ(client.receiveGreeting(), Nbd::HandshakeFlag::fixedNewstyle | Nbd::HandshakeFlag::noZeroes);
    client.send(Wire::clientFlags(noZeroes ? 3 : 1));
    client.send(Wire::option(Option::exportName, Wire::text(target_.name)));
    const Buffer size = client.receive(8);
    EXPECT_EQ(size, Wire::number(targetSize));
    client.receive(2);
    if (!noZeroes) {
      EXPECT_EQ(client.receive(124), Buffer(124));
    }
    EXPECT_EQ(client.read(0, 512).second, Buffer(512));
  }
}

TEST_F(HostileHandshake, UnknownClientFlagsEndTheConnection) {
  for (const std::uint32_t flags : {4U, 0x8000'0003U, 0xffff'ffffU}) {
    RawClient client = connect();
    client.receiveGreeting();
    client.send(Wire::clientFlags(flags));
    EXPECT_EQ(client.receiveToEnd(), Buffer());
  }
}

TEST_F(HostileHandshake, WrongMagicEndsTheConnection) {
  RawClient client = negotiate();
  client.send(Wire::text("GET / HTTP/1.1\r\n\r\n"));
  EXPECT_EQ(client.receiveToEnd(), Buffer());
}

TEST_F(HostileHandshake, ByteByByteIsAsGoodAsAtOnce) {
  RawClient client = connect();
  client.receiveGreeting();
  const Buffer words = Wire::join({Wire::clientFlags(), Wire::option(Option::structuredReply),
                                   Wire::option(Option::go, Wire::infoData(target_.name))});
  for (const std::byte& byte : words) {
    client.send({&byte, 1});
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_EQ(client.receiveOptionReply().type, ReplyType::ack);
  EXPECT_EQ(client.receiveOptionReply().type, ReplyType::info);
  EXPECT_EQ(client.receiveOptionReply().type, ReplyType::ack);
}

TEST_F(HostileHandshake, EverythingInOneSegmentIsAsGoodAsOneByOne) {
  RawClient client = connect();
  Buffer request(Nbd::requestSize);
  Nbd::encodeRequest(std::span(request).first<Nbd::requestSize>(),
                     {.cookie = 77, .offset = 0, .length = 512});
  client.send(Wire::join({Wire::clientFlags(), Wire::option(Option::list),
                          Wire::option(Option::go, Wire::infoData(target_.name)), request}));
  client.receiveGreeting();
  for (const Option expected : {Option::list, Option::list, Option::list, Option::go, Option::go}) {
    EXPECT_EQ(client.receiveOptionReply().option, expected);
  }
  EXPECT_EQ(client.receiveSimpleReply(), (Nbd::SimpleReply{.error = Error::none, .cookie = 77}));
  EXPECT_EQ(client.receive(512), Buffer(512));
}

// Whoever asks for listings and never reads them is not listened to any more, and costs little.
TEST_F(HostileHandshake, ListingsThatNobodyReadsComeToAHalt) {
  std::vector<RawClient> clients;
  const Buffer list = Wire::option(Option::list);
  Buffer many;
  for (int index = 0; index < 1000; ++index) many.insert(many.end(), list.begin(), list.end());
  for (int index = 0; index < 20; ++index) {
    RawClient client(nbdd_.port(), 4096);
    client.receiveGreeting();
    client.send(Wire::clientFlags());
    for (int turn = 0; turn < 10; ++turn) client.sendWithoutWaiting(many);
    clients.push_back(std::move(client));
  }
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(enter().read(0, 512).first, Error::none);
  expectMemoryBelow(64 * 1024);
}

// A handshake must end in time, however busy the client looks.
TEST_F(HostileHandshake, OnesThatTakeForeverAreEnded) {
  RawClient silent = connect();
  RawClient half = negotiate();
  half.send(Wire::text("IHAVE"));
  RawClient busy = negotiate();
  std::vector<RawClient> crowd;
  for (int index = 0; index < 200; ++index) crowd.push_back(connect());
  bool busyWasEnded = false;
  for (int second = 0; second < 40 && !busyWasEnded; ++second) {
    std::this_thread::sleep_for(1s);
    try {
      EXPECT_EQ(busy.ask(unheardOf), ReplyType::unsupported);
    } catch (const Wire::Disappointment&) {
      EXPECT_GT(second, 20) << "an honest client on a slow line needs some time";
      busyWasEnded = true;
    }
  }
  EXPECT_TRUE(busyWasEnded);
  EXPECT_TRUE(silent.isClosedByServer());
  EXPECT_TRUE(half.isClosedByServer());
  for (RawClient& client : crowd) EXPECT_TRUE(client.isClosedByServer());
}

}  // namespace
