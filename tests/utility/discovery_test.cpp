#include <gtest/gtest.h>

#include "tests/support/scripted_platform.h"
#include "tests/utility/variants.h"

using Services::NBD::Client::Types::RemoteExportList;
using Services::NBD::Client::Types::RemoteServerDescriptor;
using Support::endpoint;
using Support::failing;
using Support::list;
using Support::nested;
using Support::number;
using Support::Platform;
using Support::succeeding;
using Support::text;
using Support::Variant;
using Support::words;

namespace {

RemoteServerDescriptor server(std::string_view address, std::string_view label, Variant properties = {}) {
  return {.source = {},
          .endpoint = endpoint(address, 10809),
          .interfaceIndex = 0,
          .properties = std::move(properties),
          .label = text(label)};
}

RemoteExportList offering(const std::vector<std::string>& names) {
  RemoteExportList offered;
  for (const std::string& name : names) {
    offered.exports.push_back({.name = text(name), .uuid = text("u"), .size = 7, .flags = 1});
  }
  return offered;
}

}  // namespace

// ---- discover

TEST(Discover, ShowsServersWithTheirLabelsAndProperties) {
  Platform platform;
  platform.script.servers = {
      server("192.0.2.1", "storage", list({words("platform", "Linux"), number("exports", 3)})),
      server("2001:db8::2", "", list({nested("net", {number("port", 5), nested("more", {})})})),
      server("192.0.2.3", "a (b)"),
  };
  EXPECT_EQ(platform.run("discover"), succeeding("Discovering remote servers... {serverDiscover}OK!\n"
                                                 "Remote servers: 3\n"
                                                 "  Server 1: 192.0.2.1:10809 (storage)\n"
                                                 "    Property: platform\n"
                                                 "    -> value: Linux\n"
                                                 "    Property: exports\n"
                                                 "    -> value: 3\n"
                                                 "\n"
                                                 "  Server 2: [2001:DB8::2]:10809 ()\n"
                                                 "    Property: net\n"
                                                 "    -> value: <nested>\n"
                                                 "                      Property: port\n"
                                                 "                      -> value: 5\n"
                                                 "                      Property: more\n"
                                                 "                      -> value: <nested>\n"
                                                 "\n"
                                                 "  Server 3: 192.0.2.3:10809 (a (b))\n"));
}

TEST(Discover, EndsAfterTheOnlyServer) {
  Platform platform;
  platform.script.servers = {server("192.0.2.1", "storage", list({words("a", "b")}))};
  EXPECT_EQ(platform.run("discover"), succeeding("Discovering remote servers... {serverDiscover}OK!\n"
                                                 "Remote servers: 1\n"
                                                 "  Server 1: 192.0.2.1:10809 (storage)\n"
                                                 "    Property: a\n"
                                                 "    -> value: b\n"));
}

TEST(Discover, SaysThatThereIsNone) {
  Platform platform;
  EXPECT_EQ(platform.run("discover"), succeeding("Discovering remote servers... {serverDiscover}OK!\n"
                                                 "Remote servers: 0\n"));
}

TEST(Discover, DoesNotAskForTheReasonOfAFailure) {
  Platform platform;
  platform.script.servers = {server("192.0.2.1", "storage")};
  platform.fail("serverDiscover", 0x55);
  EXPECT_EQ(platform.run("discover"), failing("Discovering remote servers... {serverDiscover}failed!\n"));
}

TEST(Discover, RefusesWordsAndLeavesTheLineOpen) {
  Platform platform;
  EXPECT_EQ(platform.run("discover all"), failing("unexpected arguments"));
  EXPECT_EQ(platform.run("discover \"\""), failing("unexpected arguments"));
}

// ---- diskspec

