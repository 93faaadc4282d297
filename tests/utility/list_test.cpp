#include <gtest/gtest.h>

#include <limits>

#include "tests/support/scripted_platform.h"
#include "tests/utility/listing.h"

using namespace Services::NBD::Client::Types;
using Support::endpoint;
using Support::failing;
using Support::Platform;
using Support::succeeding;
using Support::text;

namespace {

ExportInfo exportInfo(std::uint32_t id, const char* name) {
  ExportInfo info;
  info.id = static_cast<ExportID>(id);
  info.descriptor.name = text(name);
  info.descriptor.node = text(std::string("/srv/") + name);
  info.descriptor.elemCount = 2048;
  info.descriptor.elemSize = 512;
  info.state = ExportState::Enabled;
  info.uuid = text(std::string("uuid-of-") + name);
  return info;
}

/// Puts an export without clients into the script.
void have(Platform& platform, const ExportInfo& info) {
  const auto id = static_cast<std::uint32_t>(info.id);
  platform.script.exportIDs.push_back(id);
  platform.script.exports.emplace(id, info);
  platform.script.exportClients.emplace(id, std::vector<ExportClientInfo>());
}

/// What stands between "label" and the end of its line in the listing of one export.
std::string lineOf(const ExportInfo& info, const std::string& label) {
  Platform platform;
  have(platform, info);
  return Support::valueOf(platform.run("list").journal, label);
}

}  // namespace

TEST(List, SaysThatThereIsNothing) {
  Platform platform;
  EXPECT_EQ(platform.run("list"), succeeding("{exportList}Exports: 0\n"));
}

TEST(List, ShowsAnExportWithItsClients) {
  Platform platform;
  have(platform, exportInfo(3, "disk"));
  platform.script.exportClients[3] = {{endpoint("10.0.0.5", 10809), {}}, {endpoint("fe80::1%7", 50000), {}}};
  EXPECT_EQ(platform.run("list"), succeeding("{exportList}{exportInfo 3}"
                                             "Exports: 1\n"
                                             "  ID 3 | disk\n"
                                             "     - node: /srv/disk\n"
                                             "     - elem count: 2048\n"
                                             "     - elem size: 512\n"
                                             "     - state: enabled\n"
                                             "     - uuid: uuid-of-disk\n"
                                             "{exportGetClients 3}"
                                             "     - client count: 2\n"
                                             "       -> 10.0.0.5:10809\n"
                                             "       -> [FE80::1%7]:50000\n"));
}

TEST(List, FetchesAllBeforeItPrintsAndLeavesOutWhatIsGone) {
  Platform platform;
  have(platform, exportInfo(1, "a"));
  have(platform, exportInfo(2, "gone"));
  have(platform, exportInfo(3, "c"));
  platform.script.exports.erase(2);
  EXPECT_EQ(platform.run("list"), succeeding("{exportList}{exportInfo 1}{exportInfo 2}{exportInfo 3}"
                                             "Exports: 2\n"
                                             "  ID 1 | a\n"
                                             "     - node: /srv/a\n"
                                             "     - elem count: 2048\n"
                                             "     - elem size: 512\n"
                                             "     - state: enabled\n"
                                             "     - uuid: uuid-of-a\n"
                                             "{exportGetClients 1}"
                                             "     - client count: 0\n"
                                             "  ID 3 | c\n"
                                             "     - node: /srv/c\n"
                                             "     - elem count: 2048\n"
                                             "     - elem size: 512\n"
                                             "     - state: enabled\n"
                                             "     - uuid: uuid-of-c\n"
                                             "{exportGetClients 3}"
                                             "     - client count: 0\n"));
}

TEST(List, KeepsTheServicesOrder) {
  Platform platform;
  have(platform, exportInfo(9, "nine"));
  have(platform, exportInfo(2, "two"));
  const std::string journal = platform.run("list").journal;
  EXPECT_LT(journal.find("ID 9 | nine"), journal.find("ID 2 | two"));
}

TEST(List, UsesTheRecordsOwnID) {
  Platform platform;
  have(platform, exportInfo(4, "disk"));
  platform.script.exports.at(4).id = static_cast<ExportID>(4294967295);
  platform.script.exportClients[4294967295] = {};
  const std::string journal = platform.run("list").journal;
  EXPECT_NE(journal.find("  ID 4294967295 | disk\n"), std::string::npos) << journal;
  EXPECT_NE(journal.find("{exportGetClients 4294967295}     - client count: 0\n"), std::string::npos)
      << journal;
}

