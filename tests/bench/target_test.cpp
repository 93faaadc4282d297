#include "bench/load/target.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstdint>
#include <expected>
#include <string>

namespace {

using Bench::parseTarget;
using Bench::Target;

std::uint16_t portOf(const Target& target) {
  return ntohs(target.address.ss_family == AF_INET
                   ? reinterpret_cast<const sockaddr_in&>(target.address).sin_port
                   : reinterpret_cast<const sockaddr_in6&>(target.address).sin6_port);
}

TEST(Target, HasHostPortAndName) {
  const std::expected<Target, std::string> target = parseTarget("nbd://127.0.0.1:12345/disk.img");
  ASSERT_TRUE(target) << target.error();
  EXPECT_EQ(target->address.ss_family, AF_INET);
  EXPECT_EQ(portOf(*target), 12345);
  EXPECT_EQ(target->exportName, "disk.img");
}

TEST(Target, HasTheStandardPortAndTheDefaultExportUnlessSaid) {
  for (const char* uri : {"nbd://127.0.0.1", "nbd://127.0.0.1/"}) {
    const std::expected<Target, std::string> target = parseTarget(uri);
    ASSERT_TRUE(target) << target.error();
    EXPECT_EQ(portOf(*target), 10809);
    EXPECT_EQ(target->exportName, "");
  }
}

TEST(Target, MayBeAnIpv6Address) {
  const std::expected<Target, std::string> target = parseTarget("nbd://[::1]:7/x");
  ASSERT_TRUE(target) << target.error();
  EXPECT_EQ(target->address.ss_family, AF_INET6);
  EXPECT_EQ(portOf(*target), 7);
}

TEST(Target, DecodesTheName) {
  const std::expected<Target, std::string> target = parseTarget("nbd://127.0.0.1/a%20b%2Fc");
  ASSERT_TRUE(target) << target.error();
  EXPECT_EQ(target->exportName, "a b/c");
}

TEST(Target, IsRefusedWithAReason) {
  for (const char* uri : {"", "127.0.0.1", "nbds://127.0.0.1/", "nbd://127.0.0.1/%4", "nbd://127.0.0.1/%zz",
                          "nbd://127.0.0.1:no-such-service/"}) {
    const std::expected<Target, std::string> target = parseTarget(uri);
    ASSERT_FALSE(target) << uri;
    EXPECT_FALSE(target.error().empty());
  }
}

}  // namespace