TEST(DiskSpec, ShowsTheMatchesOnEveryServer) {
  Platform platform;
  platform.script.servers = {
      server("192.0.2.1", "not shown", list({words("platform", "Linux"), number("not", 1)})),
      server("2001:db8::2", "not shown", list({nested("net", {number("port", 5)})})),
      server("192.0.2.3", "not shown"),
  };
  platform.script.remoteExports["192.0.2.1:10809"] = offering({"vol1", "vol2"});
  platform.script.remoteExports["[2001:DB8::2]:10809"] = offering({});
  platform.script.remoteExports["192.0.2.3:10809"] = offering({"disk.img"});
  EXPECT_EQ(platform.run("diskspec \"size > 1G\""),
            succeeding("Discovering exports via DiskSpec: size > 1G\n"
                       "Compiling expression... {Parser::parse size > 1G}OK!\n"
                       "Discovering servers... {serverDiscover}OK!\n"
                       "\n"
                       "Remote servers: 3\n"
                       "  Server 1: 192.0.2.1:10809\n"
                       "    Property: platform\n"
                       "    -> value: Linux\n"
                       "\n"
                       "  Server 2: [2001:DB8::2]:10809\n"
                       "    Property: net\n"
                       "    -> value: <nested>\n"
                       "                      Property: port\n"
                       "                      -> value: 5\n"
                       "\n"
                       "  Server 3: 192.0.2.3:10809\n"
                       "    Property: \n"
                       "    -> value: <N/A>\n"
                       "\n"
                       "Sending DiskSpec to servers...\n"
                       "  Server 1: 192.0.2.1:10809\n"
                       "{clone}{fetchRemoteExports 192.0.2.1:10809 size > 1G}"
                       "    1: vol1\n"
                       "    2: vol2\n"
                       "\n"
                       "  Server 2: [2001:DB8::2]:10809\n"
                       "{clone}{fetchRemoteExports [2001:DB8::2]:10809 size > 1G}"
                       "    <no matches>\n"
                       "\n"
                       "  Server 3: 192.0.2.3:10809\n"
                       "{clone}{fetchRemoteExports 192.0.2.3:10809 size > 1G}"
                       "    1: disk.img\n"));
}

TEST(DiskSpec, ReportsAServersReasonInDecimalAndGoesOn) {
  Platform platform;
  platform.script.servers = {server("192.0.2.1", ""), server("192.0.2.2", "")};
  platform.fail("fetchRemoteExports", 0x51);
  EXPECT_EQ(platform.run("diskspec readonly"),
            succeeding("Discovering exports via DiskSpec: readonly\n"
                       "Compiling expression... {Parser::parse readonly}OK!\n"
                       "Discovering servers... {serverDiscover}OK!\n"
                       "\n"
                       "Remote servers: 2\n"
                       "  Server 1: 192.0.2.1:10809\n"
                       "    Property: \n"
                       "    -> value: <N/A>\n"
                       "\n"
                       "  Server 2: 192.0.2.2:10809\n"
                       "    Property: \n"
                       "    -> value: <N/A>\n"
                       "\n"
                       "Sending DiskSpec to servers...\n"
                       "  Server 1: 192.0.2.1:10809\n"
                       "{clone}{fetchRemoteExports 192.0.2.1:10809 readonly}"
                       "{Error::get}    Error: 81\n"
                       "\n"
                       "  Server 2: 192.0.2.2:10809\n"
                       "{clone}{fetchRemoteExports 192.0.2.2:10809 readonly}"
                       "{Error::get}    Error: 81\n"));
}

TEST(DiskSpec, ShowsTheServersBehindOneThatFails) {
  Platform platform;
  platform.script.servers = {server("192.0.2.1", ""), server("192.0.2.2", "")};
  platform.script.remoteExports["192.0.2.2:10809"] = offering({"vol1"});
  const auto answer = platform.run("diskspec readonly");
  EXPECT_EQ(answer.result, 0);
  EXPECT_TRUE(
      answer.journal.ends_with("Sending DiskSpec to servers...\n"
                               "  Server 1: 192.0.2.1:10809\n"
                               "{clone}{fetchRemoteExports 192.0.2.1:10809 readonly}"
                               "{Error::get}    Error: 0\n"
                               "\n"
                               "  Server 2: 192.0.2.2:10809\n"
                               "{clone}{fetchRemoteExports 192.0.2.2:10809 readonly}"
                               "    1: vol1\n"))
      << answer.journal;
}

