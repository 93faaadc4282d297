#include "nbdd/reservations/attempt_limiter.h"

#include <gtest/gtest.h>

#include <string>

namespace Nbdd::Reservations {
namespace {

using namespace std::chrono_literals;
using Clock = AttemptLimiter::Clock;

constexpr AttemptLimiter::Measure measure{.atOnce = 3, .pace = 5s, .longest = 10s, .networks = 4};

class AttemptLimiterTest : public ::testing::Test {
 protected:
  std::optional<Clock::duration> ask(const std::string& network) { return limiter_.ask(network, now_); }

  AttemptLimiter limiter_{measure};
  Clock::time_point now_{1000h};
};

TEST_F(AttemptLimiterTest, AFewAreMadeAtOnceThenOneAfterAnother) {
  for (int attempt = 0; attempt < 3; ++attempt) EXPECT_EQ(ask("a"), 0s);
  EXPECT_EQ(ask("a"), 5s);
  EXPECT_EQ(ask("a"), 10s);
  EXPECT_EQ(ask("a"), std::nullopt);
  EXPECT_EQ(ask("a"), std::nullopt);  // and asking in vain does not make it longer
  now_ += 5s;
  EXPECT_EQ(ask("a"), 10s);
}

TEST_F(AttemptLimiterTest, InTheLongRunThePaceHolds) {
  int made = 0;
  for (int second = 0; second < 1000; ++second) {
    while (ask("a")) ++made;
    now_ += 1s;
  }
  EXPECT_LE(made, 1000 / 5 + 5 + 3);
  EXPECT_GE(made, 1000 / 5);
}

TEST_F(AttemptLimiterTest, TimeMakesEverythingGood) {
  for (int attempt = 0; attempt < 5; ++attempt) ask("a");
  now_ += 25s;
  for (int attempt = 0; attempt < 3; ++attempt) EXPECT_EQ(ask("a"), 0s);
}

TEST_F(AttemptLimiterTest, ARightPasswordMakesEverythingGood) {
  for (int attempt = 0; attempt < 5; ++attempt) ask("a");
  limiter_.succeeded("a");
  for (int attempt = 0; attempt < 3; ++attempt) EXPECT_EQ(ask("a"), 0s);
}

TEST_F(AttemptLimiterTest, NobodyPaysForOthers) {
  while (ask("a")) {
  }
  EXPECT_EQ(ask("b"), 0s);
}

TEST_F(AttemptLimiterTest, WhatIsHeldIsBounded) {
  for (int network = 0; network < 1000; ++network) ask("n" + std::to_string(network));
  EXPECT_EQ(limiter_.networks(), 4U);
  EXPECT_EQ(ask("one more"), std::nullopt);  // those that are not told apart share one measure
  EXPECT_EQ(ask("n0"), 0s);                  // those that are known are not concerned
  now_ += 60s;
  EXPECT_EQ(ask("one more"), 0s);
}

TEST(NetworkOf, AddressesOfOneSubscriberAreOne) {
  EXPECT_EQ(networkOf("192.0.2.7"), "192.0.2.7");
  EXPECT_NE(networkOf("192.0.2.7"), networkOf("192.0.2.8"));
  EXPECT_EQ(networkOf("2001:db8:1:2:3:4:5:6"), "2001:db8:1:2::");
  EXPECT_EQ(networkOf("2001:db8:1:2::1"), networkOf("2001:db8:1:2:ffff::9"));
  EXPECT_NE(networkOf("2001:db8:1:2::1"), networkOf("2001:db8:1:3::1"));
  EXPECT_EQ(networkOf("fe80::1%2"), networkOf("fe80::2%2"));
  EXPECT_EQ(networkOf("::ffff:192.0.2.7"), "192.0.2.7");
}

}  // namespace
}  // namespace Nbdd::Reservations
