#include "nbdd/exports/mapping.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "nbdd/io/file_descriptor.h"

namespace Nbdd {
namespace {

constexpr std::size_t fileSize = std::size_t{1024} * 1024 + 100;

class MappingTest : public ::testing::Test {
 protected:
  MappingTest() {
    for (std::size_t index = 0; index < content.size(); ++index) {
      content[index] = static_cast<std::byte>(index * 7 + index / 251);
    }
    EXPECT_EQ(::pwrite(file.number(), content.data(), content.size(), 0),
              static_cast<ssize_t>(content.size()));
  }

  std::vector<std::byte> contentNow() const {
    std::vector<std::byte> now(fileSize);
    EXPECT_EQ(::pread(file.number(), now.data(), now.size(), 0), static_cast<ssize_t>(now.size()));
    return now;
  }

  Io::FileDescriptor file{::memfd_create("mapping", MFD_CLOEXEC)};
  std::vector<std::byte> content = std::vector<std::byte>(fileSize);
};

TEST_F(MappingTest, ReadsWhatStandsInTheFile) {
  const auto mapping = Mapping::of(file.number(), fileSize, false);
  ASSERT_TRUE(mapping);
  for (const std::size_t length : {1UL, 63UL, 4096UL, 5000UL, 200'000UL}) {
    for (const std::size_t offset : {0UL, 1UL, 4095UL, 65'536UL, fileSize - length}) {
      std::vector<std::byte> target(length);
      ASSERT_TRUE(mapping->read(target, offset));
      EXPECT_TRUE(std::ranges::equal(target, std::span(content).subspan(offset, length)));
    }
  }
}

TEST_F(MappingTest, WritesThereAndNowhereElse) {
  const auto mapping = Mapping::of(file.number(), fileSize, true);
  ASSERT_TRUE(mapping);
  std::uint8_t value = 1;
  for (const std::size_t length : {1UL, 63UL, 64UL, 4096UL, 131'072UL, 131'073UL, 300'001UL}) {
    for (const std::size_t offset : {0UL, 1UL, 63UL, 4095UL, fileSize - length}) {
      const std::vector<std::byte> source(length, std::byte{++value});
      ASSERT_TRUE(mapping->write(source, offset));
      std::ranges::copy(source, content.begin() + static_cast<std::ptrdiff_t>(offset));
      ASSERT_EQ(contentNow(), content) << length << " bytes at " << offset;
    }
  }
}

TEST_F(MappingTest, SaysWhenTheBytesAreGone) {
  const auto mapping = Mapping::of(file.number(), fileSize, true);
  ASSERT_TRUE(mapping);
  ASSERT_EQ(::ftruncate(file.number(), 4096), 0);
  std::vector<std::byte> bytes(200'000);
  for (int count = 0; count < 3; ++count) {
    EXPECT_TRUE(mapping->read(std::span(bytes).first(4096), 0));
    EXPECT_FALSE(mapping->read(std::span(bytes).first(4096), 8192));
    EXPECT_FALSE(mapping->read(bytes, 0)) << "half of it is there";
    EXPECT_FALSE(mapping->write(bytes, 8192));
    EXPECT_FALSE(mapping->write(std::span(bytes).first(10), 8192));
  }
}

TEST_F(MappingTest, EachThreadIsToldForItself) {
  const auto mapping = Mapping::of(file.number(), fileSize, true);
  ASSERT_TRUE(mapping);
  ASSERT_EQ(::ftruncate(file.number(), 65'536), 0);
  const auto copies = [&](std::uint64_t offset, bool there) {
    std::vector<std::byte> bytes(4096);
    for (int count = 0; count < 2000; ++count) ASSERT_EQ(mapping->read(bytes, offset), there);
  };
  const std::jthread one(copies, 0, true);
  const std::jthread other(copies, 131'072, false);
}

TEST_F(MappingTest, NothingThatCannotBeMappedIs) {
  EXPECT_FALSE(Mapping::of(file.number(), 0, false));
  EXPECT_FALSE(Mapping::of(-1, fileSize, false));
  EXPECT_FALSE(Mapping::of(file.number(), std::uint64_t{1} << 63U, false));
}

TEST_F(MappingTest, BusErrorsOfOthersStayFatal) {
  ASSERT_TRUE(Mapping::of(file.number(), fileSize, true));
  EXPECT_EXIT(::raise(SIGBUS), ::testing::KilledBySignal(SIGBUS), "");
}

}  // namespace
}  // namespace Nbdd
