#include "shell/addresses.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "host/runtime/address_text.h"

using Services::Network::Definitions::IPAddress;

namespace {

using Groups = std::array<std::uint16_t, 8>;

IPAddress ipv6(const Groups& groups, std::uint32_t scope = 0) {
  return {IPAddress::familyIPv6, groups, scope};
}

std::string print(const IPAddress& address) {
  const auto printer = StringPrinter::create();
  Shell::printIPAddress(address, printer);
  return std::string(printer->text()->view());
}

std::string format(const IPAddress& address, std::uint16_t port) {
  return std::string(Shell::formatEndpoint({address, port})->view());
}

/// Groups in which zeros are as common as they are in real addresses.
rc::Gen<Groups> groups() {
  return rc::gen::container<Groups>(
      rc::gen::weightedOneOf<std::uint16_t>({{3, rc::gen::just(std::uint16_t{0})},
                                             {1, rc::gen::element<std::uint16_t>(1, 0xF, 0x10, 0xFFFF)},
                                             {1, rc::gen::arbitrary<std::uint16_t>()}}));
}

/// No scope, or one, with the low half sometimes zero.
rc::Gen<std::uint32_t> scope() {
  return rc::gen::oneOf(rc::gen::just(0U), rc::gen::just(0x10000U), rc::gen::arbitrary<std::uint32_t>());
}

/// The groups from `first` up to `last` as people write them.
std::string joined(const Groups& groups, std::size_t first, std::size_t last) {
  std::string text;
  for (std::size_t i = first; i < last; ++i) {
    std::array<char, 8> digits{};
    std::snprintf(digits.data(), digits.size(), "%s%X", i == first ? "" : ":",
                  static_cast<unsigned>(groups.at(i)));
    text += digits.data();
  }
  return text;
}

/// What an address that is not mapped looks like, put together from its two sides: the groups before the
/// first pair of zeros, and those behind the zeros that begin there. What follows group 7 is the low half of
/// the scope.
std::string model(const Groups& groups, std::uint32_t scope) {
  const auto zeroAt = [&](std::size_t i) { return i < 8 ? groups.at(i) == 0 : (scope & 0xFFFF) == 0; };
  std::size_t first = 0;
  while (first < 8 && !(zeroAt(first) && zeroAt(first + 1))) {
    ++first;
  }
  std::string text = joined(groups, 0, first);
  if (first == 7) {
    text += ":";
  } else if (first < 7) {
    const auto behind = std::find_if(groups.begin() + static_cast<std::ptrdiff_t>(first), groups.end(),
                                     [](auto group) { return group != 0; });
    text += "::" + joined(groups, static_cast<std::size_t>(behind - groups.begin()), 8);
  }
  return scope == 0 ? text : text + "%" + std::to_string(scope);
}

bool isMapped(const Groups& groups) {
  return std::all_of(groups.begin(), groups.begin() + 5, [](auto group) { return group == 0; }) &&
         groups[5] == 0xFFFF;
}

}  // namespace

TEST(PrintIPv4, PrintsTheHighestByteFirst) {
  const auto printer = StringPrinter::create();
  Shell::printIPv4(4, 3, 2, 1, printer)->printText("!");
  EXPECT_EQ(printer->text()->view(), "1.2.3.4!");
}

TEST(PrintIPAddress, PrintsIPv4WithoutAScope) {
  EXPECT_EQ(print(IPAddress::ofIPv4(0x0A000005)), "10.0.0.5");
  EXPECT_EQ(print(IPAddress::ofIPv4(0)), "0.0.0.0");
  EXPECT_EQ(print(IPAddress::ofIPv4(0xFFFFFFFF)), "255.255.255.255");
  IPAddress scoped = IPAddress::ofIPv4(0x7F000001);
  scoped.scope = 3;
  EXPECT_EQ(print(scoped), "127.0.0.1");
}

TEST(PrintIPAddress, ShortensTheFirstRunOfZeros) {
  EXPECT_EQ(print(ipv6({0, 0, 0, 0, 0, 0, 0, 0})), "::");
  EXPECT_EQ(print(ipv6({0, 0, 0, 0, 0, 0, 0, 1})), "::1");
  EXPECT_EQ(print(ipv6({1, 0, 0, 0, 0, 0, 0, 0})), "1::");
  EXPECT_EQ(print(ipv6({1, 0, 0, 2, 0, 0, 0, 3})), "1::2:0:0:0:3");
  EXPECT_EQ(print(ipv6({1, 0, 2, 3, 4, 5, 6, 7})), "1:0:2:3:4:5:6:7");
  EXPECT_EQ(print(ipv6({0, 1, 2, 3, 4, 5, 6, 7})), "0:1:2:3:4:5:6:7");
  EXPECT_EQ(print(ipv6({1, 2, 3, 4, 5, 6, 0, 0})), "1:2:3:4:5:6::");
}

TEST(PrintIPAddress, TakesTheScopeForTheGroupBehindTheLast) {
  EXPECT_EQ(print(ipv6({1, 2, 3, 4, 5, 6, 7, 0})), "1:2:3:4:5:6:7:");
  EXPECT_EQ(print(ipv6({1, 2, 3, 4, 5, 6, 7, 0}, 5)), "1:2:3:4:5:6:7:0%5");
  EXPECT_EQ(print(ipv6({1, 2, 3, 4, 5, 6, 7, 0}, 0x10000)), "1:2:3:4:5:6:7:%65536");
  EXPECT_EQ(print(ipv6({1, 0, 0, 4, 5, 6, 7, 0})), "1::4:5:6:7:0") << "a run was left out already";
  EXPECT_EQ(print(ipv6({0, 0, 0, 0, 0, 0, 0, 0}, 5)), "::%5");
}

