#include "nbdd/discovery/txt_record.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "control/utf8.h"
#include "nbdd/limits.h"

namespace Nbdd::Discovery {
namespace {

using namespace std::string_view_literals;

constexpr std::string_view uuid = "0b5cbd4c-6f5a-4c5e-9a3e-3f6f1a2b3c4d";

ServerText decode(std::vector<std::string_view> strings) { return decodeText(strings); }

TEST(TxtRecord, WhatIsEncodedIsDecoded) {
  const ServerText text{.uuid = std::string(uuid),
                        .version = "0.1.0",
                        .platform = "Linux",
                        .label = "rack 4 = left",
                        .hostName = "alpha"};
  const std::vector<std::string> strings = encodeText(text);
  EXPECT_EQ(strings.front(), "uuid=" + std::string(uuid));
  EXPECT_EQ(decode({strings.begin(), strings.end()}), text);
}

TEST(TxtRecord, WhatIsNotKnownIsNotTold) {
  EXPECT_TRUE(encodeText({}).empty());
  EXPECT_EQ(encodeText({.label = "x"}), (std::vector<std::string>{"label=x"}));
}

TEST(TxtRecord, NoStringIsLongerThanItsLengthByteAllows) {
  std::string label;
  while (label.size() < 1000) label += "ä";
  const std::vector<std::string> strings = encodeText({.label = label});
  ASSERT_EQ(strings.size(), 1U);
  EXPECT_LE(strings[0].size(), 255U);
  EXPECT_GE(strings[0].size(), 250U);
  EXPECT_TRUE(Control::isUtf8(strings[0]));
}

TEST(TxtRecord, KeysAreTakenInAnyCaseAndTheFirstCounts) {
  EXPECT_EQ(decode({"LaBeL=first", "label=second", "Label"}).label, "first");
  EXPECT_EQ(decode({"label=", "label=second"}).label, "");
}

TEST(TxtRecord, WhatIsMalformedIsLeftOut) {
  EXPECT_EQ(decode({"", "=", "=label", "label", "labels=x", "other=label=x"}), ServerText{});
  EXPECT_EQ(decode({}), ServerText{});
}

TEST(TxtRecord, AUuidIsOneOrNone) {
  EXPECT_EQ(decode({"uuid=0B5CBD4C-6F5A-4C5E-9A3E-3F6F1A2B3C4D"}).uuid, uuid);
  for (const std::string_view wrong : {"uuid=x"sv, "uuid=0b5cbd4c6f5a4c5e9a3e3f6f1a2b3c4d"sv,
                                       "uuid=0b5cbd4c-6f5a-4c5e-9a3e-3f6f1a2b3c4d0"sv, "uuid=\0"sv}) {
    EXPECT_EQ(decode({wrong}).uuid, "") << wrong;
  }
}

TEST(TxtRecord, ForeignTextCanBeShown) {
  const ServerText text = decode({"label=a\0b\x1b[31mc\xff"sv, "version=\n"sv, "platform=\xc3\xa4"sv});
  EXPECT_EQ(text.label, R"(a\x00b\x1b[31mc\xff)");
  EXPECT_EQ(text.version, R"(\x0a)");
  EXPECT_EQ(text.platform, "ä");
}

TEST(TxtRecord, ForeignTextIsBounded) {
  const std::string bytes(100'000, '\x01');
  const std::string label = "label=" + bytes;
  EXPECT_LE(decode({label}).label.size(), Limits::discoveryTextLength);
  std::vector<std::string_view> flood(1'000'000, "label");
  flood.push_back("label=late");
  EXPECT_EQ(decode(flood).label, "");
}

TEST(TxtRecord, TextIsCutBetweenCharacters) {
  EXPECT_EQ(cutText("abc", 3), "abc");
  EXPECT_EQ(cutText("abc", 2), "ab");
  EXPECT_EQ(cutText("a\xc3\xa4", 2), "a");
  EXPECT_EQ(cutText("\xf0\x9f\x98\x80", 3), "");
  EXPECT_EQ(cutText("\xf0\x9f\x98\x80", 4), "\xf0\x9f\x98\x80");
  EXPECT_EQ(cutText("", 0), "");
}

}  // namespace
}  // namespace Nbdd::Discovery
