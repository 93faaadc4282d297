#include "nbdd/io/file_io.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <liburing.h>
#include <sys/stat.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/io/run_task.h"

namespace Nbdd::Io {
namespace {

/// Both engines must do the same. Where the kernel forbids io_uring its half is the fallback to threads, and
/// a test of its own says which of the two this machine has.
class FileIoTest : public ::testing::TestWithParam<bool> {
 protected:
  FileIoTest() : engine_(makeFileIo(loop_, pool_, GetParam())) {
    std::string path = ::testing::TempDir() + "file_io_XXXXXX";
    file_ = FileDescriptor(::mkostemp(path.data(), O_CLOEXEC));
    ::unlink(path.c_str());
  }

  int run(FileOperation operation) { return runTask(loop_, await(*engine_, std::move(operation))); }

  static Task<int> await(FileIo& engine, FileOperation operation) {
    FileIo::Running running = engine.run(operation);
    const int result = co_await running;
    co_return result;
  }

  EventLoop loop_;
  ThreadPool pool_{4};
  std::unique_ptr<FileIo> engine_;
  FileDescriptor file_;
};

std::vector<std::byte> pattern(std::size_t size, unsigned int seed) {
  std::vector<std::byte> bytes(size);
  for (std::size_t index = 0; index < size; ++index) {
    bytes[index] = static_cast<std::byte>(seed + index);
  }
  return bytes;
}

TEST_P(FileIoTest, ReadsWhatItWrote) {
  const std::vector<std::byte> written = pattern(10'000, 3);
  std::vector<std::byte> read(written.size());
  EXPECT_EQ(run(FileOperation::write(file_.number(), written, 5000)), 10'000);
  EXPECT_EQ(run(FileOperation::syncData(file_.number())), 0);
  EXPECT_EQ(run(FileOperation::willNeed(file_.number(), 0, 10'000)), 0);
  EXPECT_EQ(run(FileOperation::read(file_.number(), read, 5000)), 10'000);
  EXPECT_EQ(read, written);
  EXPECT_EQ(run(FileOperation::read(file_.number(), read, 15'000)), 0);
}

TEST_P(FileIoTest, PunchesHoles) {
  const std::vector<std::byte> written = pattern(16'384, 1);
  std::vector<std::byte> read(4096, std::byte{9});
  ASSERT_EQ(run(FileOperation::write(file_.number(), written, 0)), 16'384);
  EXPECT_EQ(
      run(FileOperation::allocate(file_.number(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 4096, 4096)),
      0);
  EXPECT_EQ(run(FileOperation::read(file_.number(), read, 4096)), 4096);
  EXPECT_EQ(read, std::vector<std::byte>(4096));
}

TEST_P(FileIoTest, ReportsErrorsAsNegativeErrno) {
  std::vector<std::byte> memory(1);
  EXPECT_EQ(run(FileOperation::read(-1, memory, 0)), -EBADF);
  EXPECT_EQ(run(FileOperation::write(-1, memory, 0)), -EBADF);
  EXPECT_EQ(run(FileOperation::syncData(-1)), -EBADF);
}

TEST_P(FileIoTest, RunsCallsOnAnotherThread) {
  const std::thread::id here = std::this_thread::get_id();
  EXPECT_EQ(run(FileOperation::call([here] { return std::this_thread::get_id() == here ? -1 : 42; })), 42);
}

Task<void> writeBlock(FileIo& engine, int file, std::size_t block, std::size_t& left, EventLoop& loop) {
  const std::vector<std::byte> bytes = pattern(512, static_cast<unsigned int>(block));
  FileOperation operation = FileOperation::write(file, bytes, block * 512);
  FileIo::Running running = engine.run(operation);
  const int result = co_await running;
  if (result == 512 && --left == 0) {
    loop.stop();
  }
}

// More at once than the ring's submission queue or the pool's threads take.
TEST_P(FileIoTest, KeepsThousandsInFlight) {
  constexpr std::size_t blocks = 6000;
  std::size_t left = blocks;
  Scope scope;
  for (std::size_t block = 0; block < blocks; ++block) {
    scope.spawn(writeBlock(*engine_, file_.number(), block, left, loop_));
  }
  loop_.run();
  EXPECT_EQ(left, 0U);
  EXPECT_EQ(scope.running(), 0U);
  for (std::size_t block = 0; block < blocks; block += 997) {
    std::vector<std::byte> read(512);
    ASSERT_EQ(::pread(file_.number(), read.data(), read.size(), static_cast<off_t>(block * 512)), 512);
    EXPECT_EQ(read, pattern(512, static_cast<unsigned int>(block)));
  }
}

INSTANTIATE_TEST_SUITE_P(Engines, FileIoTest, ::testing::Values(false, true),
                         [](const auto& engine) { return engine.param ? "ring" : "threads"; });

// So that the ring's half of the tests above cannot turn into one of threads unnoticed.
TEST(FileIoChoice, UsesTheRingWhereTheKernelGrantsOne) {
  io_uring ring{};
  const bool granted = ::io_uring_queue_init(8, &ring, 0) == 0;
  if (granted) {
    ::io_uring_queue_exit(&ring);
  }
  EventLoop loop;
  ThreadPool pool(1);
  EXPECT_EQ(makeFileIo(loop, pool, true)->name(), granted ? "io_uring" : "threads");
}

TEST(FileIoChoice, UsesThreadsWhenTheRingIsNotAllowed) {
  EventLoop loop;
  ThreadPool pool(1);
  EXPECT_EQ(makeFileIo(loop, pool, false)->name(), "threads");
}

}  // namespace
}  // namespace Nbdd::Io
