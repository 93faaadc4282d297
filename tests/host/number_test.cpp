#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <optional>
#include <string>

#include "platform/string_conversion.h"

namespace {

constexpr std::uint64_t untouched = 0x5555;

std::optional<std::uint64_t> num(std::string_view text) {
  std::uint64_t number = untouched;
  if (!StrConv::num(String::create(text), &number, nullptr)) {
    EXPECT_EQ(number, untouched) << "a refused number must leave the result alone";
    return std::nullopt;
  }
  return number;
}

/// Digits alone, compared as text with the largest number.
std::optional<std::string> model(std::string text) {
  if (text.empty() || !std::ranges::all_of(text, [](char byte) { return byte >= '0' && byte <= '9'; })) {
    return std::nullopt;
  }
  text.erase(0, std::min(text.find_first_not_of('0'), text.size() - 1));
  const std::string most = "18446744073709551615";
  if (text.size() > most.size() || (text.size() == most.size() && text > most)) {
    return std::nullopt;
  }
  return text;
}

}  // namespace

TEST(Number, ReadsUnsignedDecimal) {
  EXPECT_EQ(num("0"), 0U);
  EXPECT_EQ(num("42"), 42U);
  EXPECT_EQ(num("007"), 7U);
  EXPECT_EQ(num("18446744073709551615"), UINT64_MAX);
  EXPECT_EQ(num("0000000000000000000018446744073709551615"), UINT64_MAX);
}

TEST(Number, RefusesEverythingElse) {
  for (const std::string_view text :
       {"", " ", "-", "-1", "+1", " 1", "1 ", "1.0", "1e3", "0x10", "10h", "1,000", "1_0", "x", "\xD9\xA3",
        "18446744073709551616", "99999999999999999999", "100000000000000000000000"}) {
    EXPECT_EQ(num(text), std::nullopt) << '"' << text << '"';
  }
  EXPECT_EQ(num(std::string_view("1\0", 2)), std::nullopt);
  EXPECT_EQ(num(std::string_view("\0001", 2)), std::nullopt);
}

TEST(Number, RefusesNoText) {
  std::uint64_t number = untouched;
  EXPECT_FALSE(StrConv::num(nullptr, &number, nullptr));
  EXPECT_EQ(number, untouched);
}

TEST(Number, WantsThePrefix) {
  std::uint64_t number = untouched;
  const auto prefix = String::create("#", 0, -1);
  EXPECT_TRUE(StrConv::num(String::create("#12", 0, -1), &number, prefix));
  EXPECT_EQ(number, 12U);
  EXPECT_FALSE(StrConv::num(String::create("12", 0, -1), &number, prefix));
  EXPECT_FALSE(StrConv::num(String::create("#", 0, -1), &number, prefix));
}

TEST(Number, IsWrittenInDecimal) {
  EXPECT_EQ(StrConv::str(0)->view(), "0");
  EXPECT_EQ(StrConv::str(UINT64_MAX)->view(), "18446744073709551615");
}

RC_GTEST_PROP(NumberProperty, ReadsWhatIsWritten, (std::uint64_t number)) {
  RC_ASSERT(num(StrConv::str(number)->view()) == number);
}

RC_GTEST_PROP(NumberProperty, AgreesWithTheModel, ()) {
  const auto text = *rc::gen::oneOf(
      rc::gen::container<std::string>(rc::gen::element('0', '1', '8', '9', '4', '6', '7')),
      rc::gen::container<std::string>(rc::gen::element('0', '1', '9', '+', '-', ' ', 'x', '.')),
      rc::gen::map(rc::gen::inRange(0, 100), [](int low) {
        const std::string digits = std::to_string(low);
        return "184467440737095516" + std::string(2 - digits.size(), '0') + digits;
      }));
  const auto read = num(text);
  RC_ASSERT((read ? std::optional(std::to_string(*read)) : std::nullopt) == model(text));
}
