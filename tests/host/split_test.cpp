#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "platform/string_util.h"

namespace {

using Words = std::vector<std::string>;

Words plain(const Ref<TVector<Ref<String>>>& words) {
  Words copied;
  for (const auto& word : *words) {
    copied.emplace_back(word->view());
  }
  return copied;
}

/// Splits as the command loop does.
Words split(std::string_view line) {
  return plain(StringUtil::split(String::create(line), ' ', 0, true, '\\', '"'));
}

Words splitAll(std::string_view text, std::uint64_t maxWords, bool skipEmpty) {
  return plain(StringUtil::split(String::create(text), ',', maxWords, skipEmpty, '\\', '"'));
}

std::string join(const Words& words, char separator) {
  const auto vector = TVector<Ref<String>>::create();
  for (const auto& word : words) {
    vector->append(String::create(std::string_view(word)));
  }
  return std::string(StringUtil::join(vector, separator)->view());
}

std::string trim(std::string_view text) {
  return std::string(StringUtil::trim(String::create(text))->view());
}

/// Bytes among which those with a meaning are common.
rc::Gen<std::string> lineOfText() {
  return rc::gen::container<std::string>(
      rc::gen::weightedOneOf<char>({{3, rc::gen::element(' ', '"', '\\', '\t', '\0')},
                                    {4, rc::gen::arbitrary<char>()},
                                    {3, rc::gen::element('a', 'b')}}));
}

/// One of the ways in which `word` can be written, chosen by `way`.
std::string written(const std::string& word, unsigned int way) {
  const bool quoted = way % 2 == 0 || word.empty();
  std::string text;
  for (const char byte : word) {
    if (byte == '"' || byte == '\\' || (byte == ' ' && !quoted) || (way % 3 == 0 && byte != 'a')) {
      text += '\\';
    }
    text += byte;
  }
  return quoted ? '"' + text + '"' : text;
}

}  // namespace

TEST(Split, SeparatesAtBlanks) {
  EXPECT_EQ(split("disable 3 force"), (Words{"disable", "3", "force"}));
  EXPECT_EQ(split("one"), (Words{"one"}));
}

TEST(Split, MakesNoWordsOfBlanks) {
  EXPECT_EQ(split(""), Words());
  EXPECT_EQ(split("    "), Words());
  EXPECT_EQ(split("  a   b  "), (Words{"a", "b"}));
}

TEST(Split, HasNoOtherSeparators) { EXPECT_EQ(split("a\tb\nc d"), (Words{"a\tb\nc", "d"})); }

TEST(Split, KeepsQuotedTextTogether) {
  EXPECT_EQ(split("add \"/srv/my disk\" ro"), (Words{"add", "/srv/my disk", "ro"}));
  EXPECT_EQ(split("\"\""), Words{""});
  EXPECT_EQ(split("a \"\" b"), (Words{"a", "", "b"}));
  EXPECT_EQ(split("a\"b c\"d"), Words{"ab cd"});
  EXPECT_EQ(split("\"a\"\"b\""), Words{"ab"});
  EXPECT_EQ(split("a\"\""), Words{"a"});
}

TEST(Split, EndsAnUnclosedQuoteAtTheEnd) {
  EXPECT_EQ(split("a \"b c"), (Words{"a", "b c"}));
  EXPECT_EQ(split("a \"b "), (Words{"a", "b "}));
  EXPECT_EQ(split("a \""), (Words{"a", ""}));
}

TEST(Split, EscapesTheNextCharacter) {
  EXPECT_EQ(split(R"(a\ b)"), Words{"a b"});
  EXPECT_EQ(split(R"(\"a b\")"), (Words{"\"a", "b\""}));
  EXPECT_EQ(split(R"(a\\b)"), Words{R"(a\b)"});
  EXPECT_EQ(split(R"(\n)"), Words{"n"});
  EXPECT_EQ(split(R"(\ )"), Words{" "});
}

TEST(Split, EscapesInsideQuotesToo) {
  EXPECT_EQ(split(R"("a\"b")"), Words{"a\"b"});
  EXPECT_EQ(split(R"("a\\" b)"), (Words{R"(a\)", "b"}));
  EXPECT_EQ(split(R"("a\b")"), Words{"ab"});
}

