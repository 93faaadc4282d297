#include "host/runtime/address_text.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include <string>

#include "platform/network.h"

using Services::Network::Definitions::IPAddress;

namespace {

IPAddress parse(std::string_view text) { return IPAddress::parse(String::create(text)); }

IPAddress ipv6(const std::array<std::uint16_t, 8>& groups, std::uint32_t scope = 0) {
  return {IPAddress::familyIPv6, groups, scope};
}

}  // namespace

TEST(ParseAddress, ReadsIPv4) {
  EXPECT_EQ(parse("192.0.2.1"), IPAddress::ofIPv4(0xC0000201));
  EXPECT_EQ(parse("0.0.0.0"), IPAddress::ofIPv4(0));
  EXPECT_EQ(parse("255.255.255.255"), IPAddress::ofIPv4(0xFFFFFFFF));
  EXPECT_EQ(parse("192.0.2.1").groups[1], 0xC000) << "the first octet is the highest byte";
  EXPECT_EQ(parse("192.0.2.1").groups[0], 0x0201);
}

TEST(ParseAddress, ReadsIPv6) {
  EXPECT_EQ(parse("::"), ipv6({}));
  EXPECT_EQ(parse("::1"), ipv6({0, 0, 0, 0, 0, 0, 0, 1}));
  EXPECT_EQ(parse("2001:DB8::a:b"), ipv6({0x2001, 0xDB8, 0, 0, 0, 0, 0xA, 0xB}));
  EXPECT_EQ(parse("1:2:3:4:5:6:7:8"), ipv6({1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(parse("::ffff:1.2.3.4"), ipv6({0, 0, 0, 0, 0, 0xFFFF, 0x0102, 0x0304}));
}

TEST(ParseAddress, ToleratesBracketsAroundIPv6) {
  EXPECT_EQ(parse("[::1]"), parse("::1"));
  EXPECT_EQ(parse("[fe80::1%3]"), parse("fe80::1%3"));
}

TEST(ParseAddress, ReadsAScopeByNumberAndByName) {
  EXPECT_EQ(parse("fe80::1%7"), ipv6({0xFE80, 0, 0, 0, 0, 0, 0, 1}, 7));
  EXPECT_EQ(parse("fe80::1%4294967295"), ipv6({0xFE80, 0, 0, 0, 0, 0, 0, 1}, 0xFFFFFFFF));
  EXPECT_EQ(parse("fe80::1%0"), parse("fe80::1"));
  const unsigned int loopback = if_nametoindex("lo");
  ASSERT_NE(loopback, 0U);
  EXPECT_EQ(parse("fe80::1%lo"), ipv6({0xFE80, 0, 0, 0, 0, 0, 0, 1}, loopback));
}

TEST(ParseAddress, TakesEverythingElseForNoAddress) {
  for (const std::string_view text : {"",
                                      " ",
                                      "localhost",
                                      "192.0.2",
                                      "192.0.2.1.1",
                                      "192.0.2.256",
                                      "192.0.2.1 ",
                                      " 192.0.2.1",
                                      "192.0.2.01",
                                      "0xC0.0.2.1",
                                      "3221225985",
                                      "192.0.2.1%1",
                                      "192.0.2.1:10809",
                                      "[192.0.2.1]",
                                      "[::1",
                                      "::1]",
                                      "[]",
                                      "[[::1]]",
                                      "[::1]:10809",
                                      "::1:",
                                      ":::",
                                      "1:2:3:4:5:6:7",
                                      "1:2:3:4:5:6:7:8:9",
                                      "12345::",
                                      "g::",
                                      "1:2:3:4:5:6:7:",
                                      "fe80::1%",
                                      "fe80::1%no-such-interface",
                                      "fe80::1%4294967296",
                                      "fe80::1%-1",
                                      "%1",
                                      "fe80::1%1%1",
                                      "[fe80::1]%1",
                                      "::1/64"}) {
    EXPECT_EQ(parse(text), IPAddress()) << '"' << text << '"';
  }
  EXPECT_EQ(parse(std::string_view("192.0.2.1\0", 10)), IPAddress());
  EXPECT_EQ(parse(std::string_view("fe80::1%lo\0", 11)), IPAddress());
  EXPECT_EQ(parse(std::string(100000, ':')), IPAddress());
  EXPECT_EQ(IPAddress::parse(nullptr), IPAddress());
}
