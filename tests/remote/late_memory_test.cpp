#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <vector>

#include "nbd/reply_encoder.h"
#include "tests/remote/device_thread.h"
#include "tests/remote/scripted_server.h"

// Reads whose memory is taken only when their data begin to arrive, and which are so large that headers of
// replies are received alone.

namespace Nbdd::Remote {
namespace {

using namespace std::chrono_literals;
using Nbd::Command;
using Nbd::Error;
using Peer = ScriptedServer::Peer;

constexpr std::size_t size = std::size_t{1} << 20;
constexpr std::size_t length = std::size_t{256} << 10;
constexpr std::size_t count = 4;     // reads at a time
constexpr std::size_t piece = 8000;  // of their data; does not divide the length

Device::Options options(const ScriptedServer& server) {
  return {.server = {.host = "127.0.0.1", .port = server.port()},
          .exportName = "memory",
          .patience = {.whole = 2s, .address = 1s},
          .pauses = {.first = 2ms, .longest = 20ms},
          .settleTime = 200ms};
}

Wire::Buffer filled(std::size_t bytes, unsigned char value) { return Wire::Buffer(bytes, std::byte{value}); }

/// A request that has no destination until it is told to take one.
class LateRead final : public Request {
  std::promise<Error> promise_;
  std::promise<void> begun_;

 public:
  explicit LateRead(std::uint64_t at) {
    command = Command::read;
    offset = at;
    Request::length = Nbdd::Remote::length;
  }
  void takeMemory() override {
    if (++taken == 1) begun_.set_value();
    memory.resize(Request::length);
    destination = memory;
  }
  void done(Error error) override { promise_.set_value(error); }

