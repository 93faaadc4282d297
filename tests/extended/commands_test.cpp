#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include "nbd/limits.h"
#include "tests/support/extended_client.h"
#include "tests/support/running_nbdd.h"

namespace {

using Nbd::Command;
using Nbd::Error;
using Nbd::Extent;
using Wire::Buffer;
using Wire::ExtendedClient;
namespace CommandFlag = Nbd::CommandFlag;

constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;
constexpr std::uint64_t tebibyte = std::uint64_t{1} << 40;
constexpr std::uint64_t diskSize = 8 * tebibyte;
constexpr std::uint64_t hole = Nbd::AllocationFlag::hole | Nbd::AllocationFlag::zero;

Buffer noise(std::size_t size, unsigned int seed) {
  std::mt19937 random(seed);
  Buffer bytes(size);
  std::ranges::generate(bytes, [&] { return static_cast<std::byte>(random()); });
  return bytes;
}

/// The bytes that a file takes on its disk.
std::uint64_t allocated(const std::filesystem::path& file) {
  struct stat status{};
  EXPECT_EQ(::stat(file.c_str(), &status), 0);
  return static_cast<std::uint64_t>(status.st_blocks) * 512;
}

/// A service with a file of 8 TiB, on a disk or in memory, that is one hole at first.
class ExtendedCommands : public testing::TestWithParam<const char*> {
 protected:
  ExtendedCommands() {
    std::string name = std::string(GetParam()) + "/extended_test_XXXXXX";
    const int file = ::mkostemp(name.data(), O_CLOEXEC);
    file_ = name;
    EXPECT_EQ(::ftruncate(file, static_cast<off_t>(diskSize)), 0);
    ::close(file);
    disk_ = nbdd_.publishNode(file_);
  }

  ~ExtendedCommands() override {
    EXPECT_EQ(nbdd_.stop().exitCode, 0) << nbdd_.log();
    std::filesystem::remove(file_);
  }

  [[nodiscard]] ExtendedClient enter() const { return {nbdd_.port(), disk_.name}; }

