#include "nbdd/tls/channel.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <future>
#include <random>
#include <string>
#include <vector>

#include "tests/tls/secured_pair.h"

namespace Nbdd::Tls {
namespace {

std::vector<std::byte> randomBytes(std::size_t size) {
  std::mt19937_64 random(size);
  std::vector<std::byte> bytes(size);
  std::ranges::generate(bytes, [&] { return static_cast<std::byte>(random()); });
  return bytes;
}

/// Sends all of it in pieces of changing sizes, waiting where it must, and then says that nothing more comes.
Io::Task<void> sendInPieces(Io::Stream& stream, std::vector<std::byte> bytes) {
  std::mt19937 random(1);
  std::span<const std::byte> rest = bytes;
  while (!rest.empty()) {
    const std::size_t wanted =
        std::min<std::size_t>(rest.size(), 1 + random() % (random() % 3 == 0 ? 100'000 : 300));
    const ssize_t count = stream.send(rest.first(wanted));
    if (count == -EAGAIN) {
      Io::Stream::Waiting writable = stream.writable();
      co_await writable;
    } else if (count < 0) {
      co_return;
    } else {
      rest = rest.subspan(static_cast<std::size_t>(count));
    }
  }
  while (!stream.flushed()) {
    Io::Stream::Waiting writable = stream.writable();
    co_await writable;
  }
  stream.endSending();
}

struct Received {
  std::vector<std::byte> bytes;
  ssize_t last = 1;  // what ended it: 0 or a negative errno
};

Io::Task<void> receiveInPieces(Io::Stream& stream, std::size_t most, Received& received) {
  std::mt19937 random(2);
  std::vector<std::byte> memory(most);
  for (;;) {
    const ssize_t count = stream.receive(std::span(memory).first(1 + random() % most));
    if (count == -EAGAIN) {
      Io::Stream::Waiting readable = stream.readable();
      co_await readable;
    } else if (count <= 0) {
      received.last = count;
      co_return;
    } else {
      received.bytes.insert(received.bytes.end(), memory.begin(), memory.begin() + count);
    }
  }
}

class Channels : public SecuredPair {
 protected:
  void SetUp() override {
    const auto [server, client] = shakeBoth(serverCredentials(), clientCredentials());
    ASSERT_TRUE(server.has_value()) << server.error();
    ASSERT_TRUE(client.has_value()) << client.error();
    EXPECT_EQ(server->version, "TLS1.3");
    EXPECT_EQ(server->cipher, "AES-128-GCM");
  }
};

TEST_F(Channels, CarryWhatIsSentHoweverItIsTaken) {
  const std::vector<std::byte> sent = randomBytes(200'000);
  Received received;
  scope_.spawn(sendInPieces(*server_, sent));
  scope_.spawn(receiveInPieces(*client_, 700, received));
  runAll();
  EXPECT_EQ(received.last, 0);
  EXPECT_TRUE(received.bytes == sent);
}

TEST_F(Channels, CarryLargePieces) {
  const std::vector<std::byte> sent = randomBytes(3'000'000);
  Received received;
  scope_.spawn(sendInPieces(*client_, sent));
  scope_.spawn(receiveInPieces(*server_, 300'000, received));
  runAll();
  EXPECT_EQ(received.last, 0);
  EXPECT_TRUE(received.bytes == sent);
}

Io::Task<void> sendFiles(Io::Stream& stream, int file, std::vector<std::byte> header, std::size_t size) {
  for (int round = 0; round < 20; ++round) {
    bool announced = false;
    std::uint64_t offset = 0;
    while (!announced || offset < size) {
      const ssize_t count =
          announced ? stream.sendFile(file, offset, size - offset) : stream.send(header, true);
      if (count == -EAGAIN) {
        Io::Stream::Waiting writable = stream.writable();
        co_await writable;
      } else if (count < 0) {
        co_return;
      } else if (announced) {
        offset += static_cast<std::uint64_t>(count);
      } else {
        announced = true;
      }
    }
  }
  while (!stream.flushed()) {
    Io::Stream::Waiting writable = stream.writable();
    co_await writable;
  }
  stream.endSending();
}

TEST_F(Channels, CarryFilesBehindTheirHeaders) {
  const std::vector<std::byte> content = randomBytes(200'123);
  const std::vector<std::byte> header = randomBytes(20);
  const std::string path = (directory_ / "file").native();
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
  const Io::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  Received received;
  scope_.spawn(sendFiles(*server_, file.number(), header, content.size()));
  scope_.spawn(receiveInPieces(*client_, 50'000, received));
  runAll();
  std::vector<std::byte> expected;
  for (int round = 0; round < 20; ++round) {
    expected.insert(expected.end(), header.begin(), header.end());
    expected.insert(expected.end(), content.begin(), content.end());
  }
  EXPECT_EQ(received.last, 0);
  EXPECT_TRUE(received.bytes == expected);
}

TEST_F(Channels, AFileThatHasBecomeShorterEndsTheConnection) {
  const std::string path = (directory_ / "short").native();
  std::ofstream(path) << "short";
  const Io::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(server_->sendFile(file.number(), 0, 1000), -EIO);
  const std::vector<std::byte> more(1);
  EXPECT_EQ(server_->send(more), -EIO);
}

TEST_F(Channels, AnEndThatTlsDoesNotTellOfIsAnError) {
  const std::vector<std::byte> some(10);
  EXPECT_EQ(server_->send(some), 10);
  server_->shutDown();  // as the network might
  Received received;
  scope_.spawn(receiveInPieces(*client_, 100, received));
  runAll();
  EXPECT_EQ(received.bytes.size(), 10U);
  EXPECT_EQ(received.last, -ECONNRESET);
}

TEST_F(Channels, WhatIsNotEncryptedByThePeerIsRefused) {
  const std::vector<std::byte> some(10);
  EXPECT_EQ(client_->send(some), 10);
  const std::vector<std::byte> forged(300, std::byte{0x17});
  EXPECT_EQ(client_->sendToSocket(forged), 300);
  Received received;
  scope_.spawn(receiveInPieces(*server_, 100, received));
  runAll();
  EXPECT_EQ(received.bytes.size(), 10U);
  EXPECT_EQ(received.last, -EPROTO);
  EXPECT_EQ(server_->send(some), -EPROTO);
}

TEST_F(Channels, BothEndsHaveOneBinding) {
  const std::vector<std::byte> binding = server_->channelBinding();
  EXPECT_EQ(binding.size(), 32U);
  EXPECT_EQ(client_->channelBinding(), binding);
}

using Handshakes = SecuredPair;

TEST_F(Handshakes, AStreamInTheClearHasNoBinding) { EXPECT_TRUE(server_->channelBinding().empty()); }

TEST_F(Handshakes, TheServerLearnsTheNameOfTheKey) {
  ServerSettings settings;
  settings.clients = {"alice"};
  const auto [server, client] = shakeBoth(serverCredentials(settings), clientCredentials());
  ASSERT_TRUE(server.has_value()) << server.error();
  EXPECT_EQ(server->names, std::vector<std::string>{"alice"});
  EXPECT_EQ(server->description(), "TLS1.3, AES-128-GCM, client alice");
}

TEST_F(Handshakes, AWrongKeyFails) {
  const auto [server, client] = shakeBoth(serverCredentials(), clientCredentials('b'));
  EXPECT_FALSE(server.has_value());
  EXPECT_FALSE(client.has_value());
}

TEST_F(Handshakes, AnUnknownNameFails) {
  const auto [server, client] = shakeBoth(serverCredentials(), clientCredentials('a', "mallory"));
  EXPECT_FALSE(server.has_value());
  EXPECT_FALSE(client.has_value());
}

TEST_F(Handshakes, WhoIsNotInTheListFails) {
  ServerSettings settings;
  settings.clients = {"bob"};
  const auto [server, client] = shakeBoth(serverCredentials(settings), clientCredentials());
  ASSERT_FALSE(server.has_value());
  EXPECT_EQ(server.error(), "none of its names is one of the clients that may come: alice");
}

TEST_F(Handshakes, BytesInTheClearFail) {
  const std::string words = "IHAVEOPT\0\0\0\3\0\0\0\0 and whatever else a client may say in the clear";
  ASSERT_GT(client_->send(std::as_bytes(std::span(words))), 0);
  std::optional<Shaken> server;
  scope_.spawn(shake(*server_, aside(), serverCredentials(), server));
  runAll();
  EXPECT_FALSE(server->has_value());
}

TEST_F(Handshakes, AClientThatGoesFails) {
  client_->shutDown();
  std::optional<Shaken> server;
  scope_.spawn(shake(*server_, aside(), serverCredentials(), server));
  runAll();
  ASSERT_FALSE(server->has_value());
  EXPECT_EQ(server->error(), "the other side has ended the connection");
}

TEST_F(Handshakes, AreInterruptedWithTheReading) {
  std::optional<Shaken> server;
  scope_.spawn(shake(*server_, aside(), serverCredentials(), server));
  loop_.post([this] { server_->interruptReading(); });
  runAll();
  EXPECT_FALSE(server->has_value());
}

// The deadline is due at once. Were it to run on while the handshake waits for the pool, it would have passed
// when a timer that was started later fires.
TEST_F(Handshakes, TheDeadlineStandsStillWhileTheyWaitForThePool) {
  std::promise<void> free;
  pool_.submit([&free] { free.get_future().wait(); });
  bool lateBefore = false;
  Io::Timer later(loop_, [&] {
    lateBefore = late_;
    free.set_value();
  });
  std::optional<Shaken> server;
  deadline_.start(std::chrono::nanoseconds(0));
  scope_.spawn(shake(*server_, aside(), serverCredentials(), server));
  later.start(std::chrono::nanoseconds(0));
  runAll();
  EXPECT_FALSE(lateBefore);
  // The rest of the handshake is the other side's, who says nothing.
  EXPECT_TRUE(late_);
  ASSERT_FALSE(server->has_value());
  EXPECT_EQ(server->error(), "it was given up");
}

TEST_F(Handshakes, ADeadlineThatIsNotReachedGoesOnBehindThem) {
  deadline_.start(std::chrono::hours(1));
  const auto [server, client] = shakeBoth(serverCredentials(), clientCredentials());
  ASSERT_TRUE(server.has_value()) << server.error();
  EXPECT_TRUE(deadline_.running());
}

TEST_F(Handshakes, AreNotBegunOnceTheyAreGivenUp) {
  std::promise<void> free;
  pool_.submit([&free] { free.get_future().wait(); });
  std::optional<Shaken> server;
  std::optional<Shaken> client;
  scope_.spawn(shake(*client_, std::nullopt, clientCredentials(), client));
  scope_.spawn(shake(*server_, aside(), serverCredentials(), server));
  givenUp_.request_stop();
  free.set_value();
  runAll();
  ASSERT_FALSE(server->has_value());
  EXPECT_EQ(server->error(), "it was given up");
  ASSERT_FALSE(client->has_value());
  EXPECT_EQ(client->error(), "the other side has ended the connection");
}

}  // namespace
}  // namespace Nbdd::Tls
