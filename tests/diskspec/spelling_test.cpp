// What is an expression, and how it is spelled.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "diskspec/expression.h"
#include "diskspec/limits.h"

namespace DiskSpec {
namespace {

/// The canonical spelling of `text`, or the number and offset of its error as "!12 at 3".
std::string canonical(std::string_view text, bool lenient = false) {
  const auto compiled = compile(text, lenient);
  if (!compiled) {
    return "!" + std::to_string(static_cast<unsigned>(compiled.error().number)) + " at " +
           std::to_string(compiled.error().offset);
  }
  const auto again = compile(compiled->text(), lenient);
  EXPECT_TRUE(again.has_value()) << compiled->text();
  if (again) {
    EXPECT_EQ(*again, *compiled) << text;
    EXPECT_EQ(again->text(), compiled->text()) << text;
  }
  return compiled->text();
}

std::string repeated(std::string_view part, std::size_t times) {
  std::string text;
  for (std::size_t count = 0; count < times; ++count) text += part;
  return text;
}

using Pairs = std::vector<std::pair<std::string, std::string>>;

void expectSpellings(const Pairs& pairs) {
  for (const auto& [text, expected] : pairs) EXPECT_EQ(canonical(text), expected) << text;
}

TEST(DiskSpecSpelling, Conditions) {
  expectSpellings({
      {"size >= 10G and name ~ vol* and not readonly", R"(size >= 10G and name ~ "vol*" and not readonly)"},
      {"readonly", "readonly"},
      {"ReadOnly == TRUE", "readonly"},
      {"readonly != false", "readonly"},
      {"readonly = false", "not readonly"},
      {"compressed ne true", "not compressed"},
      {"true", "true"},
      {"FALSE", "false"},
      {"name == vol1", R"(name == "vol1")"},
      {"name=vol1", R"(name == "vol1")"},
      {"NAME eq 'a \"b\" \\c'", R"(name == "a \"b\" \\c")"},
      {R"(name =~ "\d+\\.\"")", R"(name =~ "\\d+\\.\"")"},
      {R"(name !~ '^\d+$')", R"(name !~ "^\\d+$")"},
      {"name == and", R"(name == "and")"},
      {"name == \"\"", R"(name == "")"},
      {"name < m or name ge Grüße", R"(name < "m" or name >= "Grüße")"},
      {"uuid == C0FFEE00-0000-4000-8000-000000000001", R"(uuid == "c0ffee00-0000-4000-8000-000000000001")"},
      {"uuid ~ C0*", R"(uuid ~ "c0*")"},
      {"state == Enabled", "state == enabled"},
      {"state not in [\"failed\", disabled]", "state not in [failed, disabled]"},
      {"clients in [ 0,1 , 2 ]", "clients in [0, 1, 2]"},
      {"name in [\"a b\",c]", R"(name in ["a b", "c"])"},
      {"clients\t>\n0\r", "clients > 0"},
      {"size==1", "size == 1"},
  });
}

TEST(DiskSpecSpelling, Connectives) {
  expectSpellings({
      {"readonly && compressed || true", "readonly and compressed or true"},
      {"readonly and (compressed or true)", "readonly and (compressed or true)"},
      {"((readonly and compressed)) and true", "readonly and compressed and true"},
      {"readonly or (compressed or (true or false))", "readonly or compressed or true or false"},
      {"!readonly", "not readonly"},
      {"!!readonly", "not not readonly"},
      {"not(readonly and true)", "not (readonly and true)"},
      {"not (readonly) and true", "not readonly and true"},
      {"! size>1k", "not size > 1K"},
      {"(((((readonly)))))", "readonly"},
      {"AND == 1", "!12 at 0"},
  });
}

TEST(DiskSpecSpelling, Quantities) {
  expectSpellings({
      {"size == 0", "size == 0"},
      {"size == 1024", "size == 1K"},
      {"size == 1536K", "size == 1536K"},
      {"size == 1.5m", "size == 1536K"},
      {"size == 2048GiB", "size == 2T"},
      {"size == 10GB", "size == 10G"},
      {"size == 512B", "size == 512"},
      {"size == 0.5K", "size == 512"},
      {"size == 1.0", "size == 1"},
      {"size == 15E", "size == 15E"},
      {"size == 18446744073709551615", "size == 18446744073709551615"},
      {"size == 00007", "size == 7"},
      {"age < 90", "age < 90"},
      {"age < 120s", "age < 2m"},
      {"age < 1.5h", "age < 90m"},
      {"age < 7D", "age < 1w"},
      {"id == 4294967295", "id == 4294967295"},
      {"size == 16E", "!16 at 8"},
      {"size == 15.9999999E", "!14 at 8"},
      {"size == 18446744073709551616", "!16 at 8"},
      {"size == 99999999999999999999999999999999999999999999999", "!16 at 8"},
      {"size == 1.1", "!14 at 8"},
      {"size == 1.", "!14 at 8"},
      {"size == .5K", "!14 at 8"},
      {"size == 1.0000000000000000001K", "!14 at 8"},
      {"size == -1", "!14 at 8"},
      {"size == big", "!14 at 8"},
      {"size == \"\"", "!14 at 8"},
      {"size == 1Q", "!15 at 8"},
      {"size == 1iB", "!15 at 8"},
      {"size == 1KK", "!15 at 8"},
      {"size == 0x10", "!15 at 8"},
      {"clients == 1K", "!15 at 11"},
      {"age < 1M", "age < 1m"},
      {"age < 1y", "!15 at 6"},
  });
}

TEST(DiskSpecSpelling, Mistakes) {
  expectSpellings({
      {"", "!1 at 0"},
      {" \t", "!1 at 2"},
      {"size ; 1", "!3 at 5"},
      {"name == a\\b", "!3 at 9"},
      {std::string("name == \"a\0b\"", 13), "!3 at 10"},
      {"name == \"a\nb\"", "!3 at 10"},
      {"size & 1", "!3 at 5"},
      {"name == \"\xFF\"", "!4 at 9"},
      {"name == \"\xC0\xAF\"", "!4 at 9"},
      {"name == \"\xED\xA0\x80\"", "!4 at 9"},
      {"name == \"\xF4\x90\x80\x80\"", "!4 at 9"},
      {"name == \"\xE2\x82\"", "!4 at 9"},
      {"name == \"a", "!5 at 8"},
      {"name == 'a\"", "!5 at 8"},
      {"name == \"a\\\"", "!5 at 8"},
      {"and", "!12 at 0"},
      {"not", "!6 at 3"},
      {"readonly and", "!6 at 12"},
      {"readonly or or true", "!12 at 12"},
      {"== 1", "!6 at 0"},
      {"\"name\" == a", "!6 at 0"},
      {"()", "!6 at 1"},
      {"name", "!7 at 4"},
      {"size 10", "!7 at 5"},
      {"not size", "!7 at 8"},
      {"name not a", "!7 at 5"},
      {"name ==", "!8 at 7"},
      {"name == )", "!8 at 8"},
      {"readonly == \"true\"", "!8 at 12"},
      {"name == == a", "!8 at 8"},
      {"(readonly", "!9 at 9"},
      {"(readonly true", "!9 at 10"},
      {"(readonly]", "!9 at 9"},
      {"readonly)", "!10 at 8"},
      {"readonly compressed", "!10 at 9"},
      {"size > 1 size < 2", "!10 at 9"},
      {"name in a", "!11 at 8"},
      {"name in [a", "!11 at 10"},
      {"name in [a b]", "!11 at 11"},
      {"name in []", "!8 at 9"},
      {"name in [a,]", "!8 at 11"},
      {"colour == red", "!12 at 0"},
      {"true and colour", "!12 at 9"},
      {"size ~ 1*", "!13 at 5"},
      {"size =~ 1", "!13 at 5"},
      {"state < failed", "!13 at 6"},
      {"readonly > true", "!13 at 9"},
      {"readonly in [true]", "!13 at 9"},
      {"readonly == yes", "!17 at 12"},
      {"state == melted", "!18 at 9"},
      {"state in [failed, melted]", "!18 at 18"},
      {"name =~ \"(\"", "!19 at 8"},
      {"name =~ \"a{2,1}\"", "!21 at 8"},
      {"name =~ \"(?=a)\"", "!19 at 8"},
      {"name ~ \"[a\"", "!20 at 7"},
      {"name ~ \"[]\"", "!20 at 7"},
      {"name ~ \"[z-a]\"", "!20 at 7"},
      {"name =~ \"((a{100}){100}){100}\"", "!21 at 8"},
      {"name =~ \"a{2000}\"", "!21 at 8"},
  });
}

TEST(DiskSpecLimits, LengthOfTheText) {
  const std::string longest = "name == \"" + std::string(Limits::textLength - 10, 'x') + "\"";
  EXPECT_EQ(canonical(longest), longest);
  EXPECT_EQ(canonical(longest + " "), "!2 at 8192");
  EXPECT_EQ(canonical("name == " + std::string(Limits::textLength - 8, 'x')), "!2 at 0") << "with its quotes";
  EXPECT_EQ(canonical(std::string(std::size_t{1} << 20U, '(')), "!2 at 8192");
  EXPECT_EQ(canonical(repeated("not ", std::size_t{1} << 18U)), "!2 at 8192");
}

TEST(DiskSpecLimits, Depth) {
  const auto within = [](std::size_t depth) {
    return repeated("(", depth) + "readonly" + repeated(")", depth);
  };
  EXPECT_EQ(canonical(within(Limits::depth)), "readonly");
  EXPECT_EQ(canonical(within(Limits::depth + 1)), "!22 at 64");
  EXPECT_EQ(canonical(std::string(Limits::textLength, '(')), "!22 at 64");
  EXPECT_EQ(canonical(std::string(Limits::textLength, '!')), "!22 at 64");
  EXPECT_EQ(canonical(repeated("!", 64) + "readonly"), repeated("not ", 64) + "readonly");
  EXPECT_EQ(canonical(repeated("!", 63) + "readonly == false"), repeated("not ", 64) + "readonly");
  EXPECT_EQ(canonical(repeated("!", 64) + "readonly == false"), "!22 at 76");
  EXPECT_EQ(canonical(repeated("(", 64) + "readonly" + repeated(" or true) and true", 64)).substr(0, 3),
            "(((");
}

TEST(DiskSpecLimits, NodesListsAndPatterns) {
  const auto anyOf = [](std::size_t conditions) { return "id == 1" + repeated(" or id==1", conditions - 1); };
  EXPECT_EQ(canonical(anyOf(511)).substr(0, 7), "id == 1");
  EXPECT_EQ(canonical(anyOf(512)), "!23 at " + std::to_string(7 + 510 * 9 + 4));
  const auto listOf = [](std::size_t values) { return "id in [1" + repeated(",1", values - 1) + "]"; };
  EXPECT_EQ(canonical(listOf(256)).substr(0, 11), "id in [1, 1");
  EXPECT_EQ(canonical(listOf(257)), "!24 at " + std::to_string(8 + 256 * 2 - 1));
  const auto patterns = [](std::size_t count) { return "name~a" + repeated(" or name~a", count - 1); };
  EXPECT_EQ(canonical(patterns(32)).substr(0, 10), "name ~ \"a\"");
  EXPECT_EQ(canonical(patterns(33)), "!25 at " + std::to_string(6 + 31 * 10 + 9));
  EXPECT_EQ(canonical("name ~ " + std::string(512, 'a')).substr(0, 4), "name");
  EXPECT_EQ(canonical("name ~ " + std::string(513, 'a')), "!21 at 7");
  EXPECT_EQ(canonical("name =~ " + std::string(513, 'a')), "!21 at 8");
}

TEST(DiskSpecLenient, LetsUnknownWordsThrough) {
  EXPECT_EQ(canonical("Colour == red", true), R"(colour == "red")");
  EXPECT_EQ(canonical("colour", true), "colour");
  EXPECT_EQ(canonical("not colour or weight in [1, \"2\"]", true), R"(not colour or weight in ["1", "2"])");
  EXPECT_EQ(canonical("weight not in [1] and vol*", true), R"(weight not in ["1"] and vol*)");
  EXPECT_EQ(canonical("colour =~ '('", true), R"(colour =~ "(")");
  EXPECT_EQ(canonical("state in [Failed, Melted]", true), R"(state in ["Failed", "Melted"])");
  EXPECT_EQ(canonical("size == x", true), "!14 at 8") << "a value that a known field cannot have is an error";
  EXPECT_EQ(canonical("colour == ", true), "!8 at 10");
}

TEST(DiskSpecEncoding, ComesBackTheSame) {
  const auto expression = compile("size >= 10G and name ~ vol* and not readonly");
  ASSERT_TRUE(expression.has_value());
  const auto bytes = encode(*expression);
  ASSERT_EQ(bytes.size(), 1 + expression->text().size());
  EXPECT_EQ(bytes.front(), std::byte{1});
  EXPECT_EQ(decode(bytes).value(), *expression);
}

TEST(DiskSpecEncoding, IsCheckedAgain) {
  const auto decoded = [](std::string_view text) {
    std::vector<std::byte> bytes;
    for (const char character : text) bytes.push_back(static_cast<std::byte>(character));
    const auto expression = decode(bytes);
    return expression ? Error{ErrorNumber{0}, 0} : expression.error();
  };
  EXPECT_EQ(decoded("\1true"), (Error{ErrorNumber{0}, 0}));
  EXPECT_EQ(decoded(""), (Error{ErrorNumber::unknownEncoding, 0}));
  EXPECT_EQ(decoded("\2true"), (Error{ErrorNumber::unknownEncoding, 0}));
  EXPECT_EQ(decoded("true"), (Error{ErrorNumber::unknownEncoding, 0}));
  EXPECT_EQ(decoded("\1"), (Error{ErrorNumber::empty, 1}));
  EXPECT_EQ(decoded("\1colour == red"), (Error{ErrorNumber::unknownField, 1}));
  EXPECT_EQ(decoded("\1" + std::string(8193, ' ')), (Error{ErrorNumber::textTooLong, 0}));
}

}  // namespace
}  // namespace DiskSpec