  std::filesystem::path file_;
  Testing::RunningNbdd nbdd_;
  Testing::RunningNbdd::Export disk_;
};

TEST_P(ExtendedCommands, TheHandshakeTellsWhatThereIs) {
  ExtendedClient client = enter();
  const auto& agreement = client.agreement();
  EXPECT_EQ(agreement.remote.size, diskSize);
  EXPECT_TRUE(agreement.allocationContext.has_value());
  EXPECT_NE(agreement.remote.transmissionFlags & Nbd::TransmissionFlag::blockStatusPayload, 0);
  EXPECT_NE(agreement.remote.transmissionFlags & Nbd::TransmissionFlag::sendDf, 0);
}

TEST_P(ExtendedCommands, ReadsBackWhatItWroteWhateverTheSize) {
  ExtendedClient client = enter();
  unsigned int seed = 0;
  for (const std::size_t size : {1UL, 511UL, 4096UL, 65'535UL, 65'536UL, 65'537UL, 1'048'577UL, 5'000'000UL,
                                 std::size_t{Nbd::portablePayload}}) {
    const Buffer data = noise(size, ++seed);
    const std::uint64_t offset = 5 * tebibyte + seed * 7;
    ASSERT_EQ(client.write(offset, data, seed % 2 == 0 ? CommandFlag::fua : std::uint16_t{0}), Error::none);
    const auto [error, read] = client.read(offset, size, seed % 3 == 0 ? CommandFlag::df : std::uint16_t{0});
    EXPECT_EQ(error, Error::none);
    EXPECT_TRUE(read == data) << size;
    EXPECT_EQ(client.pieceCount(), 1U);
  }
  EXPECT_EQ(client.read(diskSize - 512, 512).second, Buffer(512));
  EXPECT_EQ(client.command(Command::flush, 0, 0), Error::none);
  client.disconnect();
  EXPECT_TRUE(client.raw().isClosedByServer());
}

TEST_P(ExtendedCommands, TilesAReadOfDataAndHoles) {
  ExtendedClient client = enter();
  const Buffer data = noise(mebibyte, 1);
  ASSERT_EQ(client.write(tebibyte + 2 * mebibyte, data), Error::none);
  ASSERT_EQ(client.write(tebibyte + 5 * mebibyte, data), Error::none);
  Buffer expected(8 * mebibyte);
  std::ranges::copy(data, expected.begin() + 2 * mebibyte);
  std::ranges::copy(data, expected.begin() + 5 * mebibyte);
  EXPECT_TRUE(client.read(tebibyte, expected.size()).second == expected);
  EXPECT_EQ(client.pieceCount(), 5U);
  EXPECT_EQ(client.largestPiece(), mebibyte);
  EXPECT_TRUE(client.read(tebibyte, expected.size(), CommandFlag::df).second == expected);
  EXPECT_EQ(client.pieceCount(), 1U);
  EXPECT_EQ(client.read(tebibyte, 4096).second, Buffer(4096));
  EXPECT_EQ(client.read(tebibyte, 0).second, Buffer());
  EXPECT_EQ(client.pieceCount(), 0U);
}

TEST_P(ExtendedCommands, TellsTheStatusOfEverythingInOneReply) {
  ExtendedClient client = enter();
  EXPECT_EQ(client.blockStatus(0, diskSize).extents, (std::vector<Extent>{{diskSize, hole}}));
  ASSERT_EQ(client.write(5 * tebibyte, noise(mebibyte, 1)), Error::none);
  const std::vector<Extent> expected{{5 * tebibyte, hole}, {mebibyte, 0}, {3 * tebibyte - mebibyte, hole}};
  EXPECT_EQ(client.blockStatus(0, diskSize).extents, expected);
  const std::vector<Extent> first{{5 * tebibyte, hole}};
  EXPECT_EQ(client.blockStatus(0, diskSize, CommandFlag::reqOne).extents, first);
  EXPECT_EQ(client.blockStatus(5 * tebibyte, diskSize - 5 * tebibyte).extents,
            std::vector<Extent>(expected.begin() + 1, expected.end()));
  EXPECT_EQ(client.blockStatus(6 * tebibyte, 4096).extents, (std::vector<Extent>{{4096, hole}}));
}

TEST_P(ExtendedCommands, TellsTheStatusOfTheContextsThatAreNamed) {
  ExtendedClient client = enter();
  const std::uint32_t id = client.agreement().allocationContext.value();
  const std::vector<std::uint32_t> selected{id};
  const std::vector<Extent> everything{{diskSize, hole}};
  EXPECT_EQ(client.filteredBlockStatus(0, diskSize, selected).extents, everything);
  EXPECT_EQ(client.filteredBlockStatus(0, diskSize, selected, CommandFlag::reqOne).extents, everything);
  EXPECT_EQ(client.filteredBlockStatus(tebibyte, 4096, selected).extents,
            (std::vector<Extent>{{4096, hole}}));

  const std::vector<std::uint32_t> none;
  const std::vector<std::uint32_t> unknown{id + 1};
  const std::vector<std::uint32_t> twice{id, id};
  const std::vector<std::uint32_t> both{id, id + 1};
  for (const auto& bad : {none, unknown, twice, both}) {
    EXPECT_EQ(client.filteredBlockStatus(0, diskSize, bad).error, Error::inval);
  }
  EXPECT_EQ(client.filteredBlockStatus(0, diskSize + 1, selected).error, Error::inval);
  EXPECT_EQ(client.filteredBlockStatus(1, std::numeric_limits<std::uint64_t>::max(), selected).error,
            Error::inval);
  EXPECT_EQ(client.filteredBlockStatus(0, 0, selected).error, Error::inval);
  EXPECT_EQ(client.filteredBlockStatus(0, diskSize, selected).extents, everything)
      << "nothing is out of step";
}

TEST_P(ExtendedCommands, TrimsEverythingInOneCall) {
  ExtendedClient client = enter();
  for (const std::uint64_t offset : {std::uint64_t{0}, 3 * tebibyte, diskSize - mebibyte}) {
    ASSERT_EQ(client.write(offset, noise(mebibyte, 1), CommandFlag::fua), Error::none);
  }
  ASSERT_GE(allocated(file_), 3 * mebibyte);
  EXPECT_EQ(client.command(Command::trim, 0, diskSize), Error::none);
  EXPECT_EQ(client.blockStatus(0, diskSize).extents, (std::vector<Extent>{{diskSize, hole}}));
  EXPECT_LT(allocated(file_), mebibyte);
}

TEST_P(ExtendedCommands, ZeroesMoreThanFourGibibytesInOneCall) {
  ExtendedClient client = enter();
  const Buffer data = noise(mebibyte, 1);
  const std::uint64_t begin = tebibyte + 4096;
  const std::uint64_t length = 6 * tebibyte + 512;
  for (const std::uint64_t offset : {tebibyte, 4 * tebibyte, begin + length - mebibyte / 2}) {
    ASSERT_EQ(client.write(offset, data), Error::none);
  }
  EXPECT_EQ(client.command(Command::writeZeroes, begin, length, CommandFlag::fua), Error::none);
  EXPECT_EQ(client.read(tebibyte, 4096).second, Buffer(data.begin(), data.begin() + 4096));
  EXPECT_EQ(client.read(begin, mebibyte).second, Buffer(mebibyte));
  EXPECT_EQ(client.read(4 * tebibyte, mebibyte).second, Buffer(mebibyte));
  EXPECT_EQ(client.read(begin + length - mebibyte / 2, mebibyte / 2).second, Buffer(mebibyte / 2));
  EXPECT_EQ(client.read(begin + length, mebibyte / 2).second,
            Buffer(data.begin() + mebibyte / 2, data.end()));
  EXPECT_EQ(client.command(Command::writeZeroes, begin, length, CommandFlag::fastZero), Error::none);
}

/// Storage that cannot make zeroes and keep its space: they would have to be written. (A disk that can might
/// be full afterwards.)
class ExtendedCommandsInMemory : public ExtendedCommands {};

TEST_P(ExtendedCommandsInMemory, ADiskOfZeroesIsNotWritten) {
  ExtendedClient client = enter();
  EXPECT_EQ(client.command(Command::writeZeroes, 0, diskSize, CommandFlag::noHole), Error::overflow);
  EXPECT_EQ(allocated(file_), 0U);
  EXPECT_EQ(client.command(Command::writeZeroes, 0, mebibyte, CommandFlag::noHole), Error::none);
  EXPECT_EQ(allocated(file_), mebibyte);
}

INSTANTIATE_TEST_SUITE_P(Memory, ExtendedCommandsInMemory, testing::Values("/dev/shm"));

TEST_P(ExtendedCommands, CachesWhatItIsAskedToWithoutFillingMemory) {
  ExtendedClient client = enter();
  const std::size_t before = nbdd_.residentKibibytes();
  EXPECT_EQ(client.command(Command::cache, 0, diskSize), Error::none);
  EXPECT_EQ(client.command(Command::cache, 5 * tebibyte, 4096), Error::none);
  EXPECT_LT(nbdd_.residentKibibytes(), before + 64 * 1024);
}

TEST_P(ExtendedCommands, RefusesWhatLiesBehindTheEnd) {
  constexpr std::uint64_t top = std::numeric_limits<std::uint64_t>::max();
  ExtendedClient client = enter();
  for (const auto& [offset, length] : std::vector<std::pair<std::uint64_t, std::uint64_t>>{{0, diskSize + 1},
                                                                                           {1, diskSize},
                                                                                           {diskSize, 1},
                                                                                           {diskSize + 1, 0},
                                                                                           {1, top},
                                                                                           {top, 1},
                                                                                           {top, top}}) {
    EXPECT_EQ(client.command(Command::trim, offset, length), Error::inval) << offset << ", " << length;
    EXPECT_EQ(client.command(Command::cache, offset, length), Error::inval) << offset << ", " << length;
    EXPECT_EQ(client.command(Command::writeZeroes, offset, length), Error::nospc) << offset << ", " << length;
    EXPECT_EQ(client.blockStatus(offset, length).error, Error::inval) << offset << ", " << length;
  }
  EXPECT_EQ(client.read(0, Nbd::maxPayload + 1).first, Error::overflow);
  EXPECT_EQ(client.read(0, diskSize).first, Error::overflow);
  EXPECT_EQ(client.read(diskSize - 1, 2).first, Error::inval);
  EXPECT_EQ(client.write(diskSize - 1, Buffer(2)), Error::nospc);
  EXPECT_EQ(client.write(0, Buffer()), Error::none) << "nothing to do";
  EXPECT_EQ(client.read(0, 512).second, Buffer(512));
}

TEST_P(ExtendedCommands, AReadOnlyExportRefusesEveryChange) {
  const auto readOnly = nbdd_.publish("read-only", mebibyte, true);
  ExtendedClient client(nbdd_.port(), readOnly.name);
  EXPECT_EQ(client.write(0, Buffer(512, std::byte{1})), Error::perm);
  EXPECT_EQ(client.command(Command::trim, 0, mebibyte), Error::perm);
  EXPECT_EQ(client.command(Command::writeZeroes, 0, mebibyte), Error::perm);
  EXPECT_EQ(client.read(0, 512).second, Buffer(512));
}

// Every client works in a range of its own and sees what the others wrote, whatever headers they have.
TEST_P(ExtendedCommands, ServesClientsOfEveryFormAtOnce) {
  constexpr std::uint32_t block = 64 * 1024;
  constexpr std::uint64_t rounds = 200;
  const auto offsetOf = [](std::uint64_t writer, std::uint64_t round) {
    return writer * tebibyte + round % 16 * block;
  };
  const auto last = [](std::uint64_t writer) {
    return noise(block, static_cast<unsigned int>(writer * 1000));
  };
  const auto data = [](std::uint64_t writer, std::uint64_t round) {
    return noise(block, static_cast<unsigned int>(writer * 1000 + (rounds - round - 1) / 16));
  };
  std::vector<std::thread> writers;
  for (std::uint64_t writer = 0; writer < 6; ++writer) {
    writers.emplace_back([&, writer] {
      if (writer % 2 == 0) {
        ExtendedClient client = enter();
        for (std::uint64_t round = 0; round < rounds; ++round) {
          const Buffer written = data(writer, round);
          EXPECT_EQ(client.write(offsetOf(writer, round), written), Error::none);
          EXPECT_TRUE(client.read(offsetOf(writer, round), block).second == written);
        }
      } else {
        Wire::RawClient client(nbdd_.port());
        client.enter(disk_.name);
        for (std::uint64_t round = 0; round < rounds; ++round) {
          const Buffer written = data(writer, round);
          EXPECT_EQ(client.write(offsetOf(writer, round), written), Error::none);
          EXPECT_TRUE(client.read(offsetOf(writer, round), block).second == written);
        }
      }
    });
  }
  for (std::thread& writer : writers) writer.join();

  ExtendedClient extended = enter();
  Wire::RawClient compact(nbdd_.port());
  compact.enter(disk_.name);
  Wire::RawClient structured(nbdd_.port());
  structured.enter(disk_.name, {.structuredReplies = true, .allocationContext = true});
  for (std::uint64_t writer = 0; writer < 6; ++writer) {
    EXPECT_TRUE(extended.read(offsetOf(writer, 0), block).second == last(writer));
    EXPECT_TRUE(compact.read(offsetOf(writer, 0), block).second == last(writer));
  }
  structured.request({.type = Command::blockStatus, .cookie = 1, .offset = 0, .length = 0xffff'f000});
  const auto chunk = structured.receiveChunk();
  std::vector<Extent> found;
  EXPECT_TRUE(Nbd::decodeBlockStatus(chunk.header.type, chunk.payload, found).has_value());
  EXPECT_EQ(found, (std::vector<Extent>{{16 * block, 0}, {0xffff'f000 - 16 * block, hole}}));
}

INSTANTIATE_TEST_SUITE_P(Storage, ExtendedCommands, testing::Values("/tmp", "/dev/shm"),
                         [](const auto& row) { return row.index == 0 ? "Disk" : "Memory"; });

}  // namespace
