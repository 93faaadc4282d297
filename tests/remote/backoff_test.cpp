#include "nbdd/remote/backoff.h"

#include <gtest/gtest.h>

#include <set>

namespace Nbdd::Remote {
namespace {

using namespace std::chrono_literals;

TEST(Backoff, DoublesUpToItsLongestAndVaries) {
  std::set<std::chrono::milliseconds> firsts;
  for (std::uint32_t seed = 1; seed <= 50; ++seed) {
    Backoff backoff({.first = 100ms, .longest = 1000ms}, seed);
    for (const auto most : {100ms, 200ms, 400ms, 800ms, 1000ms, 1000ms}) {
      const std::chrono::milliseconds pause = backoff.next();
      if (most == 100ms) firsts.insert(pause);
      EXPECT_GE(pause, most / 2);
      EXPECT_LE(pause, most);
    }
    backoff.reset();
    EXPECT_LE(backoff.next(), 100ms);
  }
  EXPECT_GT(firsts.size(), 10U);
}

}  // namespace
}  // namespace Nbdd::Remote
