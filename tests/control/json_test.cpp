#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <nlohmann/json.hpp>

#include "control/base64.h"
#include "control/json_document.h"
#include "control/json_writer.h"
#include "control/limits.h"
#include "control/utf8.h"

namespace Control {
namespace {

using namespace std::string_literals;

// UTF-8: the boundaries of every range of the Unicode Standard's table of well-formed sequences.

TEST(Utf8Test, WellFormed) {
  for (const std::string& text : {""s, "plain"s, "\0"s, "\x7F"s, "\xC2\x80"s, "\xDF\xBF"s, "\xE0\xA0\x80"s,
                                  "\xED\x9F\xBF"s, "\xEE\x80\x80"s, "\xEF\xBF\xBF"s, "\xF0\x90\x80\x80"s,
                                  "\xF4\x8F\xBF\xBF"s, "eight ascii, then \xE2\x82\xAC"s}) {
    EXPECT_TRUE(isUtf8(text)) << text;
  }
}

TEST(Utf8Test, IllFormed) {
  for (const std::string& text : {"\x80"s,
                                  "\xBF"s,
                                  "\xC0\x80"s,
                                  "\xC1\xBF"s,
                                  "\xC2"s,
                                  "\xC2\x7F"s,
                                  "\xC2\xC0"s,
                                  "\xE0\x9F\xBF"s,
                                  "\xE0\xA0"s,
                                  "\xED\xA0\x80"s,
                                  "\xED\xBF\xBF"s,
                                  "\xE2\x82"s,
                                  "\xE2\x82\x7F"s,
                                  "\xF0\x8F\xBF\xBF"s,
                                  "\xF4\x90\x80\x80"s,
                                  "\xF5\x80\x80\x80"s,
                                  "\xFF"s,
                                  "\xFE"s,
                                  "\xF0\x9F\x98"s,
                                  "\xF0\x9F\x98\xC0"s}) {
    EXPECT_EQ(validUtf8Prefix("ascii..." + text), 8U);
    EXPECT_EQ(validUtf8Prefix("\xC3\xA9" + text), 2U);
  }
}

// Base64: the examples of RFC 4648, section 10.

TEST(Base64Test, KnownTexts) {
  const std::vector<std::pair<std::string, std::string>> known{{"", ""},
                                                               {"f", "Zg=="},
                                                               {"fo", "Zm8="},
                                                               {"foo", "Zm9v"},
                                                               {"foob", "Zm9vYg=="},
                                                               {"fooba", "Zm9vYmE="},
                                                               {"foobar", "Zm9vYmFy"},
                                                               {"\xFF\xEF\xBE"s, "/+++"}};
  for (const auto& [octets, text] : known) {
    EXPECT_EQ(toBase64(octets), text);
    EXPECT_EQ(fromBase64(text), octets);
  }
}

TEST(Base64Test, NothingElseIsTaken) {
  for (const char* text :
       {"Z", "Zg", "Zg=", "Zh==", "Zm9=", "Zg==Zg==", "Z===", "====", "Zm9v\n", " Zg=", "Zm9v-_==", "Zg=a"}) {
    EXPECT_EQ(fromBase64(text), std::nullopt) << text;
  }
}

RC_GTEST_PROP(Base64Property, EveryTextHasOneSpelling, (const std::string& octets)) {
  RC_ASSERT(fromBase64(toBase64(octets)) == octets);
}

RC_GTEST_PROP(Base64Property, WhatIsTakenIsTheSpelling, ()) {
  const auto text = *rc::gen::container<std::string>(rc::gen::elementOf("ABYZabyz0189+/="s));
  const auto octets = fromBase64(text);
  if (octets) RC_ASSERT(toBase64(*octets) == text);
}

// The writer, against another reader.

std::string written(const std::string& text) {
  JsonWriter writer;
  writer.string(text);
  return writer.take();
}

TEST(JsonWriterTest, CommasAndNesting) {
  JsonWriter writer;
  writer.beginObject();
  writer.key("a");
  writer.number(18446744073709551615U);
  writer.key("b");
  writer.beginArray();
  writer.beginObject();
  writer.endObject();
  writer.boolean(true);
  writer.boolean(false);
  writer.beginArray();
  writer.endArray();
  writer.endArray();
  writer.key("c");
  writer.string("");
  writer.endObject();
  EXPECT_EQ(writer.depth(), 3U);
  EXPECT_EQ(writer.take(), R"({"a":18446744073709551615,"b":[{},true,false,[]],"c":""})");
}

TEST(JsonWriterTest, EveryCharacterIsReadBack) {
  std::string text;
  for (char character = 0; character < 0x7F; ++character) text += character;
  text += "\x7Fé€😀";
  EXPECT_EQ(nlohmann::json::parse(written(text)).get<std::string>(), text);
}

TEST(JsonWriterTest, WrongBytesAreReplacedAndRemembered) {
  JsonWriter writer;
  writer.string("a\xFF\xC3z\xE2\x82");
  EXPECT_TRUE(writer.isDistorted());
  EXPECT_EQ(nlohmann::json::parse(writer.take()).get<std::string>(), "a\uFFFD\uFFFDz\uFFFD\uFFFD");
}

RC_GTEST_PROP(JsonWriterProperty, WhateverIsWrittenIsReadable, (const std::string& text)) {
  const auto document = JsonDocument::parse(written(text));
  RC_ASSERT(document.has_value());
  if (isUtf8(text)) RC_ASSERT(document->root().asString() == text);
}

// The reader.

JsonValue rootOf(const std::expected<JsonDocument, std::string>& document) {
  return document ? document->root() : JsonValue();
}

TEST(JsonDocumentTest, TypesAreKeptApart) {
  const auto document = JsonDocument::parse(
      R"({"n":18446744073709551615,"z":0,"m":-1,"f":1.0,"b":false,"s":"x","a":[1,null],"o":{},"x":null})");
  ASSERT_TRUE(document.has_value());
  const JsonValue root = document->root();
  EXPECT_EQ(root.member("n").asUnsigned(), 18446744073709551615U);
  EXPECT_EQ(root.member("z").asUnsigned(), 0U);
  for (const char* other : {"m", "f", "b", "s", "a", "o", "x", "none"}) {
    EXPECT_EQ(root.member(other).asUnsigned(), std::nullopt) << other;
  }
  EXPECT_EQ(root.member("b").asBoolean(), false);
  EXPECT_EQ(root.member("z").asBoolean(), std::nullopt);
  EXPECT_EQ(root.member("s").asString(), "x");
  EXPECT_EQ(root.member("n").asString(), std::nullopt);
  EXPECT_EQ(root.member("a").size(), 2U);
  EXPECT_EQ(root.member("a").element(0).asUnsigned(), 1U);
  EXPECT_TRUE(root.member("a").element(1).isAbsent());
  EXPECT_TRUE(root.member("o").isObject());
  EXPECT_EQ(root.member("o").size(), 0U);
  EXPECT_TRUE(root.member("x").isAbsent());
  EXPECT_TRUE(root.member("none").isAbsent());
  EXPECT_TRUE(root.member("s").member("none").isAbsent());
}

TEST(JsonDocumentTest, DepthIsBounded) {
  const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_TRUE(JsonDocument::parse(nested(Limits::depth)).has_value());
  const auto tooDeep = JsonDocument::parse(nested(Limits::depth + 1));
  ASSERT_FALSE(tooDeep.has_value());
  EXPECT_EQ(tooDeep.error(), "the message nests too deep");
  EXPECT_FALSE(JsonDocument::parse(std::string(10'000'000, '[')).has_value());
}

TEST(JsonDocumentTest, BracketsInTextDoNotCount) {
  const auto document = JsonDocument::parse("\"\\\"" + std::string(1000, '[') + "\\\\\"");
  EXPECT_EQ(rootOf(document).asString(), "\"" + std::string(1000, '[') + "\\");
}

TEST(JsonDocumentTest, WhatIsNoJson) {
  for (const char* text : {"", " ", "{", "}", "[1,]", "{\"a\"}", "{a:1}", "01", "+1", "nul", "\"\\x\"",
                           "\"\\ud800\"", "\"\n\"", "1 2", "1e999", "'a'", "// c\n1"}) {
    EXPECT_FALSE(JsonDocument::parse(text).has_value()) << text;
  }
}

}  // namespace
}  // namespace Control
