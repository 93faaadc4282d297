#include "nbdd/discovery/host_links.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace Nbdd::Discovery {
namespace {

using Addresses = std::vector<std::string>;

const HostLink link{
    .name = "eth0", .index = 2, .addresses = {"192.0.2.1", "192.0.2.2", "2001:db8::1", "fe80::1"}};

Addresses reached(Addresses listening) { return reachableAddresses(link, listening); }

TEST(HostLinks, AServerThatListensEverywhereIsReachedAtEveryAddress) {
  EXPECT_EQ(reached({"0.0.0.0", "::"}), (Addresses{"192.0.2.1", "192.0.2.2", "2001:db8::1"}));
  EXPECT_EQ(reached({"0.0.0.0"}), (Addresses{"192.0.2.1", "192.0.2.2"}));
  EXPECT_EQ(reached({"::"}), (Addresses{"2001:db8::1"}));
}

TEST(HostLinks, OneThatListensOnSomeIsReachedAtThose) {
  EXPECT_EQ(reached({"192.0.2.2", "198.51.100.1"}), (Addresses{"192.0.2.2"}));
  EXPECT_EQ(reached({"2001:db8::1"}), (Addresses{"2001:db8::1"}));
  EXPECT_EQ(reached({"fe80::1%eth0"}), (Addresses{"fe80::1"}));
  EXPECT_EQ(reached({"fe80::1%2"}), (Addresses{"fe80::1"}));
  EXPECT_EQ(reached({"fe80::1%eth1"}), Addresses{});
  EXPECT_EQ(reached({}), Addresses{});
}

TEST(HostLinks, LinkLocalAddressesCountWhereThereIsNoOther) {
  const HostLink lonely{.name = "eth0", .index = 2, .addresses = {"192.0.2.1", "fe80::1"}};
  EXPECT_EQ(reachableAddresses(lonely, Addresses{"0.0.0.0", "::"}), (Addresses{"192.0.2.1", "fe80::1"}));
}

TEST(HostLinks, AServerInTheNetworkIsNeitherThisHostNorEverybody) {
  for (const char* const address : {"192.0.2.1", "10.0.0.1", "169.254.1.1", "2001:db8::1", "fe80::1%eth0"}) {
    EXPECT_TRUE(isAddressOfAHost(address)) << address;
  }
  for (const char* const address :
       {"0.0.0.0", "0.1.2.3", "127.0.0.1", "127.9.9.9", "224.0.0.251", "240.0.0.1", "255.255.255.255",
        "::", "::1", "ff02::fb", "::ffff:127.0.0.1", "::127.0.0.1", "", "x", "1.2.3", "192.0.2.1:1"}) {
    EXPECT_FALSE(isAddressOfAHost(address)) << address;
  }
}

TEST(HostLinks, LoopbackIsNone) {
  const Addresses loopback = loopbackNames();
  for (const auto& [index, each] : hostLinks({})) {
    EXPECT_EQ(std::ranges::find(loopback, each.name), loopback.end()) << each.name;
    EXPECT_FALSE(each.addresses.empty());
    EXPECT_EQ(each.index, index);
  }
  EXPECT_TRUE(hostLinks(Addresses{"no-such-link"}).empty());
}

}  // namespace
}  // namespace Nbdd::Discovery
