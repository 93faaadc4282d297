#include "nbdd/exports/allocation.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "nbdd/io/file_descriptor.h"

namespace Nbdd {
namespace {

constexpr std::uint64_t block = 65'536;  // a multiple of every file system's block

/// A file in which block i holds data where `layout[i]` is 'd' and is a hole where it is '.'.
Io::FileDescriptor makeFile(const std::string& directory, std::string_view layout) {
  std::string path = directory + "/allocation_XXXXXX";
  Io::FileDescriptor file(::mkostemp(path.data(), O_CLOEXEC));
  ::unlink(path.c_str());
  EXPECT_EQ(::ftruncate(file.number(), static_cast<off_t>(layout.size() * block)), 0);
  const std::vector<char> data(block, 'x');
  for (std::size_t index = 0; index < layout.size(); ++index) {
    if (layout[index] == 'd') {
      EXPECT_EQ(::pwrite(file.number(), data.data(), data.size(), static_cast<off_t>(index * block)),
                static_cast<ssize_t>(block));
    }
  }
  return file;
}

std::string asText(const std::vector<AllocationRun>& runs) {
  std::string text;
  for (const AllocationRun& run : runs) {
    text += (run.hole ? "." : "d") + std::to_string(run.length) + " ";
  }
  return text;
}

class Allocation : public ::testing::TestWithParam<const char*> {};

TEST_P(Allocation, FollowsTheFilesHoles) {
  const Io::FileDescriptor file = makeFile(GetParam(), "d..dd.");
  const auto all = allocation(file.number(), 0, 6 * block, 100);
  ASSERT_TRUE(all);
  EXPECT_EQ(asText(*all), "d65536 .131072 d131072 .65536 ");
}

TEST_P(Allocation, CutsTheFirstAndTheLastRunToTheRange) {
  const Io::FileDescriptor file = makeFile(GetParam(), "d..dd.");
  const auto part = allocation(file.number(), block + 100, 2 * block, 100);
  ASSERT_TRUE(part);
  EXPECT_EQ(asText(*part), ".130972 d100 ");
}

TEST_P(Allocation, EndsEarlyWhenThereAreTooManyRuns) {
  const Io::FileDescriptor file = makeFile(GetParam(), "d.d.d.");
  const auto some = allocation(file.number(), 0, 6 * block, 3);
  ASSERT_TRUE(some);
  EXPECT_EQ(asText(*some), "d65536 .65536 d65536 ");
}

TEST_P(Allocation, SeesAnEmptyFileAsOneHole) {
  const Io::FileDescriptor file = makeFile(GetParam(), "....");
  const auto hole = allocation(file.number(), 1, 4 * block - 1, 100);
  ASSERT_TRUE(hole);
  EXPECT_EQ(asText(*hole), ".262143 ");
}

// What it has lost must not read as zeroes.
TEST_P(Allocation, FailsBeyondTheEndOfAFileThatHasBecomeShorter) {
  const Io::FileDescriptor file = makeFile(GetParam(), "d.");
  for (const std::uint64_t offset : {0UL, block, 2 * block, 3 * block}) {
    const auto lost = allocation(file.number(), offset, 4 * block - offset, 100);
    ASSERT_FALSE(lost) << offset;
    EXPECT_EQ(lost.error(), EIO);
  }
}

INSTANTIATE_TEST_SUITE_P(FileSystems, Allocation, ::testing::Values("/tmp", "/dev/shm"),
                         [](const auto& where) { return where.index == 0 ? "disk" : "memory"; });

TEST(AllocationErrors, ReportsTheErrno) {
  const auto none = allocation(-1, 0, 1, 1);
  ASSERT_FALSE(none);
  EXPECT_EQ(none.error(), EBADF);
}

TEST(IsCached, KnowsWhatWasJustWritten) {
  const Io::FileDescriptor file = makeFile("/dev/shm", "dd..");
  if (!isCached(file.number(), 0, 2 * block)) {
    // Kernels before 6.5 cannot tell, and then the answer must be no for everything.
    EXPECT_FALSE(isCached(file.number(), 0, 1));
  }
  EXPECT_FALSE(isCached(file.number(), block, 2 * block));
  EXPECT_FALSE(isCached(-1, 0, 1));
}

}  // namespace
}  // namespace Nbdd
