#include "nbdd/config/network.h"

#include <gtest/gtest.h>

#include <string>

namespace Nbdd {
namespace {

bool contains(const char* network, const char* address) {
  return Network::parse(network).value().contains(HostAddress::parse(address).value());
}

TEST(Network, HoldsTheAddressesThatBeginAlike) {
  EXPECT_TRUE(contains("192.0.2.0/24", "192.0.2.0"));
  EXPECT_TRUE(contains("192.0.2.0/24", "192.0.2.255"));
  EXPECT_FALSE(contains("192.0.2.0/24", "192.0.3.0"));
  EXPECT_TRUE(contains("192.0.2.128/25", "192.0.2.200"));
  EXPECT_FALSE(contains("192.0.2.128/25", "192.0.2.127"));
  EXPECT_TRUE(contains("192.0.2.4/31", "192.0.2.5"));
  EXPECT_FALSE(contains("192.0.2.4/31", "192.0.2.6"));
  EXPECT_TRUE(contains("2001:db8::/32", "2001:db8:ffff::1"));
  EXPECT_FALSE(contains("2001:db8::/32", "2001:db9::"));
  EXPECT_TRUE(contains("2001:db8:8000::/33", "2001:db8:8000::1"));
  EXPECT_FALSE(contains("2001:db8:8000::/33", "2001:db8:7fff::1"));
}

TEST(Network, OneAddressIsOne) {
  EXPECT_TRUE(contains("192.0.2.1", "192.0.2.1"));
  EXPECT_FALSE(contains("192.0.2.1", "192.0.2.2"));
  EXPECT_TRUE(contains("::1", "::1"));
  EXPECT_FALSE(contains("::1", "::2"));
}

TEST(Network, EverythingIsEverythingOfOneFamily) {
  EXPECT_TRUE(contains("0.0.0.0/0", "203.0.113.9"));
  EXPECT_FALSE(contains("0.0.0.0/0", "2001:db8::1"));
  EXPECT_TRUE(contains("::/0", "2001:db8::1"));
  EXPECT_FALSE(contains("::/0", "203.0.113.9"));
}

TEST(Network, AMappedAddressIsTheIpv4OneThatItHolds) {
  EXPECT_TRUE(contains("192.0.2.0/24", "::ffff:192.0.2.7"));
  EXPECT_FALSE(contains("::/0", "::ffff:192.0.2.7"));
  EXPECT_TRUE(contains("::ffff:192.0.2.0/120", "192.0.2.7"));
  EXPECT_FALSE(contains("::ffff:192.0.2.0/120", "192.0.3.7"));
  EXPECT_EQ(Network::parse("::ffff:0.0.0.0/96"), Network::parse("0.0.0.0/0"));
  EXPECT_EQ(HostAddress::parse("::ffff:192.0.2.7"), HostAddress::parse("192.0.2.7"));
  // Only addresses of that one form are IPv4's.
  EXPECT_FALSE(HostAddress::parse("::192.0.2.7")->isIpv4());
  EXPECT_FALSE(HostAddress::parse("64:ff9b::192.0.2.7")->isIpv4());
}

TEST(Network, TheZoneOfAnAddressIsNoPartOfIt) {
  EXPECT_TRUE(contains("fe80::/10", "fe80::1%eth0"));
  EXPECT_FALSE(Network::parse("fe80::1%eth0").has_value());
}

TEST(Network, WhatIsNoneIsRefused) {
  for (const char* wrong : {"",
                            "/",
                            "/24",
                            "192.0.2.0/",
                            "192.0.2.0/33",
                            "192.0.2.0/-1",
                            "192.0.2.0/+8",
                            "192.0.2.0/ 8",
                            "192.0.2.0/8x",
                            "192.0.2.0/4294967296",
                            "192.0.2/24",
                            "192.0.2.0/255.255.255.0",
                            "::/129",
                            "::1/64",
                            "192.0.2.1/24",
                            "0.0.0.0/0/0",
                            "host",
                            "host/8",
                            " 192.0.2.1",
                            "192.0.2.1 ",
                            "[::1]",
                            "::ffff:192.0.2.1/120"}) {
    EXPECT_FALSE(Network::parse(wrong).has_value()) << wrong;
  }
  EXPECT_FALSE(Network::parse(std::string_view("192.0.2.1\0", 10)).has_value());
}

TEST(Network, ItsTextIsReadAsTheSame) {
  for (const char* text : {"192.0.2.0/24", "192.0.2.1", "0.0.0.0/0", "::/0", "2001:db8::/32", "::ffff:0:0/96",
                           "::ffff:192.0.2.0/120", "::fffe:0:0/95"}) {
    const auto network = Network::parse(text);
    ASSERT_TRUE(network.has_value()) << text;
    EXPECT_EQ(Network::parse(network->text()), network) << network->text();
  }
  EXPECT_EQ(Network::parse("2001:DB8:0::/32")->text(), "2001:db8::/32");
}

TEST(Network, WithoutAListEverybodyMayCome) {
  const HostAddress address = HostAddress::parse("192.0.2.1").value();
  EXPECT_TRUE(admits({}, address));
  EXPECT_TRUE(admits({Network::parse("::1").value(), Network::parse("192.0.2.0/24").value()}, address));
  EXPECT_FALSE(admits({Network::parse("::1").value()}, address));
}

}  // namespace
}  // namespace Nbdd
