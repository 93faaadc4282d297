#include "control/framing.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace Control {
namespace {

void feed(Framing& framing, std::string_view bytes) {
  while (!bytes.empty()) {
    const auto room = framing.prepare();
    const std::size_t count = std::min(room.size(), bytes.size());
    std::copy_n(bytes.begin(), count, room.begin());
    framing.commit(count);
    bytes.remove_prefix(count);
  }
}

std::vector<std::string> takeAll(Framing& framing) {
  std::vector<std::string> messages;
  while (const auto message = framing.next()) messages.emplace_back(*message);
  return messages;
}

using namespace std::string_literals;
using Messages = std::vector<std::string>;

TEST(FramingTest, MessagesEndAtTheNul) {
  Framing framing(100);
  feed(framing, "one\0\0two\0thr"s);
  EXPECT_TRUE(framing.hasMessage());
  EXPECT_EQ(takeAll(framing), (Messages{"one", "", "two"}));
  EXPECT_FALSE(framing.hasMessage());
  EXPECT_TRUE(framing.hasPartialMessage());
  feed(framing, "ee\0"s);
  EXPECT_EQ(takeAll(framing), Messages{"three"});
  EXPECT_FALSE(framing.hasPartialMessage());
}

TEST(FramingTest, TheLongestMessageFitsAndNoneLonger) {
  for (const bool complete : {true, false}) {
    Framing framing(10);
    feed(framing, "0123456789\0"s);
    EXPECT_EQ(takeAll(framing), Messages{"0123456789"});
    EXPECT_FALSE(framing.isTooLong());
    feed(framing, complete ? "0123456789x\0ok\0"s : "0123456789x"s);
    EXPECT_TRUE(takeAll(framing).empty());
    EXPECT_TRUE(framing.isTooLong());
    EXPECT_FALSE(framing.hasMessage());
  }
}

TEST(FramingTest, TheRoomStaysBoundedForAPeerThatNeverEndsAMessage) {
  Framing framing(64 * 1024);
  std::size_t arrived = 0;
  while (!framing.isTooLong()) {
    const auto room = framing.prepare();
    ASSERT_LE(room.size(), 64U * 1024);
    std::ranges::fill(room, 'a');
    framing.commit(room.size());
    arrived += room.size();
    EXPECT_FALSE(framing.next().has_value());
    ASSERT_LE(arrived, 192U * 1024);
  }
}

RC_GTEST_PROP(FramingProperty, AnySplitGivesTheSameMessages,
              (const std::vector<std::string>& drawn, const std::vector<std::uint8_t>& pieces)) {
  Messages expected;
  std::string stream;
  for (std::string message : drawn) {
    std::erase(message, '\0');
    stream += message + '\0';
    expected.push_back(std::move(message));
  }
  Framing framing(1 << 20);
  Messages messages;
  std::string_view rest(stream);
  for (std::size_t index = 0; !rest.empty(); ++index) {
    const std::size_t length = pieces.empty() ? rest.size() : pieces[index % pieces.size()] + std::size_t{1};
    feed(framing, rest.substr(0, length));
    rest.remove_prefix(std::min(length, rest.size()));
    std::ranges::move(takeAll(framing), std::back_inserter(messages));
  }
  RC_ASSERT(messages == expected);
}

}  // namespace
}  // namespace Control
