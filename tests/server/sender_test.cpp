#include "nbdd/server/sender.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string>
#include <thread>

namespace Nbdd {
namespace {

/// A sender whose socket takes little at once, and its peer.
class SenderTest : public ::testing::Test {
 protected:
  SenderTest() {
    ::signal(SIGPIPE, SIG_IGN);  // as on the worker's thread
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
      std::abort();
    }
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    const int small = 4096;
    ::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    peer_ = Io::FileDescriptor(ends[1]);
    stream_ = std::make_unique<Io::Stream>(loop_, Io::FileDescriptor(ends[0]));
    sender_ = std::make_unique<Sender>(*stream_, buffers_);
  }

  /// Runs the loop until everything is sent or sending has failed.
  void finish() {
    scope_.spawn(finishAndStop(*sender_, loop_));
    loop_.run();
  }

  static Io::Task<void> finishAndStop(Sender& sender, Io::EventLoop& loop) {
    Io::Task<void> finishing = sender.finish();
    co_await finishing;
    loop.stop();
  }

  /// Receives on another thread until our side ends.
  std::jthread receive(std::string& text) {
    return std::jthread([this, &text] {
      std::array<char, 10'000> memory{};
      for (;;) {
        const ssize_t count = ::recv(peer_.number(), memory.data(), memory.size(), 0);
        if (count <= 0) {
          return;
        }
        text.append(memory.data(), static_cast<std::size_t>(count));
      }
    });
  }

  static std::span<const std::byte> bytesOf(const std::string& text) {
    return std::as_bytes(std::span(text));
  }

  Io::EventLoop loop_;
  Io::BufferPool buffers_;
  Io::FileDescriptor peer_;
  std::unique_ptr<Io::Stream> stream_;
  std::unique_ptr<Sender> sender_;
  Io::Scope scope_;
};

std::shared_ptr<Storage> storageOf(const std::string& content) {
  OpenNode node;
  node.descriptor = Io::FileDescriptor(::memfd_create("content", MFD_CLOEXEC));
  node.size = content.size();
  EXPECT_EQ(::write(node.descriptor.number(), content.data(), content.size()),
            static_cast<ssize_t>(content.size()));
  return std::make_shared<Storage>(std::move(node));
}

TEST_F(SenderTest, KeepsTheOrderOfBytesBuffersAndFiles) {
  const std::string large(200'000, 'L');
  const std::string content(150'000, 'F');
  const std::string posted(70'000, 'P');
  const auto storage = storageOf("----" + content);
  sender_->send(bytesOf("a"), true);
  sender_->send(bytesOf(large));
  sender_->sendFile(storage, 4, content.size());
  sender_->send(bytesOf("b"));
  Io::Buffer buffer = buffers_.take(posted.size());
  std::ranges::copy(bytesOf(posted), buffer.data());
  sender_->post(std::move(buffer), posted.size());
  sender_->post(bytesOf("c"));
  EXPECT_GT(sender_->pending(), 0U);
  EXPECT_FALSE(sender_->idle());

  std::string received;
  std::jthread peer = receive(received);
  finish();
  stream_->endSending();
  peer.join();
  EXPECT_EQ(received, "a" + large + content + "b" + posted + "c");
  EXPECT_EQ(sender_->pending(), 0U);
}

TEST_F(SenderTest, HoldsFileContentsAsARangeAndNotAsBytes) {
  const std::string content(1'000'000, 'F');
  sender_->sendFile(storageOf(content), 0, content.size());
  EXPECT_FALSE(sender_->idle());
  EXPECT_EQ(sender_->pending(), 0U);
  peer_.reset();
  finish();
}

// Each header keeps a buffer of its own alive, however short it is.
TEST_F(SenderTest, CountsWhatTheHeadersOfFilesHold) {
  const std::string content(1'000'000, 'F');
  const auto storage = storageOf(content);
  for (int reply = 0; reply < 10; ++reply) {
    sender_->send(bytesOf("h"), true);
    sender_->sendFile(storage, 0, content.size());
  }
  EXPECT_GE(sender_->pending(), 9U * 4096);
  std::string received;
  std::jthread peer = receive(received);
  finish();
  stream_->endSending();
  peer.join();
  EXPECT_EQ(received.size(), 10 * (content.size() + 1));
  EXPECT_EQ(sender_->pending(), 0U);
}

TEST_F(SenderTest, FailsOnceThePeerIsGoneAndDropsTheRest) {
  sender_->send(bytesOf(std::string(500'000, 'x')));
  EXPECT_FALSE(sender_->failed());
  peer_.reset();
  finish();
  EXPECT_TRUE(sender_->failed());
  EXPECT_EQ(sender_->pending(), 0U);
  sender_->send(bytesOf("more"));
  sender_->post(bytesOf("more"));
  EXPECT_TRUE(sender_->idle());
}

// The header that promised the bytes is out: only the end of the connection tells the truth.
TEST_F(SenderTest, EndsTheConnectionWhenTheFileIsShorterThanPromised) {
  const auto storage = storageOf("short");
  sender_->send(bytesOf("h"));
  sender_->sendFile(storage, 0, 100);
  EXPECT_TRUE(sender_->failed());
  std::string received;
  receive(received).join();
  EXPECT_EQ(received, "hshort");
}

TEST_F(SenderTest, StopsOnRequestThoughThePeerNeverReads) {
  sender_->send(bytesOf(std::string(500'000, 'x')));
  loop_.post([this] { sender_->fail(); });
  finish();
  EXPECT_TRUE(sender_->failed());
}

}  // namespace
}  // namespace Nbdd
