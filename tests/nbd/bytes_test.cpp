#include "nbd/bytes.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <array>
#include <string>

#include "nbd/limits.h"

namespace {

using namespace std::string_literals;

TEST(Bytes, NumbersAreBigEndian) {
  std::array<std::byte, 8> bytes{};
  Nbd::storeBig<std::uint64_t>(bytes, 0x0102'0304'0506'0708);
  for (std::size_t index = 0; index < bytes.size(); ++index) {
    EXPECT_EQ(std::to_integer<std::size_t>(bytes[index]), index + 1);
  }
}

TEST(Bytes, ConstantEvaluationAgrees) {
  constexpr auto roundTrip = [](std::uint32_t value) {
    std::array<std::byte, 4> bytes{};
    Nbd::storeBig<std::uint32_t>(bytes, value);
    return Nbd::loadBig<std::uint32_t>(bytes);
  };
  static_assert(roundTrip(0xdead'beef) == 0xdead'beef);
  EXPECT_EQ(roundTrip(0xdead'beef), 0xdead'beef);
}

RC_GTEST_PROP(BytesProperty, LoadUndoesStoreAtAnyAlignment, (std::uint64_t value)) {
  std::array<std::byte, 16> bytes{};
  const auto offset = *rc::gen::inRange<std::size_t>(0, 9);
  const auto eight = std::span(bytes).subspan(offset).first<8>();
  Nbd::storeBig<std::uint64_t>(eight, value);
  RC_ASSERT(Nbd::loadBig<std::uint64_t>(eight) == value);
}

TEST(Reader, ReadsUpToTheEndAndNotBeyond) {
  std::vector<std::byte> bytes;
  Nbd::appendBig(bytes, std::uint16_t{7});
  Nbd::appendText(bytes, "abc");
  Nbd::Reader reader(bytes);
  EXPECT_EQ(reader.number<std::uint16_t>(), 7);
  EXPECT_EQ(reader.number<std::uint32_t>(), std::nullopt);
  EXPECT_EQ(reader.remaining(), 3U) << "a failed read moves nothing";
  EXPECT_FALSE(reader.bytes(std::numeric_limits<std::size_t>::max()).has_value());
  EXPECT_EQ(reader.text(3), "abc");
  EXPECT_TRUE(reader.atEnd());
  EXPECT_EQ(reader.text(0), "");
  EXPECT_EQ(reader.number<std::uint8_t>(), std::nullopt);
}

struct Utf8Case {
  std::string text;
  bool valid;
};

TEST(Utf8, TellsWellFormedFromIllFormed) {
  const Utf8Case cases[] = {
      {"", true},
      {"disk", true},
      {"\x7f", true},
      {"\xc2\x80", true},
      {"\xdf\xbf", true},
      {"\xe0\xa0\x80", true},
      {"\xed\x9f\xbf", true},
      {"\xee\x80\x80", true},
      {"\xef\xbf\xbf", true},
      {"\xf0\x90\x80\x80", true},
      {"\xf4\x8f\xbf\xbf", true},
      {"a\0b"s, true},
      {"\x80", false},              // continuation alone
      {"\xc0\xaf", false},          // overlong
      {"\xc1\xbf", false},          // overlong
      {"\xc2", false},              // cut
      {"\xc2\x41", false},          // no continuation
      {"\xe0\x9f\xbf", false},      // overlong
      {"\xe0\xa0", false},          // cut
      {"\xe1\x80\xc0", false},      // third byte
      {"\xed\xa0\x80", false},      // surrogate
      {"\xf0\x8f\xbf\xbf", false},  // overlong
      {"\xf1\x80\x80\x7f", false},  // fourth byte
      {"\xf4\x90\x80\x80", false},  // above U+10FFFF
      {"\xf5\x80\x80\x80", false},
      {"\xff", false},
      {"good\xe2\x82\xac\x80", false},  // a good start does not help
  };
  for (const auto& [text, valid] : cases) EXPECT_EQ(Nbd::isUtf8(text), valid) << testing::PrintToString(text);
}

// Every code point that exists is accepted in its shortest form.
TEST(Utf8, AcceptsEveryCodePoint) {
  const auto unit = [](std::uint32_t value) { return static_cast<char>(value); };
  for (std::uint32_t point = 0; point <= 0x10ffff; ++point) {
    std::string text;
    if (point < 0x80) {
      text = {unit(point)};
    } else if (point < 0x800) {
      text = {unit(0xc0 | point >> 6), unit(0x80 | (point & 0x3f))};
    } else if (point < 0x10000) {
      text = {unit(0xe0 | point >> 12), unit(0x80 | (point >> 6 & 0x3f)), unit(0x80 | (point & 0x3f))};
    } else {
      text = {unit(0xf0 | point >> 18), unit(0x80 | (point >> 12 & 0x3f)), unit(0x80 | (point >> 6 & 0x3f)),
              unit(0x80 | (point & 0x3f))};
    }
    const bool isSurrogate = point >= 0xd800 && point <= 0xdfff;
    ASSERT_EQ(Nbd::isUtf8(text), !isSurrogate) << std::hex << point;
  }
}

TEST(WireString, IsShortUtf8WithoutNul) {
  EXPECT_TRUE(Nbd::isWireString(""));
  EXPECT_TRUE(Nbd::isWireString(std::string(Nbd::maxStringLength, 'x')));
  EXPECT_FALSE(Nbd::isWireString(std::string(Nbd::maxStringLength + 1, 'x')));
  EXPECT_FALSE(Nbd::isWireString("a\0b"s));
  EXPECT_FALSE(Nbd::isWireString("\xff"));
}

TEST(TruncateUtf8, EndsBetweenCharacters) {
  EXPECT_EQ(Nbd::truncateUtf8("abc", 3), "abc");
  EXPECT_EQ(Nbd::truncateUtf8("abcd", 3), "abc");
  EXPECT_EQ(Nbd::truncateUtf8("a\xe2\x82\xac", 3), "a");
  EXPECT_EQ(Nbd::truncateUtf8("a\xe2\x82\xac", 4), "a\xe2\x82\xac");
  EXPECT_EQ(Nbd::truncateUtf8("\x80\x80\x80", 2), "");
}

}  // namespace