TEST(Split, KeepsALoneEscapeAtTheEnd) {
  EXPECT_EQ(split("a\\"), Words{"a\\"});
  EXPECT_EQ(split("a \\"), (Words{"a", "\\"}));
  EXPECT_EQ(split("\"a\\"), Words{"a\\"});
}

TEST(Split, KeepsEveryByte) {
  EXPECT_EQ(split(std::string_view("\0\xFF \xC3", 4)), (Words{std::string("\0\xFF", 2), "\xC3"}));
}

TEST(Split, TakesNoTextForNoWords) {
  EXPECT_EQ(StringUtil::split(nullptr, ' ', 0, true, '\\', '"')->size(), 0U);
}

TEST(Split, KeepsEmptyWordsIfAsked) {
  EXPECT_EQ(splitAll("a,,b,", 0, false), (Words{"a", "", "b", ""}));
  EXPECT_EQ(splitAll(",", 0, false), (Words{"", ""}));
  EXPECT_EQ(splitAll(",,", 0, true), Words());
}

TEST(Split, StopsAfterSoManyWords) {
  EXPECT_EQ(splitAll("a,b,c", 2, true), (Words{"a", "b"}));
  EXPECT_EQ(splitAll("a,b,c", 3, true), (Words{"a", "b", "c"}));
  EXPECT_EQ(splitAll("a,b,c", 9, true), (Words{"a", "b", "c"}));
  EXPECT_EQ(splitAll(",a,b", 2, false), (Words{"", "a"}));
}

TEST(Join, PutsOneSeparatorBetweenWords) {
  EXPECT_EQ(join({}, ' '), "");
  EXPECT_EQ(join({"a"}, ' '), "a");
  EXPECT_EQ(join({"a", "b c", ""}, ','), "a,b c,");
  EXPECT_EQ(join({"", ""}, ','), ",");
}

TEST(Trim, TakesBlanksFromBothEnds) {
  EXPECT_EQ(trim(" \t\n\v\f\ra b\r\n "), "a b");
  EXPECT_EQ(trim("a"), "a");
  EXPECT_EQ(trim(""), "");
  EXPECT_EQ(trim(" \t "), "");
  EXPECT_EQ(trim("\xC2\xA0"), "\xC2\xA0");
  EXPECT_EQ(StringUtil::trim(nullptr)->view(), "");
}

RC_GTEST_PROP(SplitProperty, ReadsEveryWordHoweverItIsWritten, ()) {
  const auto words = *rc::gen::container<Words>(lineOfText());
  std::string line;
  for (const auto& word : words) {
    line += std::string(*rc::gen::inRange<std::size_t>(1, 4), ' ');
    line += written(word, *rc::gen::inRange(0U, 6U));
  }
  line += std::string(*rc::gen::inRange<std::size_t>(0, 3), ' ');
  RC_ASSERT(split(line) == words);
}

RC_GTEST_PROP(SplitProperty, SeparatesPlainTextAtBlanksAlone, ()) {
  std::string line = *lineOfText();
  std::erase_if(line, [](char byte) { return byte == '"' || byte == '\\'; });
  Words expected;
  std::istringstream stream(line);
  for (std::string word; std::getline(stream, word, ' ');) {
    if (!word.empty()) {
      expected.push_back(word);
    }
  }
  RC_ASSERT(split(line) == expected);
}

RC_GTEST_PROP(SplitProperty, TakesAnyBytesAndAddsNone, ()) {
  const std::string line = *lineOfText();
  std::size_t bytes = 0;
  for (const auto& word : split(line)) {
    bytes += word.size();
  }
  RC_ASSERT(bytes <= line.size());
  RC_ASSERT(bytes + static_cast<std::size_t>(std::ranges::count_if(
                        line, [](char byte) { return byte == ' ' || byte == '"' || byte == '\\'; })) >=
            line.size());
}

RC_GTEST_PROP(JoinProperty, IsUndoneBySplit, ()) {
  auto words = *rc::gen::nonEmpty(rc::gen::container<Words>(rc::gen::nonEmpty(lineOfText())));
  for (auto& word : words) {
    std::ranges::replace_if(word, [](char byte) { return byte == '"' || byte == '\\' || byte == ' '; }, '_');
  }
  RC_ASSERT(split(join(words, ' ')) == words);
}
