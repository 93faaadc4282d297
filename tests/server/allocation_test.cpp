#include "nbdd/exports/allocation.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
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
  KnownData known;
  const auto all = allocation(file.number(), known, 0, 6 * block, 100);
  ASSERT_TRUE(all);
  EXPECT_EQ(asText(*all), "d65536 .131072 d131072 .65536 ");
}

TEST_P(Allocation, CutsTheFirstAndTheLastRunToTheRange) {
  const Io::FileDescriptor file = makeFile(GetParam(), "d..dd.");
  KnownData known;
  const auto part = allocation(file.number(), known, block + 100, 2 * block, 100);
  ASSERT_TRUE(part);
  EXPECT_EQ(asText(*part), ".130972 d100 ");
}

TEST_P(Allocation, EndsEarlyWhenThereAreTooManyRuns) {
  const Io::FileDescriptor file = makeFile(GetParam(), "d.d.d.");
  KnownData known;
  const auto some = allocation(file.number(), known, 0, 6 * block, 3);
  ASSERT_TRUE(some);
  EXPECT_EQ(asText(*some), "d65536 .65536 d65536 ");
}

TEST_P(Allocation, SeesAnEmptyFileAsOneHole) {
  const Io::FileDescriptor file = makeFile(GetParam(), "....");
  KnownData known;
  const auto hole = allocation(file.number(), known, 1, 4 * block - 1, 100);
  ASSERT_TRUE(hole);
  EXPECT_EQ(asText(*hole), ".262143 ");
}

// What it has lost must not read as zeroes.
TEST_P(Allocation, FailsBeyondTheEndOfAFileThatHasBecomeShorter) {
  const Io::FileDescriptor file = makeFile(GetParam(), "d.");
  for (const std::uint64_t offset : {0UL, block, 2 * block, 3 * block}) {
    KnownData known;
    const auto lost = allocation(file.number(), known, offset, 4 * block - offset, 100);
    ASSERT_FALSE(lost) << offset;
    EXPECT_EQ(lost.error(), EIO);
  }
}

INSTANTIATE_TEST_SUITE_P(FileSystems, Allocation, ::testing::Values("/tmp", "/dev/shm"),
                         [](const auto& where) { return where.index == 0 ? "disk" : "memory"; });

TEST(AllocationErrors, ReportsTheErrno) {
  KnownData known;
  const auto none = allocation(-1, known, 0, 1, 1);
  ASSERT_FALSE(none);
  EXPECT_EQ(none.error(), EBADF);
}

/// A file that exists in numbers only: pairs of a hole and data, each of `run` bytes. Counts how often it is
/// asked, and how much of it a file system would have walked for the answers.
class FragmentedFile : public FileMap {
 public:
  FragmentedFile(std::uint64_t pairs, std::uint64_t run) : pairs_(pairs), run_(run) {}

  std::expected<std::uint64_t, int> seek(std::uint64_t offset, int whence) override {
    ++seeks;
    const std::uint64_t end = pairs_ * 2 * run_;
    if (offset >= end) {
      return std::unexpected(ENXIO);
    }
    const bool isData = offset / run_ % 2 == 1;
    const bool wantsData = whence == SEEK_DATA;
    const std::uint64_t found = isData == wantsData ? offset : (offset / run_ + 1) * run_;
    walked += found - offset;
    return found;
  }
  std::expected<std::uint64_t, int> size() override { return pairs_ * 2 * run_; }

  std::uint64_t seeks = 0;
  std::uint64_t walked = 0;  // bytes

 private:
  std::uint64_t pairs_;
  std::uint64_t run_;
};

// A client that goes through a map asks again where each answer ends.
struct Walk {
  std::uint64_t requests = 0;
  std::uint64_t runs = 0;

