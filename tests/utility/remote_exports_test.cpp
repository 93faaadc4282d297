#include <gtest/gtest.h>

#include "tests/support/scripted_platform.h"
#include "tests/utility/variants.h"

using Services::NBD::Client::Types::RemoteExportEntry;
using Services::NBD::Client::Types::RemoteExportList;
using Support::failing;
using Support::list;
using Support::nested;
using Support::number;
using Support::Platform;
using Support::succeeding;
using Support::text;
using Support::words;

namespace {

RemoteExportEntry exported(std::string_view name, std::uint64_t size, std::uint32_t flags) {
  return {.name = text(name), .uuid = {}, .size = size, .flags = flags};
}

const std::string begun =
    "{IPAddress::parse 192.0.2.7}Fetching exports from 192.0.2.7... {fetchRemoteExports 192.0.2.7:0}";

/// What `rlist 192.0.2.7` prints below its progress line when the server offers `offered`.
std::string shown(const RemoteExportList& offered) {
  Platform platform;
  platform.script.remoteExports["192.0.2.7:0"] = offered;
  const auto answer = platform.run("rlist 192.0.2.7");
  EXPECT_EQ(answer.result, 0);
  const std::string head = begun + "OK!\n";
  EXPECT_TRUE(answer.journal.starts_with(head)) << answer.journal;
  return answer.journal.substr(head.size());
}

}  // namespace

TEST(RemoteExports, ShowsAServerOfThisPlatform) {
  RemoteExportList offered;
  offered.isTalvekServer = true;
  offered.uuid = text("0fc63daf-8483-4772-8e79-3d69d8477de4");
  offered.properties = list({words("vendor", "X"), nested("net", {number("port", 5)})});
  offered.exports = {exported("disk.img", 1'073'741'824, 1357), exported("vol1", 512, 3)};
  offered.exports[0].uuid = text("c0ffee00-0000-4000-8000-000000000001");
  EXPECT_EQ(shown(offered),
            "Is Talvek server: true\n"
            "Server UUID: 0fc63daf-8483-4772-8e79-3d69d8477de4\n"
            "Server properties: 2\n"
            "  Property: vendor\n"
            "  -> value: X\n"
            "\n"
            "  Property: net\n"
            "  -> value: <nested>\n"
            "            Property: port\n"
            "            -> value: 5\n"
            "\n"
            "Export count: 2\n"
            "  Export: disk.img\n"
            "    - uuid: c0ffee00-0000-4000-8000-000000000001\n"
            "    - size: 1073741824\n"
            "    - flgs: 1357\n"
            "\n"
            "  Export: vol1\n"
            "    - size: 512\n"
            "    - flgs: 3\n");
}

TEST(RemoteExports, ShowsOnlyTheExportsOfAnotherServer) {
  RemoteExportList offered;
  offered.uuid = text("not to be shown");
  offered.properties = list({words("not to be", "shown")});
  offered.exports = {exported("a", 1, 2)};
  EXPECT_EQ(shown(offered),
            "Is Talvek server: false\n"
            "Export count: 1\n"
            "  Export: a\n"
            "    - size: 1\n"
            "    - flgs: 2\n");
}

TEST(RemoteExports, ShowsAServerThatOffersNothing) {
  EXPECT_EQ(shown({}), "Is Talvek server: false\nExport count: 0\n");
}

TEST(RemoteExports, ShowsAServerOfThisPlatformThatTellsNothing) {
  RemoteExportList offered;
  offered.isTalvekServer = true;
  EXPECT_EQ(shown(offered),
            "Is Talvek server: true\n"
            "Server UUID: \n"
            "Server properties: 0\n"
            "Export count: 0\n");
}

TEST(RemoteExports, LeavesOutAUuidThatIsNotThereOrEmpty) {
  RemoteExportList offered;
  offered.exports = {exported("", 0, 0), exported("b", 18446744073709551615U, 4294967295U)};
  offered.exports[1].uuid = text("");
  EXPECT_EQ(shown(offered),
            "Is Talvek server: false\n"
            "Export count: 2\n"
            "  Export: \n"
            "    - size: 0\n"
            "    - flgs: 0\n"
            "\n"
            "  Export: b\n"
            "    - size: 18446744073709551615\n"
            "    - flgs: 4294967295\n");
}

TEST(RemoteExports, SeparatesExportsByOneEmptyLine) {
  RemoteExportList offered;
  offered.exports = {exported("a", 1, 0), exported("b", 2, 0), exported("c", 3, 0)};
  EXPECT_EQ(shown(offered),
            "Is Talvek server: false\n"
            "Export count: 3\n"
            "  Export: a\n    - size: 1\n    - flgs: 0\n"
            "\n"
            "  Export: b\n    - size: 2\n    - flgs: 0\n"
            "\n"
            "  Export: c\n    - size: 3\n    - flgs: 0\n");
}

TEST(RemoteExports, ShowsTheAddressWithoutPortAsItWasRead) {
  Platform platform;
  platform.script.remoteExports["[FE80::1%7]:0"] = {};
  EXPECT_EQ(platform.run("rlist fe80::1%7"),
            succeeding("{IPAddress::parse fe80::1%7}Fetching exports from FE80::1%7... "
                       "{fetchRemoteExports [FE80::1%7]:0}OK!\n"
                       "Is Talvek server: false\n"
                       "Export count: 0\n"));
}

TEST(RemoteExports, PassesOnWhatIsNoAddress) {
  for (const std::string word : {"storage.example", "192.0.2.7:10809", "256.0.0.1"}) {
    Platform platform;
    EXPECT_EQ(platform.run("rlist " + word),
              failing("{IPAddress::parse " + word +
                      "}Fetching exports from ::... {fetchRemoteExports [::]:0}failed!\n"));
  }
}

TEST(RemoteExports, DoesNotAskForTheReasonOfAFailure) {
  Platform platform;
  platform.script.remoteExports["192.0.2.7:0"] = {};
  platform.fail("fetchRemoteExports", 0x51);
  EXPECT_EQ(platform.run("rlist 192.0.2.7"), failing(begun + "failed!\n"));
}

TEST(RemoteExports, SaysOneThingToEveryWrongNumberOfWords) {
  Platform platform;
  EXPECT_EQ(platform.run("rlist"), failing("missing argument: remote-host"));
  EXPECT_EQ(platform.run("rlist 192.0.2.7 192.0.2.8"), failing("missing argument: remote-host"));
  EXPECT_EQ(platform.run("rlist a b c"), failing("missing argument: remote-host"));
}
