// Which exports an expression selects.

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "diskspec/expression.h"

namespace DiskSpec {
namespace {

constexpr std::uint64_t gib = std::uint64_t{1} << 30U;

Facts sample() {
  return {.name = "vol1.img",
          .uuid = "c0ffee00-0000-4000-8000-00000000000a",
          .size = 10 * gib,
          .readonly = false,
          .clients = 2,
          .blocksize = 512,
          .state = 1,
          .compressed = true,
          .age = 3600,
          .id = 7,
          .bytesread = 4096,
          .byteswritten = 0};
}

bool selects(std::string_view text, const Facts& facts = sample(), bool lenient = false) {
  const auto expression = compile(text, lenient);
  EXPECT_TRUE(expression.has_value()) << text;
  return expression && expression->selects(facts);
}

void expectTrue(std::initializer_list<const char*> texts) {
  for (const char* const text : texts) {
    EXPECT_TRUE(selects(text)) << text;
    EXPECT_FALSE(selects("not (" + std::string(text) + ")")) << text;
  }
}

TEST(DiskSpecSelection, ComparesEveryField) {
  expectTrue({
      "name == vol1.img",
      "name != vol1",
      "name > vol",
      "name < vol2",
      "name in [x, vol1.img]",
      "name not in [x, y]",
      "uuid == C0FFEE00-0000-4000-8000-00000000000A",
      "uuid in [c0ffee00-0000-4000-8000-00000000000A]",
      "uuid ~ C0FFEE*",
      "uuid =~ ^c0ffee",
      "size == 10G",
      "size >= 10G",
      "size <= 10G",
      "size < 10.5G",
      "size > 9G",
      "size != 10",
      "size in [1G, 10G]",
      "not readonly",
      "readonly == false",
      "clients == 2",
      "clients not in [0, 1]",
      "blocksize == 512",
      "state == enabled",
      "state != failed",
      "state in [added, enabled]",
      "compressed",
      "age == 1h",
      "age < 1d",
      "age >= 60m",
      "id == 7",
      "bytesread == 4K",
      "byteswritten == 0",
  });
}

TEST(DiskSpecSelection, TextIsComparedWithItsCase) {
  EXPECT_FALSE(selects("name == VOL1.IMG"));
  EXPECT_FALSE(selects("name ~ VOL*"));
  EXPECT_TRUE(selects("name =~ \"(?i)VOL\""));
}

TEST(DiskSpecSelection, Globs) {
  expectTrue({
      "name ~ *",
      "name ~ vol*",
      "name ~ *.img",
      "name ~ *o*1*",
      "name ~ vol?.img",
      "name ~ \"vol[0-9].img\"",
      "name ~ \"vol[!a-z].img\"",
      "name ~ \"vol[^a-z].img\"",
      "name ~ \"[uvw]ol*\"",
      "name ~ \"vol1\\\\.img\"",
      "not name ~ vol",
      "not name ~ ol*",
      "not name ~ vol1?img?",
      "not name ~ volX.img",
      "not name ~ vol1ximg",
  });
  Facts facts = sample();
  facts.name = "a]b-c*d\\Grüße\xF0\x9F\x99\x82";
  EXPECT_TRUE(selects("name ~ \"a[]]b[-]c\\\\*d[\\\\\\\\]Gr?*?\"", facts));
  EXPECT_TRUE(selects("name ~ \"*Gr??e?\"", facts)) << "a question mark is a character, not a byte";
  EXPECT_TRUE(selects("name ~ \"*[ü]*\"", facts));
  facts.name = "line\nend";
  EXPECT_TRUE(selects("name ~ line?end", facts));
  facts.name = "";
  EXPECT_TRUE(selects("name ~ *", facts));
  EXPECT_TRUE(selects("name ~ \"\"", facts));
  EXPECT_FALSE(selects("name ~ ?", facts));
}

TEST(DiskSpecSelection, RegularExpressionsAreFoundAnywhere) {
  expectTrue({
      "name =~ ol",
      "name =~ ^vol",
      "name =~ 'img$'",
      "name =~ '\\d'",
      "name !~ ^ol",
      "name =~ \"\"",
  });
}

TEST(DiskSpecSelection, Connectives) {
  expectTrue({
      "true",
      "not false",
      "true or false and false",
      "(true or false) and true",
      "not (true and false)",
      "false or false or true",
      "true and true and not false",
      "not readonly and clients == 2",
  });
}

TEST(DiskSpecSelection, WhatIsNotKnownIsNeitherTrueNorFalse) {
  Facts facts = sample();
  facts.age.reset();
  for (const char* const text :
       {"age < 1d", "age >= 1d", "not age < 1d", "not not age < 1d", "age not in [1]", "age < 1d and true",
        "age < 1d or false", "not (age < 1d and true)"}) {
    EXPECT_FALSE(selects(text, facts)) << text;
  }
  for (const char* const text : {"age < 1d or true", "not (age < 1d and false)", "true or age < 1d"}) {
    EXPECT_TRUE(selects(text, facts)) << text;
  }
}

TEST(DiskSpecSelection, UnknownWordsAreNotKnown) {
  for (const char* const text : {"colour", "not colour", "colour == red", "colour != red", "state == melted",
                                 "not state in [enabled, melted]"}) {
    EXPECT_FALSE(selects(text, sample(), true)) << text;
  }
  EXPECT_TRUE(selects("colour or size > 1G", sample(), true));
}

// Patterns that make other matchers try every way to take a name apart.
TEST(DiskSpecSelection, PatternsThatWouldExplodeDoNot) {
  Facts facts = sample();
  const std::string name(4096, 'a');
  facts.name = name;
  EXPECT_FALSE(selects("name =~ \"(a+)+$b\"", facts));
  EXPECT_FALSE(selects("name =~ \"^(a|aa|aaa)*b$\"", facts));
  EXPECT_FALSE(selects("name =~ \"(x+x+)+y\"", facts));
  EXPECT_FALSE(selects("name =~ \"(.*)(.*)(.*)(.*)(.*)(.*)(.*)(.*)(.*)[^a]\"", facts));
  EXPECT_FALSE(selects("name =~ \"(a?){200}a{200}b\"", facts));
  EXPECT_FALSE(selects("name =~ \"[ab]*a[ab]{300}c\"", facts)) << "an automaton of many states";
  std::string stars;
  for (int count = 0; count < 200; ++count) stars += "*a";
  EXPECT_TRUE(selects("name ~ \"" + stars + "\"", facts));
  EXPECT_FALSE(selects("name ~ \"" + stars + "b\"", facts));
}

}  // namespace
}  // namespace DiskSpec
