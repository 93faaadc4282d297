#include "nbdd/tls/key_file.h"

#include <gtest/gtest.h>

#include <string>

#include "nbdd/limits.h"

namespace Nbdd::Tls {
namespace {

const std::string key(2 * Limits::tlsKeyShortest, 'a');

TEST(KeyFile, IsWhatPsktoolWrites) {
  const auto keys = parseKeys("alice:" + key + "\nbob:00FF" + key + "\n");
  ASSERT_TRUE(keys.has_value()) << keys.error();
  ASSERT_EQ(keys->size(), 2U);
  EXPECT_EQ(keys->at("alice"), std::vector<std::byte>(Limits::tlsKeyShortest, std::byte{0xaa}));
  EXPECT_EQ(keys->at("bob").size(), Limits::tlsKeyShortest + 2);
  EXPECT_EQ(keys->at("bob")[1], std::byte{0xff});
}

TEST(KeyFile, MayHaveEmptyLinesCommentsAndForeignLineEnds) {
  const auto keys = parseKeys("# who may come\r\n\r\nalice:" + key + "\r\n\n#bob:" + key);
  ASSERT_TRUE(keys.has_value()) << keys.error();
  EXPECT_EQ(keys->size(), 1U);
  EXPECT_TRUE(parseKeys("").value().empty());
}

TEST(KeyFile, ANameMayHoldColons) { EXPECT_TRUE(parseKeys("a:b:c:" + key).value().contains("a:b:c")); }

TEST(KeyFile, WhatIsWrongIsToldByItsLineAndQuotesNoKey) {
  const std::string good = "alice:" + key + "\n";
  const std::string cases[] = {"bob",
                               ":" + key,
                               "bob:",
                               "bob:" + key + "a",
                               "bob:" + key + "zz",
                               "bob: " + key + "a",
                               "bob:" + key.substr(2),
                               "bob:" + std::string(2 * Limits::tlsKeyLongest + 2, 'a'),
                               "alice:" + key,
                               std::string(Limits::tlsNameLength + 1, 'n') + ":" + key,
                               std::string("b\0b:", 4) + key};
  for (const std::string& wrong : cases) {
    const auto keys = parseKeys(good + wrong);
    ASSERT_FALSE(keys.has_value()) << wrong;
    EXPECT_TRUE(keys.error().starts_with("line 2: ")) << keys.error();
    EXPECT_EQ(keys.error().find("aaaa"), std::string::npos) << keys.error();
  }
}

TEST(KeyFile, HoldsSoManyAndNoMore) {
  std::string text;
  for (std::size_t number = 0; number < Limits::tlsKeys; ++number) {
    text += std::to_string(number) + ":" + key + "\n";
  }
  EXPECT_EQ(parseKeys(text).value().size(), Limits::tlsKeys);
  EXPECT_FALSE(parseKeys(text + "one:" + key).has_value());
}

}  // namespace
}  // namespace Nbdd::Tls
