#include "nbdd/compression/block_codec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "nbd/compressed.h"
#include "nbdd/limits.h"

namespace Nbdd {
namespace {

using Buffer = std::vector<std::byte>;

constexpr std::uint32_t blockLength = 4096;

Buffer noise(std::size_t length, std::uint32_t seed = 1) {
  std::mt19937 random(seed);
  Buffer bytes(length);
  for (std::byte& byte : bytes) byte = static_cast<std::byte>(random());
  return bytes;
}

Buffer text(std::size_t length) {
  std::string words;
  for (int line = 0; words.size() < length; ++line)
    words += "line " + std::to_string(line * 7919) + " of a log that says the same again\n";
  const auto bytes = std::as_bytes(std::span(words)).first(length);
  return {bytes.begin(), bytes.end()};
}

Buffer joined(Buffer one, const Buffer& other) {
  one.insert(one.end(), other.begin(), other.end());
  return one;
}

/// All blocks tried.
Buffer compressed(const Buffer& plain, std::uint32_t block = blockLength, Effort effort = Effort::quick) {
  std::vector<Attempt> attempts(Nbd::blockCount(plain.size(), block), Attempt::hopeful);
  Buffer output(plain.size());
  output.resize(compressBlocks(plain, block, effort, attempts, output));
  return output;
}

TEST(BlockCodec, WhatIsCompressedComesBack) {
  for (const Effort effort : {Effort::quick, Effort::thorough, Effort::quick}) {
    for (const std::size_t length : {2048U, 4096U, 4097U, 8191U, 100'000U}) {
      for (const Buffer& plain : {text(length), Buffer(length), joined(text(length), noise(length / 2))}) {
        const Buffer blocks = compressed(plain, blockLength, effort);
        ASSERT_TRUE(Nbd::isCompressedLength(blocks.size(), plain.size())) << length;
        Buffer again(plain.size());
        EXPECT_TRUE(expandBlocks(blocks, blockLength, again));
        EXPECT_EQ(again, plain);
      }
    }
  }
}

/// What repeats itself in short pieces from far away: a word of `vocabulary` after the other.
Buffer words(std::size_t length, std::size_t vocabulary) {
  std::mt19937 random(5);
  std::vector<Buffer> known;
  for (std::uint32_t word = 0; word < vocabulary; ++word) known.push_back(noise(8, 100 + word));
  Buffer bytes;
  while (bytes.size() < length) bytes = joined(std::move(bytes), known[random() % vocabulary]);
  bytes.resize(length);
  return bytes;
}

TEST(BlockCodec, ThoroughFindsWhatQuickForgets) {
  const Buffer plain = words(Limits::compressionBlock, 2000);
  const Buffer quick = compressed(plain, Limits::compressionBlock, Effort::quick);
  const Buffer thorough = compressed(plain, Limits::compressionBlock, Effort::thorough);
  ASSERT_FALSE(thorough.empty());
  EXPECT_LT(thorough.size(), quick.empty() ? plain.size() : quick.size());
}

TEST(BlockCodec, EffortIsForANetworkThatLags) {
  EXPECT_EQ(effortFor(0), Effort::quick);
  EXPECT_EQ(effortFor(Limits::compressionBacklog - 1), Effort::quick);
  EXPECT_EQ(effortFor(Limits::compressionBacklog), Effort::thorough);
  EXPECT_EQ(effortFor(std::size_t{1} << 40), Effort::thorough);
}

TEST(BlockCodec, WhatDoesNotShrinkEnoughIsNotCompressed) {
  EXPECT_TRUE(compressed(noise(100'000)).empty());
  EXPECT_TRUE(compressed(joined(noise(100'000), text(3000))).empty());
}

TEST(BlockCodec, ABlockThatDoesNotShrinkStaysAsItIs) {
  const Buffer plain = joined(text(blockLength), noise(blockLength));
  std::vector<Attempt> attempts(2, Attempt::hopeful);
  Buffer output(plain.size());
  output.resize(compressBlocks(plain, blockLength, Effort::quick, attempts, output));
  EXPECT_EQ(attempts, (std::vector{Attempt::hopeful, Attempt::none}));
  const auto blocks = Nbd::splitBlocks(output, plain.size(), blockLength);
  ASSERT_TRUE(blocks);
  EXPECT_FALSE(blocks->front().isPlain);
  EXPECT_TRUE(blocks->back().isPlain);
}

TEST(BlockCodec, DamagedBlocksAreNoticed) {
  const Buffer plain = text(3 * blockLength);
  const Buffer blocks = compressed(plain);
  Buffer target(plain.size());
  for (std::size_t length = 0; length < blocks.size(); ++length)
    EXPECT_FALSE(expandBlocks(std::span(blocks).first(length), blockLength, target)) << length;
  EXPECT_FALSE(expandBlocks(joined(blocks, Buffer(1)), blockLength, target));
  Buffer shorter(plain.size() - 1);
  EXPECT_FALSE(expandBlocks(blocks, blockLength, shorter));
  Buffer longer(plain.size() + 1);
  EXPECT_FALSE(expandBlocks(blocks, blockLength, longer));
}

/// One block that says of itself what the test wants.
Buffer framed(const Buffer& data, std::uint32_t length, bool isPlain = false) {
  Buffer block(Nbd::blockHeadSize);
  Nbd::storeBlockHead(std::span(block).first<Nbd::blockHeadSize>(), length, isPlain);
  return joined(block, data);
}

TEST(BlockCodec, ABombFillsNoMoreThanItMay) {
  // A million zeroes in some forty bytes, sent for 4096.
  const Buffer bomb = compressed(Buffer(1 << 20), 1 << 20);
  Buffer memory(blockLength + 64, std::byte{7});
  EXPECT_FALSE(expandBlocks(bomb, blockLength, std::span(memory).first(blockLength)));
  EXPECT_EQ(std::ranges::count(memory, std::byte{7}), 64 + blockLength);
  const Buffer content(bomb.begin() + Nbd::blockHeadSize, bomb.end());
  EXPECT_FALSE(expandBlocks(framed(content, static_cast<std::uint32_t>(content.size())), blockLength,
                            std::span(memory).first(blockLength)));
  EXPECT_TRUE(std::ranges::all_of(std::span(memory).subspan(blockLength),
                                  [](std::byte byte) { return byte == std::byte{7}; }));
}

TEST(BlockCodec, FramesThatLieAreRefused) {
  const auto splits = [](const Buffer& payload, std::uint64_t plain) {
    return Nbd::splitBlocks(payload, plain, blockLength).has_value();
  };
  const Buffer some(100);
  EXPECT_TRUE(splits(framed(some, 100), blockLength));
  EXPECT_FALSE(splits(framed(some, 99), blockLength));
  EXPECT_FALSE(splits(framed(some, 101), blockLength));
  EXPECT_FALSE(splits(framed({}, 0), blockLength));
  EXPECT_FALSE(splits(framed(some, 100), 100));                // not shorter than what it stands for
  EXPECT_FALSE(splits(framed(some, 100, true), blockLength));  // plain, but not as long
  EXPECT_FALSE(splits(framed(some, 100), 2 * blockLength));    // one block is missing
  EXPECT_FALSE(splits(joined(framed(some, 100), some), blockLength));
  EXPECT_FALSE(splits(some, std::uint64_t{1} << 62));  // blocks without number
}

TEST(CompressionSampler, NoiseIsTriedLessAndLess) {
  CompressionSampler sampler;
  constexpr int transfers = 1000;
  int tried = 0;
  for (std::uint32_t transfer = 0; transfer < transfers; ++transfer) {
    const Buffer plain = noise(4 * blockLength, transfer);
    const std::vector<Attempt> attempts = sampler.choose(plain, blockLength);
    tried += static_cast<int>(std::ranges::count(attempts, Attempt::doubtful));
    EXPECT_EQ(std::ranges::count(attempts, Attempt::hopeful), 0);
    sampler.note(attempts, std::vector(attempts.size(), Attempt::none));
  }
  EXPECT_GT(tried, 0);
  EXPECT_LE(tried, 4 * transfers / static_cast<int>(Limits::compressionPassedOver) + 16);
}

TEST(CompressionSampler, NoiseDoesNotKeepTextFromBeingTried) {
  CompressionSampler sampler;
  for (std::uint32_t transfer = 0; transfer < 100; ++transfer) {
    const Buffer plain = joined(noise(blockLength, transfer), text(blockLength));
    const std::vector<Attempt> attempts = sampler.choose(plain, blockLength);
    ASSERT_EQ(attempts.size(), 2U);
    EXPECT_EQ(attempts.back(), Attempt::hopeful);
    sampler.note(attempts, {Attempt::none, Attempt::hopeful});
  }
}

TEST(CompressionSampler, NoiseThatRepeatsItselfIsFound) {
  CompressionSampler sampler;
  const Buffer once = noise(blockLength);
  std::size_t allTried = 0;
  for (int transfer = 0; transfer < 200; ++transfer) {
    const Buffer plain = joined(once, once);
    std::vector<Attempt> attempts = sampler.choose(plain, 2 * blockLength);
    const std::vector<Attempt> before = attempts;
    if (attempts.empty()) continue;
    Buffer output(plain.size());
    EXPECT_GT(compressBlocks(plain, 2 * blockLength, Effort::quick, attempts, output), 0U);
    sampler.note(before, attempts);
    ++allTried;
  }
  EXPECT_EQ(allTried, 200U);
}

}  // namespace
}  // namespace Nbdd
