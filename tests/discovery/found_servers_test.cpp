#include "nbdd/discovery/found_servers.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "nbdd/limits.h"

namespace Nbdd::Discovery {
namespace {

const std::string uuid = "0b5cbd4c-6f5a-4c5e-9a3e-3f6f1a2b3c4d";
const std::string otherUuid = "11111111-6f5a-4c5e-9a3e-3f6f1a2b3c4d";

Sighting stock(std::uint64_t id, std::string name, std::string address) {
  return {.id = id,
          .name = std::move(name),
          .target = "host.local",
          .interfaceName = "eth0",
          .interfaceIndex = 2,
          .address = std::move(address),
          .port = 10809};
}

Sighting ours(std::uint64_t id, const std::string& serverUuid, std::string address) {
  Sighting sighting = stock(id, "alpha", std::move(address));
  sighting.text = {
      .uuid = serverUuid, .version = "1", .platform = "Linux", .label = "Alpha", .hostName = "alpha"};
  return sighting;
}

std::vector<std::string> addressesOf(const FoundServers& servers, const std::string& own = {}) {
  std::vector<std::string> addresses;
  for (const auto& server : servers.list(own)) addresses.push_back(server.endpoint.address);
  return addresses;
}

std::vector<std::string> namesOf(const Control::Variant& properties) {
  std::vector<std::string> names;
  for (const auto& property : properties) names.push_back(property.name);
  return names;
}

TEST(FoundServers, AServerComesAndGoes) {
  FoundServers servers;
  EXPECT_TRUE(servers.list("").empty());
  EXPECT_TRUE(servers.found(stock(1, "disk", "192.0.2.1")));
  EXPECT_EQ(addressesOf(servers), std::vector<std::string>{"192.0.2.1"});
  EXPECT_TRUE(servers.found(stock(1, "disk", "192.0.2.9")));
  EXPECT_EQ(addressesOf(servers), std::vector<std::string>{"192.0.2.9"});
  servers.lost(2);
  servers.lost(1);
  servers.lost(1);
  EXPECT_TRUE(servers.list("").empty());
}

TEST(FoundServers, TheNameIsTheFirstProperty) {
  FoundServers servers;
  servers.found(ours(1, uuid, "192.0.2.1"));
  const auto list = servers.list("");
  ASSERT_EQ(list.size(), 1U);
  EXPECT_EQ(list[0].label, "Alpha");
  EXPECT_EQ(list[0].endpoint.port, 10809);
  EXPECT_EQ(namesOf(list[0].properties),
            (std::vector<std::string>{"name", "host name", "uuid", "version", "platform", "addresses"}));
  EXPECT_EQ(list[0].properties[0], (Control::VariantEntry{"name", std::string("alpha")}));
  EXPECT_EQ(list[0].properties[1], (Control::VariantEntry{"host name", std::string("alpha")}));
}

TEST(FoundServers, AStockServerHasTheNameOfItsAnnouncement) {
  FoundServers servers;
  servers.found(stock(1, "disk", "192.0.2.1"));
  const auto list = servers.list("");
  EXPECT_EQ(list[0].label, "disk");
  EXPECT_EQ(namesOf(list[0].properties), (std::vector<std::string>{"name", "host name", "addresses"}));
  EXPECT_EQ(list[0].properties[1], (Control::VariantEntry{"host name", std::string("host.local")}));
}

TEST(FoundServers, AServerOnSeveralLinksIsOne) {
  for (const bool withUuid : {true, false}) {
    FoundServers servers;
    std::uint64_t id = 0;
    for (const std::string address :
         {"fe80::1%eth0", "2001:db8::1", "192.0.2.1", "198.51.100.1", "192.0.2.1"}) {
      Sighting sighting = withUuid ? ours(++id, uuid, address) : stock(++id, "disk", address);
      if (address == "198.51.100.1") sighting.interfaceIndex = 1, sighting.interfaceName = "eth1";
      servers.found(std::move(sighting));
    }
    const auto list = servers.list("");
    ASSERT_EQ(list.size(), 1U) << withUuid;
    EXPECT_EQ(list[0].endpoint.address, "198.51.100.1");
    const auto& addresses = std::get<Control::Variant>(list[0].properties.back().value);
    ASSERT_EQ(addresses.size(), 4U);
    EXPECT_EQ(addresses[0], (Control::VariantEntry{"eth1", std::string("198.51.100.1")}));
    EXPECT_EQ(addresses[1], (Control::VariantEntry{"eth0", std::string("192.0.2.1")}));
    EXPECT_EQ(addresses[3], (Control::VariantEntry{"eth0", std::string("fe80::1%eth0")}));
  }
}

TEST(FoundServers, OneThatIsStillSeenSomewhereStays) {
  FoundServers servers;
  servers.found(ours(1, uuid, "192.0.2.1"));
  servers.found(ours(2, uuid, "2001:db8::1"));
  servers.lost(1);
  EXPECT_EQ(addressesOf(servers), std::vector<std::string>{"2001:db8::1"});
}

TEST(FoundServers, OthersOfTheSameNameAreOthers) {
  FoundServers servers;
  servers.found(ours(1, uuid, "192.0.2.1"));
  servers.found(ours(2, otherUuid, "192.0.2.2"));
  Sighting port = stock(3, "alpha", "192.0.2.3");
  servers.found(port);
  port.id = 4;
  port.port = 10810;
  servers.found(port);
  EXPECT_EQ(addressesOf(servers).size(), 4U);
}

TEST(FoundServers, NamesAreComparedAsDnsDoes) {
  FoundServers servers;
  servers.found(stock(1, "Disk", "192.0.2.1"));
  servers.found(stock(2, "dISK", "192.0.2.2"));
  EXPECT_EQ(addressesOf(servers), std::vector<std::string>{"192.0.2.1"});
}

TEST(FoundServers, TheOwnServerIsNotAmongThem) {
  FoundServers servers;
  servers.found(ours(1, uuid, "192.0.2.1"));
  servers.found(ours(2, otherUuid, "192.0.2.2"));
  servers.found(stock(3, "disk", "192.0.2.3"));
  EXPECT_EQ(addressesOf(servers, uuid), (std::vector<std::string>{"192.0.2.2", "192.0.2.3"}));
}

TEST(FoundServers, TheyAreOrderedByName) {
  FoundServers servers;
  servers.found(stock(1, "beta", "192.0.2.1"));
  servers.found(stock(2, "Gamma", "192.0.2.2"));
  servers.found(stock(3, "Alpha", "192.0.2.3"));
  EXPECT_EQ(addressesOf(servers), (std::vector<std::string>{"192.0.2.3", "192.0.2.1", "192.0.2.2"}));
}

TEST(FoundServers, AFloodIsBounded) {
  FoundServers servers;
  for (std::uint64_t id = 0; id < Limits::discoverySightings; ++id) {
    ASSERT_TRUE(servers.found(stock(id, "disk" + std::to_string(id), "192.0.2.1")));
  }
  EXPECT_FALSE(servers.found(stock(Limits::discoverySightings, "late", "192.0.2.1")));
  EXPECT_TRUE(servers.found(stock(0, "disk0", "192.0.2.2")));
  EXPECT_EQ(servers.list("").size(), Limits::discoverySightings);
  servers.clear();
  EXPECT_TRUE(servers.list("").empty());
}

}  // namespace
}  // namespace Nbdd::Discovery
