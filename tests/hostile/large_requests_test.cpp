#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "nbd/limits.h"
#include "nbdd/limits.h"
#include "tests/support/raw_client.h"
#include "tests/support/running_nbdd.h"

// Well-behaved clients that ask for a great deal at once: what they ask for in all is twice what the service
// may hold for them, so they must take turns.

namespace {

using Nbd::Error;
using Wire::Buffer;
using Wire::RawClient;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isInstrumented = true;
#elif defined(__has_feature)
constexpr bool isInstrumented = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool isInstrumented = false;
#endif

constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;
constexpr std::uint64_t workerBudget = Nbdd::Limits::workerPayload;

/// How long a client may have to wait for its turn in all.
constexpr std::chrono::seconds patience{120};

class LargeRequests : public testing::TestWithParam<std::uint32_t> {
 protected:
  LargeRequests() : exported_(nbdd_.publish("large", 3 * mebibyte * 32)), content_(GetParam()) {
    for (std::size_t index = 0; index < content_.size(); ++index) {
      content_[index] = static_cast<std::byte>(index * 7 + index / 4096);
    }
  }

  /// Runs `action` for as many clients at once as would need twice the budget of all workers.
  template <typename Action>
  void withManyClients(Action action) {
    const std::size_t count = 2 * workers_ * workerBudget / GetParam();
    std::vector<std::jthread> threads;
    for (std::size_t index = 0; index < count; ++index) {
      threads.emplace_back([&] {
        try {
          RawClient client(nbdd_.port());
          client.enter(exported_.name);
          action(client);
          client.disconnect();
        } catch (const std::exception& exception) {
          ++failures_;
          ADD_FAILURE() << exception.what();
        }
      });
    }
  }

  /// The service holds its budget, and a little for each client.
  void expectBoundedMemory() const {
    RecordProperty("peakKibibytes", std::to_string(nbdd_.peakKibibytes()));
    if (isInstrumented) return;  // sanitizers keep what is freed
    EXPECT_LT(nbdd_.peakKibibytes(), (workers_ * workerBudget + 160 * mebibyte) / 1024);
  }

  const std::size_t workers_ = std::max(std::thread::hardware_concurrency(), 1U);
  Testing::RunningNbdd nbdd_;
  Testing::RunningNbdd::Export exported_;
  Buffer content_;
  std::atomic<int> failures_ = 0;
};

TEST_P(LargeRequests, AreWrittenAndReadInBoundedMemory) {
  withManyClients([&](RawClient& client) {
    client.request({.type = Nbd::Command::write, .cookie = 1, .offset = 4096, .length = GetParam()});
    for (std::size_t sent = 0; sent < content_.size(); sent += mebibyte) {
      client.send(Nbd::Bytes(content_).subspan(sent, mebibyte), patience);
    }
    const Buffer answer = client.receive(Nbd::simpleReplySize, patience);
    const auto reply = Nbd::decodeSimpleReply(std::span(answer).first<Nbd::simpleReplySize>());
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(reply->error, Error::none);
  });
  expectBoundedMemory();

  // What is in the page cache is sent from there: it shall come from the disk.
  const int file = ::open(exported_.file.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(file, 0);
  EXPECT_EQ(::fsync(file), 0);
  EXPECT_EQ(::posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED), 0);
  ::close(file);

  withManyClients([&](RawClient& client) {
    client.request({.type = Nbd::Command::read, .cookie = 2, .offset = 4096, .length = GetParam()});
    const Buffer header = client.receive(Nbd::simpleReplySize, patience);
    const auto reply = Nbd::decodeSimpleReply(std::span(header).first<Nbd::simpleReplySize>());
    ASSERT_TRUE(reply.has_value());
    ASSERT_EQ(reply->error, Error::none);
    for (std::size_t received = 0; received < content_.size(); received += mebibyte) {
      const Buffer piece = client.receive(mebibyte, patience);
      ASSERT_EQ(std::memcmp(piece.data(), content_.data() + received, mebibyte), 0);
    }
  });
  expectBoundedMemory();
  EXPECT_EQ(failures_, 0);
  EXPECT_EQ(nbdd_.stop().exitCode, 0) << nbdd_.log();
}

INSTANTIATE_TEST_SUITE_P(Sizes, LargeRequests, testing::Values(Nbd::portablePayload, Nbd::maxPayload),
                         [](const auto& row) { return std::to_string(row.param / mebibyte) + "MiB"; });

}  // namespace