TEST(PrintIPAddress, WritesGroupsInUpperCaseWithoutLeadingZeros) {
  EXPECT_EQ(print(ipv6({0xFE80, 0xABC, 0xDE, 0xF, 0x100, 0x20, 0x3, 0xFFFF})), "FE80:ABC:DE:F:100:20:3:FFFF");
}

TEST(PrintIPAddress, PrintsAScopeInDecimal) {
  EXPECT_EQ(print(ipv6({0xFE80, 0, 0, 0, 0, 0, 0, 1}, 1)), "FE80::1%1");
  EXPECT_EQ(print(ipv6({0xFE80, 0, 0, 0, 0, 0, 0, 1}, 12)), "FE80::1%12");
  EXPECT_EQ(print(ipv6({0xFE80, 0, 0, 0, 0, 0, 0, 1}, 0xFFFFFFFF)), "FE80::1%4294967295");
}

TEST(PrintIPAddress, PrintsMappedAddressesInTheOrderOfTheirBytes) {
  EXPECT_EQ(print(ipv6({0, 0, 0, 0, 0, 0xFFFF, 0x0102, 0x0304})), "::FFFF:3.4.1.2");
  EXPECT_EQ(print(ipv6({0, 0, 0, 0, 0, 0xFFFF, 0, 0})), "::FFFF:0.0.0.0");
  EXPECT_EQ(print(ipv6({0, 0, 0, 0, 0, 0xFFFF, 0x0102, 0x0304}, 9)), "::FFFF:3.4.1.2%9");
  EXPECT_EQ(print(ipv6({0, 0, 0, 0, 1, 0xFFFF, 0x0102, 0x0304})), "::1:FFFF:102:304") << "not mapped";
  EXPECT_EQ(print(ipv6({0, 0, 0, 0, 0, 0xFFFE, 0x0102, 0x0304})), "::FFFE:102:304") << "not mapped";
}

TEST(PrintIPAddress, TakesEveryFamilyButTwoForIPv6) {
  EXPECT_EQ(print(IPAddress()), "::");
  EXPECT_EQ(print({6, {1, 2, 3, 4, 5, 6, 7, 8}, 0}), "1:2:3:4:5:6:7:8");
}

TEST(PrintIPAddress, PrintsDecimalAfterAHexadecimalNumber) {
  const auto printer = StringPrinter::create();
  printer->hex()->printU32(255)->printText(" ");
  Shell::printIPAddress(IPAddress::ofIPv4(0xFF0A0B0C), printer);
  EXPECT_EQ(printer->text()->view(), "FF 255.10.11.12");
}

TEST(FormatEndpoint, PutsThePortBehindTheAddress) {
  EXPECT_EQ(format(IPAddress::ofIPv4(0x0A000005), 10809), "10.0.0.5:10809");
  EXPECT_EQ(format(IPAddress::ofIPv4(0), 0), "0.0.0.0:0");
}

TEST(FormatEndpoint, PutsAnythingButIPv4InBrackets) {
  EXPECT_EQ(format(ipv6({0, 0, 0, 0, 0, 0, 0, 1}), 65535), "[::1]:65535");
  EXPECT_EQ(format(ipv6({0xFE80, 0, 0, 0, 0, 0, 0, 1}, 2), 1), "[FE80::1%2]:1");
  EXPECT_EQ(format(ipv6({0, 0, 0, 0, 0, 0xFFFF, 0x0102, 0x0304}), 1), "[::FFFF:3.4.1.2]:1");
  EXPECT_EQ(format(IPAddress(), 0), "[::]:0");
}

RC_GTEST_PROP(PrintIPAddressProperty, PrintsIPv4AsItsFourOctets,
              (std::uint8_t a, std::uint8_t b, std::uint8_t c)) {
  const auto d = static_cast<std::uint8_t>(a ^ b ^ c);
  const std::uint32_t number = std::uint32_t{a} << 24U | std::uint32_t{b} << 16U | std::uint32_t{c} << 8U | d;
  const std::string expected =
      std::to_string(a) + "." + std::to_string(b) + "." + std::to_string(c) + "." + std::to_string(d);
  RC_ASSERT(print(IPAddress::ofIPv4(number)) == expected);
  RC_ASSERT(Host::parseAddress(expected) == IPAddress::ofIPv4(number));
}

RC_GTEST_PROP(PrintIPAddressProperty, AgreesWithTheModel, ()) {
  const Groups generated = *groups();
  const std::uint32_t number = *scope();
  RC_PRE(!isMapped(generated));
  RC_ASSERT(print(ipv6(generated, number)) == model(generated, number));
}

RC_GTEST_PROP(PrintIPAddressProperty, PrintsWhatCanBeReadAgain, ()) {
  const Groups generated = *groups();
  const std::uint32_t number = *scope();
  const std::string printed = print(ipv6(generated, number));
  // Mapped addresses change places, and a single colon at the end is no address any more.
  RC_PRE(!isMapped(generated));
  const std::string address = printed.substr(0, printed.find('%'));
  RC_PRE(!address.ends_with(':') || address.ends_with("::"));
  RC_ASSERT(Host::parseAddress(printed) == ipv6(generated, number));
}

RC_GTEST_PROP(FormatEndpointProperty, IsTheAddressAndThePort, (std::uint16_t port)) {
  const Groups generated = *groups();
  const std::uint32_t number = *scope();
  const IPAddress address = ipv6(generated, number);
  RC_ASSERT(format(address, port) == "[" + print(address) + "]:" + std::to_string(port));
}