TEST(List, LeavesOutTheClientsThatItCannotHave) {
  Platform platform;
  have(platform, exportInfo(1, "a"));
  platform.script.exportClients.clear();
  EXPECT_EQ(platform.run("list"), succeeding("{exportList}{exportInfo 1}"
                                             "Exports: 1\n"
                                             "  ID 1 | a\n"
                                             "     - node: /srv/a\n"
                                             "     - elem count: 2048\n"
                                             "     - elem size: 512\n"
                                             "     - state: enabled\n"
                                             "     - uuid: uuid-of-a\n"
                                             "{exportGetClients 1}"));
}

TEST(List, ShowsAReasonBetweenUuidAndClients) {
  Platform platform;
  ExportInfo info = exportInfo(1, "a");
  info.state = ExportState::Failed;
  info.reason = ExportReason::AccessError;
  have(platform, info);
  EXPECT_EQ(platform.run("list"), succeeding("{exportList}{exportInfo 1}"
                                             "Exports: 1\n"
                                             "  ID 1 | a\n"
                                             "     - node: /srv/a\n"
                                             "     - elem count: 2048\n"
                                             "     - elem size: 512\n"
                                             "     - state: failed\n"
                                             "     - uuid: uuid-of-a\n"
                                             "     - reason: access error\n"
                                             "{exportGetClients 1}"
                                             "     - client count: 0\n"));
}

TEST(List, NamesEveryState) {
  const std::vector<std::pair<std::uint32_t, std::string>> names{
      {0, "<inv>"},    {1, "added"},  {2, "enabled"}, {3, "disabling"},
      {4, "disabled"}, {5, "failed"}, {6, "<inv>"},   {0xFFFFFFFF, "<inv>"},
  };
  for (const auto& [value, name] : names) {
    ExportInfo info = exportInfo(1, "a");
    info.state = static_cast<ExportState>(value);
    EXPECT_EQ(lineOf(info, "state"), name) << "state " << value;
  }
}

TEST(List, NamesEveryReason) {
  const std::vector<std::pair<std::uint32_t, std::string>> names{
      {0, "none"}, {1, "access denied"}, {2, "access error"}, {3, "<inv>"}, {0xFFFFFFFF, "<inv>"},
  };
  for (const auto& [value, name] : names) {
    ExportInfo info = exportInfo(1, "a");
    info.reason = static_cast<ExportReason>(value);
    EXPECT_EQ(lineOf(info, "reason"), name) << "reason " << value;
  }
  EXPECT_EQ(lineOf(exportInfo(1, "a"), "reason"), "no such line");
}

TEST(List, PrintsTheLargestNumbers) {
  ExportInfo info = exportInfo(1, "a");
  info.descriptor.elemCount = std::numeric_limits<std::uint64_t>::max();
  info.descriptor.elemSize = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(lineOf(info, "elem count"), "18446744073709551615");
  EXPECT_EQ(lineOf(info, "elem size"), "18446744073709551615");
}

TEST(List, PrintsNothingForTextsThatAreNotThere) {
  Platform platform;
  ExportInfo info;
  info.id = static_cast<ExportID>(1);
  have(platform, info);
  EXPECT_EQ(platform.run("list"), succeeding("{exportList}{exportInfo 1}"
                                             "Exports: 1\n"
                                             "  ID 1 | \n"
                                             "     - node: \n"
                                             "     - elem count: 0\n"
                                             "     - elem size: 0\n"
                                             "     - state: <inv>\n"
                                             "     - uuid: \n"
                                             "{exportGetClients 1}"
                                             "     - client count: 0\n"));
}

TEST(List, PrintsTextsAsTheyAre) {
  ExportInfo info = exportInfo(1, "a");
  info.descriptor.node = text(std::string_view("/srv/\xFF\0\xC3\xA4 \"x\"", 13));
  EXPECT_EQ(lineOf(info, "node"), std::string("/srv/\xFF\0\xC3\xA4 \"x\"", 13));
}

TEST(List, ReportsTheReasonOfAFailure) {
  Platform platform;
  have(platform, exportInfo(1, "a"));
  platform.fail("exportList", 0x10B);
  EXPECT_EQ(platform.run("list"),
            failing("{exportList}{Error::get}Failed to fetch list of exports: error 0x10B\n"));
}

TEST(List, HasAShortNameAndTakesNoNoticeOfWords) {
  Platform platform;
  have(platform, exportInfo(1, "a"));
  const auto answer = platform.run("list");
  EXPECT_EQ(platform.run("ls"), answer);
  EXPECT_EQ(platform.run("list 1 2 3"), answer);
  EXPECT_EQ(platform.run("ls all"), answer);
}