  Walk(FileMap& file, KnownData& known, std::uint64_t size, std::uint64_t step, std::size_t maximumRuns) {
    for (std::uint64_t offset = 0; offset < size; ++requests) {
      const auto found = allocation(file, known, offset, std::min(step, size - offset), maximumRuns);
      if (!found.has_value() || found->empty()) {
        throw std::runtime_error("no answer");
      }
      runs += found->size();
      for (const AllocationRun& run : *found) offset += run.length;
    }
  }
};

TEST(AllocationWork, GrowsWithTheExtentsOfAFragmentedFileAndNoFaster) {
  constexpr std::uint64_t run = 8192;
  for (const std::uint64_t pairs : {5'000UL, 50'000UL, 500'000UL}) {
    FragmentedFile file(pairs, run);
    KnownData known;
    const std::uint64_t size = pairs * 2 * run;
    const Walk walk(file, known, size, size, 8192);
    EXPECT_EQ(walk.runs, 2 * pairs);
    EXPECT_EQ(walk.requests, (2 * pairs + 8191) / 8192);
    EXPECT_LE(file.seeks, 2 * pairs + 2 * walk.requests);
    EXPECT_EQ(file.walked, size);
  }
}

TEST(AllocationWork, OneExtentAtATimeTakesTwoLooksEach) {
  constexpr std::uint64_t run = 8192;
  constexpr std::uint64_t pairs = 10'000;
  FragmentedFile file(pairs, run);
  KnownData known;
  const Walk walk(file, known, pairs * 2 * run, pairs * 2 * run, 1);
  EXPECT_EQ(walk.requests, 2 * pairs);
  EXPECT_LE(file.seeks, 2 * walk.requests);
}

// 1 GiB of data behind 1 GiB of nothing, a mebibyte at a time, as a copying client reads it: the data are not
// walked again and again to their end.
TEST(AllocationWork, LargeRunsInSmallStepsAreWalkedOnce) {
  constexpr std::uint64_t run = std::uint64_t{1} << 30;
  constexpr std::uint64_t step = std::uint64_t{1} << 20;
  FragmentedFile file(1, run);
  KnownData known;
  std::uint64_t data = 0;
  for (std::uint64_t offset = run; offset < 2 * run; offset += step) {
    const auto found = allocation(file, known, offset, step, 64);
    ASSERT_TRUE(found.has_value());
    for (const AllocationRun& each : *found) data += each.hole ? 0 : each.length;
  }
  EXPECT_EQ(data, run);
  EXPECT_EQ(file.walked, run);
  EXPECT_EQ(file.seeks, 2U);
}

TEST(AllocationWork, WhatIsKnownIsAskedAgainWhenHolesWereMade) {
  constexpr std::uint64_t run = std::uint64_t{1} << 30;
  FragmentedFile file(1, run);
  KnownData known;
  ASSERT_TRUE(allocation(file, known, run, 4096, 64).has_value());
  const std::uint64_t before = file.seeks;
  ASSERT_TRUE(allocation(file, known, run, 4096, 64).has_value());
  EXPECT_EQ(file.seeks, before);
  known.forget();
  ASSERT_TRUE(allocation(file, known, run, 4096, 64).has_value());
  EXPECT_EQ(file.seeks, before + 2);
}

/// Data that go away between the looks for their beginning and their end.
class VanishingFile : public FileMap {
 public:
  std::expected<std::uint64_t, int> seek(std::uint64_t offset, int whence) override {
    if (whence == SEEK_HOLE) {
      hasGone_ = true;
      return offset;
    }
    if (hasGone_) {
      return std::unexpected(ENXIO);
    }
    return offset;
  }
  std::expected<std::uint64_t, int> size() override { return 4096; }

 private:
  bool hasGone_ = false;
};

TEST(AllocationErrors, DataThatVanishAreAHole) {
  VanishingFile file;
  KnownData known;
  const auto found = allocation(file, known, 0, 4096, 64);
  ASSERT_TRUE(found.has_value());
  EXPECT_EQ(asText(*found), ".4096 ");
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
