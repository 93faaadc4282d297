#include "nbdd/server/receive_moderation.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace Nbdd {
namespace {

/// A client that keeps `depth` requests of `size` bytes in flight, and the server that serves it. The guard
/// fires only when the client has nothing more to send.
struct Exchange {
  ReceiveModeration moderation;
  std::size_t depth;
  std::size_t size = 28;
  std::size_t waitsInVain = 0;

  /// One wait and the turn behind it, in which at least `least` requests have come. Returns how many were
  /// taken.
  std::size_t turn(std::size_t least = 1) {
    std::size_t arrived = std::min(depth, std::max(least, (moderation.threshold() + size - 1) / size));
    if (arrived * size < moderation.threshold()) {
      arrived = depth;
      ++waitsInVain;
      while (moderation.guardExpired(arrived * size)) {
      }
    }
    moderation.turned(arrived, arrived * size);
    return arrived;
  }

  void turns(std::size_t count, std::size_t least = 1) {
    for (std::size_t done = 0; done < count; ++done) turn(least);
  }
};

TEST(ReceiveModeration, AClientThatWaitsForEachReplyIsNeverKeptWaiting) {
  Exchange exchange{.moderation = {}, .depth = 1};
  for (int count = 0; count < 100'000; ++count) {
    ASSERT_EQ(exchange.moderation.threshold(), 1U);
    exchange.turn();
  }
}

TEST(ReceiveModeration, ADeepQueueIsTakenAQuarterAtATime) {
  for (const std::size_t depth : {16U, 20U, 32U}) {
    Exchange exchange{.moderation = {}, .depth = depth};
    exchange.turns(300, 2);
    EXPECT_EQ(exchange.moderation.threshold(), depth / 4 * exchange.size) << "depth " << depth;
  }
}

TEST(ReceiveModeration, DeeperQueuesAreNotWaitedForLonger) {
  Exchange exchange{.moderation = {}, .depth = 500};
  exchange.turns(300, 2);
  EXPECT_EQ(exchange.moderation.threshold(), 8 * exchange.size);
}

TEST(ReceiveModeration, LargeRequestsAreNotCollected) {
  Exchange exchange{.moderation = {}, .depth = 32, .size = 60'000};
  exchange.turns(300, 2);
  EXPECT_LE(exchange.moderation.threshold(), 128U * 1024);
}

TEST(ReceiveModeration, AShallowQueueIsMeasuredLessAndLessOften) {
  Exchange exchange{.moderation = {}, .depth = 15};
  exchange.turns(1'000'000, 2);
  EXPECT_LE(exchange.waitsInVain, 30U);
  EXPECT_EQ(exchange.moderation.threshold(), 1U);
}

TEST(ReceiveModeration, AQueueThatBecomesShallowIsNoticed) {
  Exchange exchange{.moderation = {}, .depth = 32};
  exchange.turns(300, 2);
  ASSERT_GT(exchange.moderation.threshold(), 1U);
  exchange.depth = 2;
  exchange.waitsInVain = 0;
  exchange.turns(1000, 2);
  EXPECT_EQ(exchange.moderation.threshold(), 1U);
  EXPECT_LE(exchange.waitsInVain, 8U);
}

TEST(ReceiveModeration, AQueueThatBecomesDeepIsNoticed) {
  Exchange exchange{.moderation = {}, .depth = 16};
  exchange.turns(300, 2);
  ASSERT_EQ(exchange.moderation.threshold(), 4 * exchange.size);
  exchange.depth = 32;
  exchange.turns(20'000, 2);
  EXPECT_EQ(exchange.moderation.threshold(), 8 * exchange.size);
}

TEST(ReceiveModeration, AWaitInVainNowAndThenChangesNothing) {
  Exchange exchange{.moderation = {}, .depth = 32};
  exchange.turns(300, 2);
  for (int count = 0; count < 100; ++count) {
    EXPECT_FALSE(exchange.moderation.guardExpired(28));
    EXPECT_EQ(exchange.moderation.threshold(), 1U) << "what is there is taken";
    exchange.moderation.turned(1, 28);
    exchange.turns(20, 2);
    EXPECT_GT(exchange.moderation.threshold(), 1U);
  }
}

TEST(ReceiveModeration, AMeasurementGoesOnWhileMoreArrives) {
  ReceiveModeration moderation;
  moderation.turned(2, 56);
  ASSERT_GT(moderation.threshold(), 56U) << "it measures";
  EXPECT_TRUE(moderation.guardExpired(28 * 5));
  EXPECT_TRUE(moderation.guardExpired(28 * 9));
  EXPECT_TRUE(moderation.guardExpired(28 * 9)) << "a client may be interrupted for a moment";
  EXPECT_TRUE(moderation.guardExpired(28 * 16));
  EXPECT_TRUE(moderation.guardExpired(28 * 16));
  EXPECT_FALSE(moderation.guardExpired(28 * 16));
  moderation.turned(16, 28 * 16);
  EXPECT_EQ(moderation.threshold(), 4U * 28);
}

TEST(ReceiveModeration, ATurnWithoutRequestsChangesNothing) {
  ReceiveModeration moderation;
  moderation.turned(0, 0);
  moderation.turned(0, 1000);
  EXPECT_EQ(moderation.threshold(), 1U);
}

}  // namespace
}  // namespace Nbdd