TEST(DiskSpec, ShowsTheNumberOfTheErrorInAText) {
  for (const std::uint32_t error : {1U, 3U, 255U}) {
    Platform platform;
    platform.traceTearDown();
    platform.fail("Parser::parse", error);
    const auto answer = platform.run("diskspec \"size >\"");
    EXPECT_EQ(answer.result, 1);
    const std::string expected =
        "Discovering exports via DiskSpec: size >\n"
        "Compiling expression... {Parser::parse size >}FAILED (" +
        std::to_string(error) + ")\n{parser destroyed}";
    EXPECT_NE(answer.journal.find(expected), std::string::npos) << answer.journal;
    EXPECT_EQ(answer.journal.find("serverDiscover"), std::string::npos);
  }
}

TEST(DiskSpec, SaysThatDiscoveryFailedWithoutAReason) {
  Platform platform;
  platform.script.servers = {server("192.0.2.1", "")};
  platform.fail("serverDiscover", 0x55);
  EXPECT_EQ(platform.run("diskspec readonly"), failing("Discovering exports via DiskSpec: readonly\n"
                                                       "Compiling expression... {Parser::parse readonly}OK!\n"
                                                       "Discovering servers... {serverDiscover}FAIL!\n"));
}

TEST(DiskSpec, SaysThatThereAreNoServers) {
  Platform platform;
  EXPECT_EQ(platform.run("diskspec readonly"),
            succeeding("Discovering exports via DiskSpec: readonly\n"
                       "Compiling expression... {Parser::parse readonly}OK!\n"
                       "Discovering servers... {serverDiscover}OK!\n"
                       "No servers available!\n"));
}

TEST(DiskSpec, PassesOnTheWordAsItWasTyped) {
  Platform platform;
  EXPECT_EQ(platform.run("diskspec \"name == \\\"a b\\\"\"").journal,
            "Discovering exports via DiskSpec: name == \"a b\"\n"
            "Compiling expression... {Parser::parse name == \"a b\"}OK!\n"
            "Discovering servers... {serverDiscover}OK!\n"
            "No servers available!\n");
  EXPECT_EQ(platform.run("diskspec \"\"").journal,
            "Discovering exports via DiskSpec: \n"
            "Compiling expression... {Parser::parse }OK!\n"
            "Discovering servers... {serverDiscover}OK!\n"
            "No servers available!\n");
}

TEST(DiskSpec, RefusesAWrongNumberOfWordsAndLeavesTheLineOpen) {
  Platform platform;
  EXPECT_EQ(platform.run("diskspec"), failing("unexpected arguments"));
  EXPECT_EQ(platform.run("diskspec size > 1G"), failing("unexpected arguments"));
}

TEST(DiskSpec, DestroysTheServersThenTheExpressionThenTheParser) {
  Platform platform;
  platform.traceTearDown();
  platform.script.servers = {server("192.0.2.1", "")};
  platform.script.remoteExports["192.0.2.1:10809"] = offering({});
  const auto journal = platform.run("diskspec readonly").journal;
  EXPECT_NE(journal.find("{clone}{fetchRemoteExports 192.0.2.1:10809 readonly}"
                         "{clone of the expression destroyed}"
                         "    <no matches>\n"
                         "{servers released}{expression destroyed}{parser destroyed}"),
            std::string::npos)
      << journal;
}

TEST(DiskSpec, DestroysInTheSameOrderWhenDiscoveryFails) {
  Platform platform;
  platform.traceTearDown();
  platform.script.servers = {server("192.0.2.1", "")};
  platform.fail("serverDiscover", 0x55);
  const auto journal = platform.run("diskspec readonly").journal;
  EXPECT_NE(journal.find("{serverDiscover}FAIL!\n{servers released}{expression destroyed}{parser destroyed}"),
            std::string::npos)
      << journal;
}
