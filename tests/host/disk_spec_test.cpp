#include "platform/disk_spec.h"

#include <gtest/gtest.h>

#include <string>

using Libraries::DiskSpec::Expression;
using Libraries::DiskSpec::Parser;

namespace {

std::unique_ptr<Parser> parse(std::string_view text, bool lenient = false) {
  return Parser::parse(String::create(text), {.lenient = lenient});
}

std::string spelled(const Expression& expression) { return std::string(expression.text()->view()); }

}  // namespace

TEST(DiskSpecParser, HandsTheExpressionOverOnce) {
  const auto parser = parse("size>1024 && name~vol*");
  ASSERT_TRUE(parser->succeeded());
  EXPECT_EQ(parser->failure().number, 0);
  EXPECT_EQ(parser->text()->view(), "size>1024 && name~vol*");
  const auto expression = parser->takeExpression();
  ASSERT_NE(expression, nullptr);
  EXPECT_EQ(spelled(*expression), "size > 1K and name ~ \"vol*\"");
  EXPECT_EQ(parser->takeExpression(), nullptr);
  EXPECT_TRUE(parser->succeeded());
}

TEST(DiskSpecParser, TellsTheNumberAndThePlaceOfAMistake) {
  const auto parser = parse("size > 1 and colour == red");
  EXPECT_FALSE(parser->succeeded());
  EXPECT_EQ(parser->takeExpression(), nullptr);
  EXPECT_EQ(parser->failure().number, 12);
  EXPECT_EQ(parser->failure().offset, 13U);
}

TEST(DiskSpecParser, TakesNoTextForTheEmptyOne) {
  const auto parser = Parser::parse({}, {});
  EXPECT_FALSE(parser->succeeded());
  EXPECT_EQ(parser->failure().number, 1);
  EXPECT_TRUE(parser->text()->isEmpty());
}

TEST(DiskSpecParser, LetsUnknownWordsThroughIfItIsTold) {
  const auto parser = parse("Colour == red", true);
  ASSERT_TRUE(parser->succeeded());
  EXPECT_EQ(spelled(*parser->takeExpression()), "colour == \"red\"");
}

TEST(DiskSpecExpression, OutlivesWhatItWasClonedFrom) {
  auto expression = parse("readonly")->takeExpression();
  const auto clone = expression->clone();
  EXPECT_EQ(clone->encode(), expression->encode());
  expression.reset();
  EXPECT_EQ(spelled(*clone), "readonly");
  EXPECT_EQ(clone->encode().size(), 1 + std::string("readonly").size());
  EXPECT_EQ(clone->encode().front(), std::byte{1});
}
