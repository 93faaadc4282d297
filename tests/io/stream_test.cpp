#include "nbdd/io/stream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <string>
#include <thread>
#include <vector>

#include "tests/io/run_task.h"

namespace Nbdd::Io {
namespace {

struct Pair {
  FileDescriptor ours;
  FileDescriptor theirs;

  Pair() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
      std::abort();
    }
    ours = FileDescriptor(ends[0]);
    theirs = FileDescriptor(ends[1]);
    ::fcntl(ours.number(), F_SETFL, O_NONBLOCK);
  }
};

Task<std::string> receiveAll(Stream& stream) {
  std::string text;
  std::array<std::byte, 7> memory{};
  for (;;) {
    const ssize_t count = stream.receive(memory);
    if (count > 0) {
      text.append(reinterpret_cast<const char*>(memory.data()), static_cast<std::size_t>(count));
    } else if (count == 0) {
      co_return text;
    } else if (count == -EAGAIN) {
      Stream::Waiting readable = stream.readable();
      const Stream::Wake wake = co_await readable;
      if (wake == Stream::Wake::interrupted) {
        co_return text + "!";
      }
    } else {
      co_return "error";
    }
  }
}

TEST(Stream, ReceivesToTheEndHoweverItArrives) {
  EventLoop loop;
  Pair pair;
  Stream stream(loop, std::move(pair.ours));
  const std::string sent(100'000, 'x');
  std::jthread peer([&] {
    std::size_t done = 0;
    while (done < sent.size()) {
      const ssize_t count = ::send(pair.theirs.number(), sent.data() + done,
                                   std::min<std::size_t>(1000, sent.size() - done), 0);
      done += static_cast<std::size_t>(count);
    }
    pair.theirs.reset();
  });
  EXPECT_EQ(runTask(loop, receiveAll(stream)), sent);
}

// The last bytes and the end of the stream arrive together, and only one event tells of both.
TEST(Stream, SeesTheEndBehindTheLastBytes) {
  for (int round = 0; round < 100; ++round) {
    EventLoop loop;
    Pair pair;
    Stream stream(loop, std::move(pair.ours));
    std::jthread peer([&] {
      ::send(pair.theirs.number(), "bye", 3, 0);
      pair.theirs.reset();
    });
    EXPECT_EQ(runTask(loop, receiveAll(stream)), "bye");
  }
}

TEST(Stream, IsInterruptedWhileItWaitsAndEverAfter) {
  EventLoop loop;
  Pair pair;
  Stream stream(loop, std::move(pair.ours));
  loop.post([&] { stream.interruptReading(); });
  EXPECT_EQ(runTask(loop, receiveAll(stream)), "!");
  EXPECT_EQ(runTask(loop, receiveAll(stream)), "!");
  stream.resumeReading();
  pair.theirs.reset();
  EXPECT_EQ(runTask(loop, receiveAll(stream)), "");
}

// What arrives while a stream rests wakes nobody; a wait afterwards finds it.
TEST(Stream, FindsWhatArrivedWhileItRested) {
  EventLoop loop;
  Pair pair;
  Stream stream(loop, std::move(pair.ours));
  std::array<std::byte, 7> memory{};
  ASSERT_EQ(stream.receive(memory), -EAGAIN);
  stream.rest();
  ASSERT_EQ(::send(pair.theirs.number(), "word", 4, 0), 4);
  bool told = false;
  loop.post([&] {
    told = !stream.drained();
    loop.stop();
  });
  loop.run();
  EXPECT_FALSE(told);
  std::jthread peer([&] { pair.theirs.reset(); });
  EXPECT_EQ(runTask(loop, receiveAll(stream)), "word");
}

TEST(Stream, CanBeTriedWhileItRests) {
  EventLoop loop;
  Pair pair;
  Stream stream(loop, std::move(pair.ours));
  std::array<std::byte, 7> memory{};
  stream.rest();
  ASSERT_EQ(::send(pair.theirs.number(), "word", 4, 0), 4);
  EXPECT_EQ(stream.receive(memory), 4);
  EXPECT_EQ(stream.receive(memory), -EAGAIN);
  pair.theirs.reset();
  EXPECT_EQ(stream.receive(memory), 0);
}

TEST(Stream, SeesAPeerThatLeftWhileItRested) {
  EventLoop loop;
  Pair pair;
  Stream stream(loop, std::move(pair.ours));
  std::array<std::byte, 7> memory{};
  ASSERT_EQ(stream.receive(memory), -EAGAIN);
  stream.rest();
  pair.theirs.reset();
  EXPECT_EQ(runTask(loop, receiveAll(stream)), "");
}

Task<std::size_t> sendAll(Stream& stream, std::span<const std::byte> bytes) {
  std::size_t waits = 0;
  while (!bytes.empty()) {
    const ssize_t count = stream.send(bytes);
    if (count == -EAGAIN) {
      ++waits;
      Stream::Waiting writable = stream.writable();
      co_await writable;
      continue;
    }
    if (count < 0) {
      co_return 0;
    }
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
  stream.endSending();
  co_return waits;
}

TEST(Stream, WaitsForASlowReader) {
  EventLoop loop;
  Pair pair;
  const int small = 4096;
  ::setsockopt(pair.ours.number(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  Stream stream(loop, std::move(pair.ours));
  const std::vector<std::byte> sent(1'000'000, std::byte{7});
  std::size_t received = 0;
  std::jthread peer([&] {
    std::array<std::byte, 4096> memory{};
    for (;;) {
      const ssize_t count = ::recv(pair.theirs.number(), memory.data(), memory.size(), 0);
      if (count <= 0) {
        return;
      }
      received += static_cast<std::size_t>(count);
    }
  });
  EXPECT_GT(runTask(loop, sendAll(stream, sent)), 0U);
  peer.join();
  EXPECT_EQ(received, sent.size());
}

// Whoever cannot send waits, and is told when he can, however the stream was left.
TEST(Stream, EndsItsRestForWhoeverSends) {
  EventLoop loop;
  Pair pair;
  const int small = 4096;
  ::setsockopt(pair.ours.number(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  Stream stream(loop, std::move(pair.ours));
  stream.rest();
  const std::vector<std::byte> sent(100'000, std::byte{7});
  std::jthread peer([&] {
    std::array<std::byte, 4096> memory{};
    while (::recv(pair.theirs.number(), memory.data(), memory.size(), 0) > 0) {
    }
  });
  EXPECT_GT(runTask(loop, sendAll(stream, sent)), 0U);
}

Pair tcpPair() {
  const FileDescriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const where = reinterpret_cast<sockaddr*>(&address);
  Pair pair;
  pair.theirs = FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::bind(listener.number(), where, length) != 0 || ::listen(listener.number(), 1) != 0 ||
      ::getsockname(listener.number(), where, &length) != 0 ||
      ::connect(pair.theirs.number(), where, length) != 0) {
    std::abort();
  }
  pair.ours = FileDescriptor(::accept4(listener.number(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  return pair;
}

Task<void> awaitReadable(Stream& stream, std::size_t& available) {
  std::array<std::byte, 1> memory{};
  if (stream.receive(memory) != -EAGAIN) {
    std::abort();
  }
  Stream::Waiting readable = stream.readable();
  co_await readable;
  available = stream.available();
  stream.loop().stop();
}

TEST(Stream, WaitsUntilAsMuchHasArrivedAsIsWorthATurn) {
  EventLoop loop;
  Pair pair = tcpPair();
  Stream stream(loop, std::move(pair.ours));
  stream.setReceiveThreshold(100);
  std::size_t available = 0;
  Scope scope;
  scope.spawn(awaitReadable(stream, available));
  std::jthread peer([&] {
    const std::string byte = "x";
    for (int count = 0; count < 100; ++count) {
      ASSERT_EQ(::send(pair.theirs.number(), byte.data(), 1, 0), 1);
    }
  });
  loop.run();
  EXPECT_EQ(available, 100U);
}

TEST(Stream, EndsAWaitThatALowerThresholdNoLongerHoldsUp) {
  EventLoop loop;
  Pair pair = tcpPair();
  Stream stream(loop, std::move(pair.ours));
  stream.setReceiveThreshold(100);
  std::size_t available = 0;
  Scope scope;
  scope.spawn(awaitReadable(stream, available));
  ASSERT_EQ(::send(pair.theirs.number(), "abc", 3, 0), 3);
  Timer timer(loop, [&] { stream.setReceiveThreshold(1); });
  timer.start(std::chrono::milliseconds(20));
  loop.run();
  EXPECT_EQ(available, 3U);
}

TEST(Stream, SeesTheEndBelowTheThreshold) {
  EventLoop loop;
  Pair pair = tcpPair();
  Stream stream(loop, std::move(pair.ours));
  stream.setReceiveThreshold(100);
  std::size_t available = 0;
  Scope scope;
  scope.spawn(awaitReadable(stream, available));
  ASSERT_EQ(::send(pair.theirs.number(), "abc", 3, 0), 3);
  pair.theirs.reset();
  loop.run();
  EXPECT_EQ(available, 3U);
}

TEST(Stream, FailsToSendToAPeerThatIsGone) {
  EventLoop loop;
  Pair pair;
  Stream stream(loop, std::move(pair.ours));
  pair.theirs.reset();
  const std::array<std::byte, 1> one{};
  EXPECT_EQ(stream.send(one), -EPIPE);
}

TEST(Stream, CountsWhatTheNetworkHasNotTaken) {
  EventLoop loop;
  Pair pair = tcpPair();
  Stream stream(loop, std::move(pair.ours));
  EXPECT_EQ(stream.unsent(), 0U);
  // Whoever does not receive fills first his own memory, then ours.
  const std::vector<std::byte> bytes(std::size_t{64} * 1024);
  std::size_t sent = 0;
  for (ssize_t count = 0; (count = stream.send(bytes)) > 0;) sent += static_cast<std::size_t>(count);
  const std::size_t unsent = stream.unsent();
  EXPECT_GT(unsent, 0U);
  EXPECT_LT(unsent, sent);
}

TEST(Stream, HasNoNetworkWithinTheHost) {
  EventLoop loop;
  Pair pair;
  Stream stream(loop, std::move(pair.ours));
  const std::array<std::byte, 10> bytes{};
  EXPECT_EQ(stream.send(bytes), std::ssize(bytes));
  EXPECT_EQ(stream.unsent(), 0U);
}

}  // namespace
}  // namespace Nbdd::Io
