#include "nbdd/imports/socket_client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <future>
#include <optional>
#include <set>
#include <vector>

#include "nbd/request.h"
#include "tests/remote/device_thread.h"
#include "tests/remote/scripted_server.h"

// Programs that speak NBD over a socket of this host, and the remote server behind it.

namespace Nbdd::Remote {
namespace {

using namespace std::chrono_literals;
using Nbd::Command;
using Peer = ScriptedServer::Peer;

constexpr std::size_t size = std::size_t{1} << 20;
constexpr std::size_t deep = 32;

Device::Options options(const ScriptedServer& server) {
  return {.server = {.host = "127.0.0.1", .port = server.port()},
          .exportName = "memory",
          .patience = {.whole = 2s, .address = 1s}};
}

Io::Task<void> serveClient(Io::EventLoop& loop, Device& device, int socket) {
  Io::BufferPool buffers;
  Nbd::ExportLimits limits = device.limits();
  limits.headers = Nbd::HeaderStyle::simple;
  limits.blockStatus = false;
  SocketClient client(loop, device, buffers, Io::FileDescriptor(socket), [] {});
  Io::Task<void> running = client.runAgreed(limits);
  co_await running;
}

/// A program that has agreed on simple replies already. Nothing it waits for takes longer than some seconds.
class Program {
 public:
  explicit Program(DeviceThread& device) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) std::abort();
    ours_ = Io::FileDescriptor(ends[0]);
    const timeval limit{.tv_sec = 20, .tv_usec = 0};
    ::setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(ends[0], SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
    device.spawn(
        [socket = ends[1]](Io::EventLoop& loop, Device& of) { return serveClient(loop, of, socket); });
  }

  void read(std::uint64_t cookie, std::uint64_t offset, std::uint32_t length) {
    std::array<std::byte, Nbd::requestSize> bytes;
    Nbd::encodeRequest(bytes, {.type = Command::read, .cookie = cookie, .offset = offset, .length = length});
    ASSERT_EQ(::send(ours_.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL), std::ssize(bytes));
  }

  /// The cookie of the next reply, whose data have to be `length` bytes of that value; nothing if it is
  /// another one, or none comes.
  std::optional<std::uint64_t> receive(std::uint32_t length, std::byte value) {
    Wire::Buffer bytes(Nbd::simpleReplySize + length);
    if (::recv(ours_.number(), bytes.data(), bytes.size(), MSG_WAITALL) != std::ssize(bytes)) {
      return std::nullopt;
    }
    const auto reply = Nbd::decodeSimpleReply(std::span(bytes).first<Nbd::simpleReplySize>());
    const Nbd::Bytes data = Nbd::Bytes(bytes).subspan(Nbd::simpleReplySize);
    if (!reply || reply->error != Nbd::Error::none) return std::nullopt;
    if (!std::ranges::all_of(data, [&](std::byte each) { return each == value; })) return std::nullopt;
    return reply->cookie;
  }

  void leave() { ours_.reset(); }

 private:
  Io::FileDescriptor ours_;
};

/// Cookies first to last - 1, each once.
std::set<std::uint64_t> cookies(std::uint64_t first, std::uint64_t last) {
  std::set<std::uint64_t> all;
  for (std::uint64_t cookie = first; cookie < last; ++cookie) all.insert(all.end(), cookie);
  return all;
}

/// Takes so many requests before it answers any.
std::vector<Nbd::Request> collect(Peer& peer, std::size_t count) {
  std::vector<Nbd::Request> requests;
  while (requests.size() < count) {
    const auto received = peer.receiveRequest();
    if (!received) break;
    requests.push_back(received->request);
  }
  return requests;
}

void answer(Peer& peer, const std::vector<Nbd::Request>& requests, std::byte value) {
  for (const Nbd::Request& request : requests) {
    peer.sendData(request, request.offset, Wire::Buffer(request.length, value), true);
  }
}

// A program with a deep queue is not watched while the server has requests of it. But a server that answers
// nothing gets the next ones all the same.
TEST(SocketClient, PassesOnWhatComesWhileTheServerIsSilent) {
  constexpr std::size_t count = 60;
  ScriptedServer server({[&](Peer& peer) {
    const MemoryExport memory(size);
    ASSERT_TRUE(peer.handshake(memory.view));
    const auto requests = collect(peer, count);
    ASSERT_EQ(requests.size(), count);
    answer(peer, requests, std::byte{1});
    peer.awaitEnd();
  }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  Program program(device);
  for (std::uint64_t cookie = 0; cookie < count; ++cookie) program.read(cookie, 0, 4096);
  std::set<std::uint64_t> answered;
  while (answered.size() < count) answered.insert(program.receive(4096, std::byte{1}).value());
  EXPECT_EQ(answered, cookies(0, count));
}

// Its answers fill the socket while nothing is waited for from it; when it reads, it gets them all, and its
// next requests are taken.
TEST(SocketClient, AProgramThatReadsLateGetsAllItsAnswers) {
  constexpr std::uint32_t length = 64 * 1024;
  ScriptedServer server({[&](Peer& peer) {
    const MemoryExport memory(size);
    ASSERT_TRUE(peer.handshake(memory.view));
    for (;;) {
      const auto requests = collect(peer, deep);
      answer(peer, requests, std::byte{2});
      if (requests.size() < deep) return;
    }
  }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  Program program(device);
  for (std::uint64_t round = 0; round < 4; ++round) {
    for (std::uint64_t cookie = 0; cookie < deep; ++cookie) program.read(round * deep + cookie, 0, length);
    std::set<std::uint64_t> answered;
    for (std::size_t count = 0; count < deep; ++count)
      answered.insert(program.receive(length, std::byte{2}).value());
    ASSERT_EQ(answered, cookies(round * deep, (round + 1) * deep));
  }
}

TEST(SocketClient, AProgramMayLeaveWithoutWaitingForItsAnswers) {
  std::promise<void> left;
  std::promise<std::size_t> taken;
  ScriptedServer server({[&](Peer& peer) {
    const MemoryExport memory(size);
    ASSERT_TRUE(peer.handshake(memory.view));
    const auto requests = collect(peer, deep);
    taken.set_value(requests.size());
    left.get_future().wait();
    answer(peer, requests, std::byte{3});
    peer.awaitEnd();
  }});
  DeviceThread device(options(server));
  ASSERT_TRUE(device.awaitConnected());
  Program program(device);
  for (std::uint64_t cookie = 0; cookie < deep; ++cookie) program.read(cookie, 0, 4096);
  program.leave();
  EXPECT_EQ(taken.get_future().get(), deep) << "what was asked is asked";
  left.set_value();
}

}  // namespace
}  // namespace Nbdd::Remote
