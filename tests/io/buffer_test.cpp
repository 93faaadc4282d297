#include "nbdd/io/buffer.h"

#include <gtest/gtest.h>

#include "nbdd/io/thread_pool.h"

#include <atomic>
#include <cstring>
#include <latch>

namespace Nbdd::Io {
namespace {

TEST(BufferPool, GivesBuffersOfExactlyTheSizeAskedFor) {
  BufferPool pool;
  for (const std::size_t size : {std::size_t{1}, std::size_t{4096}, std::size_t{4097}, std::size_t{1} << 21,
                                 (std::size_t{1} << 21) + 1}) {
    const Buffer buffer = pool.take(size);
    EXPECT_EQ(buffer.size(), size);
    std::memset(buffer.data(), 1, size);  // all of it is ours: the sanitizer would object
  }
}

TEST(BufferPool, ReusesWhatWasGivenBack) {
  BufferPool pool;
  Buffer first = pool.take(100'000);
  const std::byte* memory = first.data();
  first.reset();
  EXPECT_TRUE(first.empty());
  EXPECT_EQ(pool.take(70'000).data(), memory);
}

TEST(Buffer, MovesItsMemory) {
  BufferPool pool;
  Buffer first = pool.take(10);
  const std::byte* memory = first.data();
  Buffer second = std::move(first);
  EXPECT_EQ(second.data(), memory);
  Buffer third;
  third = std::move(second);
  EXPECT_EQ(third.data(), memory);
  EXPECT_EQ(third.size(), 10U);
}

TEST(ThreadPool, RunsJobsAtTheSameTimeUpToItsLimit) {
  constexpr std::ptrdiff_t threads = 4;
  std::latch together(threads);
  std::atomic<int> ran = 0;
  {
    ThreadPool pool(threads);
    for (std::ptrdiff_t job = 0; job < threads; ++job) {
      pool.submit([&] {
        together.arrive_and_wait();  // only passes when all four run at once
        ++ran;
      });
    }
  }
  EXPECT_EQ(ran, threads);
}

TEST(ThreadPool, RunsEverythingThatWasSubmittedBeforeItEnds) {
  std::atomic<int> ran = 0;
  {
    ThreadPool pool(2);
    for (int job = 0; job < 1000; ++job) {
      pool.submit([&] { ++ran; });
    }
  }
  EXPECT_EQ(ran, 1000);
}

}  // namespace
}  // namespace Nbdd::Io