  std::future<Error> answer = promise_.get_future();
  std::future<void> begun = begun_.get_future();
  std::atomic<int> taken = 0;
  std::vector<std::byte> memory;
};

std::unique_ptr<LateRead> ask(DeviceThread& device, std::uint64_t at) {
  auto read = std::make_unique<LateRead>(at);
  device.onLoop([&](Device& subject) { return subject.submit(*read), 0; });
  return read;
}

/// What came of it; an answer that never comes is `perm`, which no test expects.
Error result(LateRead& read) {
  if (read.answer.wait_for(DeviceThread::patience) != std::future_status::ready) std::abort();
  return read.answer.get();
}

/// Promises all data of the request, and sends the first `part` bytes of them.
void beginReply(Peer& peer, const Nbd::Request& request, std::size_t part, unsigned char value) {
  std::array<std::byte, 64> bytes;
  const std::size_t header =
      Nbd::ReplyEncoder(peer.headers())
          .dataHeader(bytes, request, Nbd::ReplyFlag::done, request.offset, request.length);
  peer.send(std::span(bytes).first(header));
  peer.send(filled(part, value));
}

class LateMemory : public testing::TestWithParam<Nbd::HeaderStyle> {};

TEST_P(LateMemory, IsTakenWhenTheDataBeginAndFilledFromTheNextServerAfterTheFirstDiedInTheMiddle) {
  const MemoryExport memory(size);
  std::promise<void> seen;
  std::promise<void> mayBegin;
  std::promise<void> mayDie;
  ScriptedServer server({[&](Peer& peer) {
                           ASSERT_TRUE(peer.handshake(memory.view, GetParam()));
                           const auto received = peer.receiveRequest();
                           ASSERT_TRUE(received);
                           seen.set_value();
                           mayBegin.get_future().wait();
                           beginReply(peer, received->request, 100'000, 1);
                           mayDie.get_future().wait();
                           peer.close();
                         },
                         [&](Peer& peer) {
                           ASSERT_TRUE(peer.handshake(memory.view, GetParam()));
                           const auto received = peer.receiveRequest();
                           ASSERT_TRUE(received);
                           beginReply(peer, received->request, length, 2);
                           peer.awaitEnd();
                         }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  const auto read = ask(device, 4096);
  seen.get_future().wait();
  EXPECT_EQ(read->taken, 0) << "nothing has come yet";
  mayBegin.set_value();
  EXPECT_EQ(read->begun.wait_for(DeviceThread::patience), std::future_status::ready);
  EXPECT_EQ(read->answer.wait_for(0s), std::future_status::timeout) << "a part is no answer";
  mayDie.set_value();
  ASSERT_EQ(result(*read), Error::none);
  EXPECT_EQ(read->memory, filled(length, 2));
  EXPECT_EQ(read->taken, 1) << "it has it already";
}

TEST_P(LateMemory, IsNotTakenForAnError) {
  const MemoryExport memory(size);
  ScriptedServer server({[&](Peer& peer) {
    ASSERT_TRUE(peer.handshake(memory.view, GetParam()));
    const auto received = peer.receiveRequest();
    ASSERT_TRUE(received);
    if (GetParam() == Nbd::HeaderStyle::simple) {
      peer.replySimply(received->request, Error::io);
    } else {
      peer.sendError(received->request, Error::io, true);
    }
    peer.awaitEnd();
  }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  const auto read = ask(device, 0);
  EXPECT_EQ(result(*read), Error::io);
  EXPECT_EQ(read->taken, 0);
}

INSTANTIATE_TEST_SUITE_P(Device, LateMemory,
                         testing::Values(Nbd::HeaderStyle::simple, Nbd::HeaderStyle::structured,
                                         Nbd::HeaderStyle::extended));

TEST(LateMemoryOfLargeReads, IsNotTakenForDataThatBelongElsewhere) {
  const MemoryExport memory(size);
  MemoryExport good(size);
  ScriptedServer server({[&](Peer& peer) {
                           ASSERT_TRUE(peer.handshake(memory.view));
                           const auto received = peer.receiveRequest();
                           ASSERT_TRUE(received);
                           // One byte more than was asked for.
                           peer.sendData(received->request, received->request.offset, filled(length + 1, 1),
                                         true);
                           peer.awaitEnd();
                         },
                         [&](Peer& peer) {
                           good.before = [&](const Nbd::Request&) { return true; };
                           good.serve(peer);
                         }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  const auto read = ask(device, 4096);
  ASSERT_EQ(result(*read), Error::none);
  EXPECT_EQ(read->taken, 1) << "by the honest server alone";
  EXPECT_EQ(read->memory, filled(length, 0));
  EXPECT_EQ(server.connections(), 2);
}

TEST(LateMemoryOfLargeReads, IsFilledFromInterleavedPiecesAndHolesInOneBurst) {
  ScriptedServer server({[](Peer& peer) {
    const MemoryExport memory(size);
    ASSERT_TRUE(peer.handshake(memory.view));
    std::vector<Nbd::Request> requests;
    while (requests.size() < count) {
      const auto received = peer.receiveRequest();
      ASSERT_TRUE(received);
      requests.push_back(received->request);
    }
    for (std::size_t at = 0; at < length; at += piece) {
      const std::size_t part = std::min(piece, length - at);
      const bool last = at + part == length;
      for (const Nbd::Request& request : requests) {
        const auto value = static_cast<unsigned char>(request.offset / length * 40 + at / piece);
        if (at == 2 * piece) {
          peer.sendHole(request, request.offset + at, piece, false);
        } else {
          peer.sendData(request, request.offset + at, filled(part, value), last);
        }
      }
    }
    peer.awaitEnd();
  }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  std::vector<std::unique_ptr<LateRead>> reads;
  for (std::size_t number = 0; number < count; ++number) reads.push_back(ask(device, number * length));
  for (std::size_t number = 0; number < count; ++number) {
    ASSERT_EQ(result(*reads[number]), Error::none);
    EXPECT_EQ(reads[number]->taken, 1);
    for (std::size_t at = 0; at < length; ++at) {
      const auto value = at / piece == 2 ? 0 : static_cast<unsigned char>(number * 40 + at / piece);
      ASSERT_EQ(reads[number]->memory[at], static_cast<std::byte>(value)) << "of " << number << " at " << at;
    }
  }
}

}  // namespace
}  // namespace Nbdd::Remote
