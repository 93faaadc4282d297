#include "nbdd/exports/known_data.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <vector>

#include "nbdd/limits.h"

namespace Nbdd {
namespace {

constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;

TEST(KnownData, TellsTheEndOfWhatWasLearned) {
  KnownData known;
  EXPECT_EQ(known.endAt(0), std::nullopt);
  known.learn(known.generation(), 2 * mebibyte, 5 * mebibyte);
  EXPECT_EQ(known.endAt(2 * mebibyte - 1), std::nullopt);
  EXPECT_EQ(known.endAt(2 * mebibyte), 5 * mebibyte);
  EXPECT_EQ(known.endAt(5 * mebibyte - 1), 5 * mebibyte);
  EXPECT_EQ(known.endAt(5 * mebibyte), std::nullopt);
}

TEST(KnownData, JoinsWhatTouches) {
  KnownData known;
  for (const std::uint64_t begin : {0U, 4U, 8U}) {
    known.learn(known.generation(), begin * mebibyte, (begin + 2) * mebibyte);
  }
  EXPECT_EQ(known.endAt(0), 2 * mebibyte);
  known.learn(known.generation(), 2 * mebibyte, 9 * mebibyte);
  EXPECT_EQ(known.endAt(0), 10 * mebibyte);
}

TEST(KnownData, DoesNotRememberWhatIsQuicklyFound) {
  KnownData known;
  known.learn(known.generation(), 0, mebibyte - 1);
  EXPECT_EQ(known.endAt(0), std::nullopt);
}

TEST(KnownData, ForgetsWhenHolesAreMade) {
  KnownData known;
  known.learn(known.generation(), 0, mebibyte);
  known.forget();
  EXPECT_EQ(known.endAt(0), std::nullopt);
}

TEST(KnownData, DoesNotBelieveALookFromBeforeTheHole) {
  KnownData known;
  const std::uint64_t before = known.generation();
  known.forget();
  known.learn(before, 0, mebibyte);
  EXPECT_EQ(known.endAt(0), std::nullopt);
}

TEST(KnownData, IsBounded) {
  KnownData known;
  for (std::uint64_t run = 0; run <= Limits::knownDataRuns; ++run) {
    known.learn(known.generation(), run * 4 * mebibyte, (run * 4 + 2) * mebibyte);
  }
  EXPECT_EQ(known.endAt(0), std::nullopt) << "the first ones have gone";
  EXPECT_TRUE(known.endAt(Limits::knownDataRuns * 4 * mebibyte).has_value()) << "the last one is there";
}

// Against a map of every mebibyte.
RC_GTEST_PROP(KnownDataProperty, AgreesWithAMap, ()) {
  KnownData known;
  std::vector<bool> isData(64);
  const auto learned = *rc::gen::container<std::vector<std::pair<std::size_t, std::size_t>>>(
      rc::gen::pair(rc::gen::inRange<std::size_t>(0, 60), rc::gen::inRange<std::size_t>(1, 4)));
  for (const auto& [begin, length] : learned) {
    known.learn(known.generation(), begin * mebibyte, (begin + length) * mebibyte);
    std::fill_n(isData.begin() + static_cast<std::ptrdiff_t>(begin), length, true);
  }
  for (std::size_t index = 0; index < isData.size(); ++index) {
    std::size_t end = index;
    while (end < isData.size() && isData[end]) ++end;
    const auto expected = end > index ? std::optional(end * mebibyte) : std::nullopt;
    RC_ASSERT(known.endAt(index * mebibyte) == expected);
    RC_ASSERT(known.endAt(index * mebibyte + 4096) == expected);
  }
}

}  // namespace
}  // namespace Nbdd
