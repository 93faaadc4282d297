#include "nbd/read_reply.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "nbd/limits.h"

namespace {

using Nbd::Error;
using Nbd::ReadReply;
using Nbd::Request;

constexpr std::uint64_t top = std::numeric_limits<std::uint64_t>::max();
constexpr Request request{.offset = 1000, .length = 100};

TEST(ReadReply, OnePieceMayBeAll) {
  ReadReply reply(request);
  EXPECT_FALSE(reply.isComplete());
  EXPECT_TRUE(reply.takeContent(1000, 100));
  EXPECT_TRUE(reply.isComplete());
  EXPECT_EQ(reply.error(), Error::none);
}

TEST(ReadReply, NothingIsWholeFromTheStart) {
  ReadReply reply({.offset = 1000, .length = 0});
  EXPECT_TRUE(reply.isComplete());
  EXPECT_FALSE(reply.takeContent(1000, 1));
}

TEST(ReadReply, AMissingByteIsMissed) {
  ReadReply reply(request);
  EXPECT_TRUE(reply.takeContent(1000, 49));
  EXPECT_TRUE(reply.takeContent(1050, 50));
  EXPECT_FALSE(reply.isComplete());
  EXPECT_TRUE(reply.takeContent(1049, 1));
  EXPECT_TRUE(reply.isComplete());
}

struct Piece {
  std::uint64_t offset;
  std::uint64_t length;
};

TEST(ReadReply, RefusesWhatIsOutsideOrThereAlready) {
  const Piece bad[] = {{999, 1},   {999, 2},    {1100, 1},   {1099, 2},      {1000, 101},      {0, top},
                       {top, top}, {1000, top}, {1050, 0},   {1020, 10},     {1015, 10},       {1025, 10},
                       {1015, 20}, {1022, 2},   {1000, 100}, {top - 10, 20}, {1000, top - 999}};
  for (const auto& [offset, length] : bad) {
    ReadReply reply(request);
    ASSERT_TRUE(reply.takeContent(1020, 10));
    EXPECT_FALSE(reply.takeContent(offset, length)) << offset << " and " << length;
  }
}

TEST(ReadReply, OneFragmentMeansOne) {
  ReadReply reply({.flags = Nbd::CommandFlag::df, .offset = 1000, .length = 100});
  EXPECT_TRUE(reply.takeContent(1000, 50));
  EXPECT_FALSE(reply.takeContent(1050, 50));
}

TEST(ReadReply, AnErrorEndsTheWait) {
  ReadReply reply(request);
  EXPECT_TRUE(reply.takeContent(1000, 10));
  EXPECT_TRUE(reply.takeError({.error = Error::io, .offset = 1010}));
  EXPECT_TRUE(reply.takeError({.error = Error::nospc, .offset = std::nullopt}));
  EXPECT_TRUE(reply.isComplete());
  EXPECT_EQ(reply.error(), Error::io) << "the first one";
}

TEST(ReadReply, AnErrorIsInsideOfTheRequest) {
  for (const std::uint64_t offset : {std::uint64_t{0}, std::uint64_t{999}, std::uint64_t{1101}, top}) {
    ReadReply reply(request);
    EXPECT_FALSE(reply.takeError({.error = Error::io, .offset = offset})) << offset;
  }
}

// Every other byte, as a server would send that wants to be remembered.
TEST(ReadReply, PiecesThatLieApartAreBounded) {
  ReadReply reply({.offset = 0, .length = 4 * Nbd::maxReadPieces});
  for (std::uint64_t index = 0; index < Nbd::maxReadPieces; ++index) {
    ASSERT_TRUE(reply.takeContent(2 * index, 1));
  }
  EXPECT_FALSE(reply.takeContent(2 * Nbd::maxReadPieces, 1));
}

TEST(ReadReply, PiecesInOrderAreNotCounted) {
  ReadReply reply({.offset = 0, .length = 100 * Nbd::maxReadPieces});
  for (std::uint64_t index = 0; index < 100 * Nbd::maxReadPieces; ++index) {
    ASSERT_TRUE(reply.takeContent(index, 1));
  }
  EXPECT_TRUE(reply.isComplete());
}

TEST(ReadReplyDeath, ARequestThatWrapsEndsTheProgram) {
  EXPECT_DEATH(ReadReply({.offset = top, .length = 2}), "");
}

// Against a map of every byte.
RC_GTEST_PROP(ReadReplyProperty, AgreesWithAMapOfBytes, ()) {
  constexpr std::uint64_t length = 40;
  const auto pieces = *rc::gen::container<std::vector<std::pair<std::uint64_t, std::uint64_t>>>(
      rc::gen::pair(rc::gen::inRange<std::uint64_t>(95, 145), rc::gen::inRange<std::uint64_t>(0, 12)));
  ReadReply reply({.offset = 100, .length = length});
  std::vector<bool> isThere(length);
  for (const auto& [offset, size] : pieces) {
    bool fits = size > 0 && offset >= 100 && offset + size <= 100 + length;
    for (std::uint64_t at = offset; fits && at < offset + size; ++at) fits = !isThere[at - 100];
    RC_ASSERT(reply.takeContent(offset, size) == fits);
    if (!fits) return;  // the client disconnects
    std::fill_n(isThere.begin() + static_cast<std::ptrdiff_t>(offset - 100), size, true);
    RC_ASSERT(reply.isComplete() == (std::ranges::count(isThere, false) == 0));
  }
}

RC_GTEST_PROP(ReadReplyProperty, AnyOrderOfATilingIsWhole, ()) {
  std::vector<Piece> pieces;
  std::uint64_t end = 1000;
  for (const std::uint64_t size : *rc::gen::nonEmpty(
           rc::gen::container<std::vector<std::uint64_t>>(rc::gen::inRange<std::uint64_t>(1, 9)))) {
    pieces.push_back({end, size});
    end += size;
  }
  for (std::size_t left = pieces.size(); left > 1; --left) {
    std::swap(pieces[left - 1], pieces[*rc::gen::inRange<std::size_t>(0, left)]);
  }
  ReadReply reply({.offset = 1000, .length = end - 1000});
  for (const auto& [offset, size] : pieces) {
    RC_ASSERT(!reply.isComplete());
    RC_ASSERT(reply.takeContent(offset, size));
  }
  RC_ASSERT(reply.isComplete());
}

}  // namespace
