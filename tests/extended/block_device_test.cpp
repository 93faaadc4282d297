#include <gtest/gtest.h>
#include <sys/stat.h>

#include <optional>
#include <string>

#include "nbd/limits.h"
#include "tests/support/extended_client.h"
#include "tests/support/loop_device.h"
#include "tests/support/running_nbdd.h"

namespace {

using Nbd::Command;
using Nbd::Error;
using Nbd::Extent;
using Wire::Buffer;
using Wire::ExtendedClient;

constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;
constexpr std::uint64_t deviceSize = std::uint64_t{8} << 30;

/// A service that exports a block device of 8 GiB, made of a file without a byte in it. The parameter is the
/// device's block size.
class BlockDevice : public testing::TestWithParam<std::uint32_t> {
 protected:
  void SetUp() override {
    file_ = directory_.sparse("backing", deviceSize);
    device_.emplace(file_, GetParam());
    if (device_->path().empty()) GTEST_SKIP() << "no loop devices here";
    export_ = nbdd_.publishNode(device_->path());
  }

  void TearDown() override {
    EXPECT_EQ(nbdd_.stop().exitCode, 0) << nbdd_.log();
    device_.reset();
  }

  [[nodiscard]] std::uint64_t allocated() const {
    struct stat status{};
    EXPECT_EQ(::stat(file_.c_str(), &status), 0);
    return static_cast<std::uint64_t>(status.st_blocks) * 512;
  }

  Testing::TemporaryDirectory directory_;
  std::string file_;
  std::optional<Testing::LoopDevice> device_;
  Testing::RunningNbdd nbdd_;
  Testing::RunningNbdd::Export export_;
};

TEST_P(BlockDevice, IsServedToTheByteWhateverItsBlocks) {
  ExtendedClient client(nbdd_.port(), export_.name);
  const Nbd::RemoteExport& remote = client.agreement().remote;
  EXPECT_EQ(remote.size, deviceSize);
  EXPECT_EQ(remote.minimumBlock, 1U);
  EXPECT_GE(remote.preferredBlock, GetParam());
  EXPECT_EQ(remote.preferredBlock & (remote.preferredBlock - 1), 0U);

  const Buffer data(mebibyte, std::byte{0x5a});
  constexpr std::uint64_t offset = (std::uint64_t{5} << 30) + 777;
  ASSERT_EQ(client.write(offset, data, Nbd::CommandFlag::fua), Error::none);
  EXPECT_EQ(client.read(offset, data.size()).second, data);
  EXPECT_EQ(client.read(offset - 777, 777).second, Buffer(777));
  EXPECT_EQ(client.command(Command::flush, 0, 0), Error::none);
  EXPECT_GE(allocated(), mebibyte);

  // Zeroes begin and end inside of blocks, and nothing beside them changes.
  ASSERT_EQ(client.command(Command::writeZeroes, offset + 100, 500'001), Error::none);
  Buffer expected = data;
  std::fill_n(expected.begin() + 100, 500'001, std::byte{0});
  EXPECT_EQ(client.read(offset, data.size()).second, expected);

  // So does what is trimmed, but that part of a block is left alone.
  ASSERT_EQ(client.command(Command::trim, offset + 600'000, 100'001), Error::none);
  EXPECT_EQ(client.read(offset, 600'000).second, Buffer(expected.begin(), expected.begin() + 600'000));
  EXPECT_EQ(client.read(offset + 700'001, 1000).second, Buffer(1000, std::byte{0x5a}));
  EXPECT_EQ(client.blockStatus(0, deviceSize).extents, (std::vector<Extent>{{deviceSize, 0}}));
}

TEST_P(BlockDevice, IsTrimmedAndZeroedWholeInOneCall) {
  ExtendedClient client(nbdd_.port(), export_.name);
  const Buffer data(mebibyte, std::byte{0x5a});
  for (const Command command : {Command::trim, Command::writeZeroes}) {
    for (const std::uint64_t offset : {std::uint64_t{0}, deviceSize / 2, deviceSize - mebibyte}) {
      ASSERT_EQ(client.write(offset, data, Nbd::CommandFlag::fua), Error::none);
    }
    ASSERT_GE(allocated(), 3 * mebibyte);
    EXPECT_EQ(client.command(command, 0, deviceSize), Error::none);
    EXPECT_LT(allocated(), mebibyte) << "the space has come back";
    EXPECT_EQ(client.read(deviceSize / 2, mebibyte).second, Buffer(mebibyte));
  }
}

INSTANTIATE_TEST_SUITE_P(BlockSizes, BlockDevice, testing::Values(512, 4096),
                         [](const auto& row) { return std::to_string(row.param); });

}  // namespace
