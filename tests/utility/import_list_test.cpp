#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "tests/support/scripted_platform.h"
#include "tests/utility/listing.h"

using namespace Services::NBD::Client::Types;
using Support::endpoint;
using Support::failing;
using Support::Platform;
using Support::succeeding;
using Support::text;

namespace {

ImportInfo importInfo(std::uint32_t id, const char* name) {
  ImportInfo info;
  info.id = static_cast<ImportID>(id);
  info.descriptor.name = text(name);
  info.descriptor.server = endpoint("192.0.2.7", 10809);
  info.state = ImportState::Connected;
  info.size = 1'073'741'824;
  info.node = text(std::string("/nodes/") + name);
  info.reserved = 4;
  info.description = text(std::string("about ") + name);
  return info;
}

/// Puts an import into the script.
void have(Platform& platform, const ImportInfo& info) {
  const auto id = static_cast<std::uint32_t>(info.id);
  platform.script.importIDs.push_back(id);
  platform.script.imports.emplace(id, info);
}

/// What stands between "label" and the end of its line in the listing of one import.
std::string lineOf(const ImportInfo& info, const std::string& label) {
  Platform platform;
  have(platform, info);
  return Support::valueOf(platform.run("ilist").journal, label);
}

}  // namespace

TEST(ImportList, SaysThatThereIsNothing) {
  Platform platform;
  EXPECT_EQ(platform.run("ilist"), succeeding("{importList}Imports: 0\n"));
}

TEST(ImportList, ShowsAnImport) {
  Platform platform;
  ImportInfo info = importInfo(3, "vol1");
  info.descriptor.flags = ImportFlag::ForceReadOnly;
  have(platform, info);
  EXPECT_EQ(platform.run("ilist"), succeeding("{importList}{importInfo 3}"
                                              "Imports: 1\n"
                                              "  ID 3 | vol1\n"
                                              "     - state: enabled\n"
                                              "     - size: 1073741824\n"
                                              "     - node: /nodes/vol1\n"
                                              "     - disable reason: <n/a>\n"
                                              "     - description: about vol1\n"
                                              "     - flags: ForceReadOnly\n"));
}

TEST(ImportList, FetchesAllBeforeItPrintsAndLeavesOutWhatIsGone) {
  Platform platform;
  have(platform, importInfo(1, "a"));
  have(platform, importInfo(2, "gone"));
  have(platform, importInfo(3, "c"));
  platform.script.imports.erase(2);
  EXPECT_EQ(platform.run("ilist"), succeeding("{importList}{importInfo 1}{importInfo 2}{importInfo 3}"
                                              "Imports: 2\n"
                                              "  ID 1 | a\n"
                                              "     - state: enabled\n"
                                              "     - size: 1073741824\n"
                                              "     - node: /nodes/a\n"
                                              "     - disable reason: <n/a>\n"
                                              "     - description: about a\n"
                                              "     - flags: <not set>\n"
                                              "  ID 3 | c\n"
                                              "     - state: enabled\n"
                                              "     - size: 1073741824\n"
                                              "     - node: /nodes/c\n"
                                              "     - disable reason: <n/a>\n"
                                              "     - description: about c\n"
                                              "     - flags: <not set>\n"));
}

TEST(ImportList, SucceedsAlsoIfAllAreGone) {
  Platform platform;
  have(platform, importInfo(1, "a"));
  have(platform, importInfo(2, "b"));
  platform.script.imports.clear();
  EXPECT_EQ(platform.run("ilist"), succeeding("{importList}{importInfo 1}{importInfo 2}Imports: 0\n"));
}

TEST(ImportList, KeepsTheServicesOrder) {
  Platform platform;
  have(platform, importInfo(9, "nine"));
  have(platform, importInfo(2, "two"));
  const std::string journal = platform.run("ilist").journal;
  EXPECT_TRUE(journal.starts_with("{importList}{importInfo 9}{importInfo 2}Imports: 2\n")) << journal;
  EXPECT_LT(journal.find("ID 9 | nine"), journal.find("ID 2 | two"));
}

TEST(ImportList, UsesTheRecordsOwnID) {
  Platform platform;
  have(platform, importInfo(4, "vol"));
  platform.script.imports.at(4).id = static_cast<ImportID>(4294967295);
  const std::string journal = platform.run("ilist").journal;
  EXPECT_NE(journal.find("  ID 4294967295 | vol\n"), std::string::npos) << journal;
}

TEST(ImportList, NamesEveryState) {
  const std::vector<std::pair<std::uint32_t, std::string>> names{
      {0, "<inv>"},     {1, "added"},    {2, "enabled"}, {3, "enabled"},
      {4, "disabling"}, {5, "disabled"}, {6, "<inv>"},   {0xFFFFFFFF, "<inv>"},
  };
  for (const auto& [value, name] : names) {
    ImportInfo info = importInfo(1, "a");
    info.state = static_cast<ImportState>(value);
    EXPECT_EQ(lineOf(info, "state"), name) << "state " << value;
  }
}

TEST(ImportList, NamesEveryReasonWhateverTheState) {
  const std::vector<std::pair<std::uint32_t, std::string>> names{
      {0, "InternalError"}, {1, "ClientRequest"}, {2, "ConnectionFailed"}, {3, "NetworkError"},
      {4, "<inv>"},         {7, "<inv>"},         {0xFFFFFFFF, "<inv>"}};
  for (const auto& [value, name] : names) {
    for (const ImportState state : {ImportState::Added, ImportState::Connected, ImportState::Disabled}) {
      ImportInfo info = importInfo(1, "a");
      info.state = state;
      info.disableReason = static_cast<ImportDisableReason>(value);
      EXPECT_EQ(lineOf(info, "disable reason"), name) << "reason " << value;
    }
  }
}

TEST(ImportList, SaysThatThereIsNoReasonWhateverTheState) {
  for (const ImportState state : {ImportState::Added, ImportState::Connecting, ImportState::Disabled}) {
    ImportInfo info = importInfo(1, "a");
    info.state = state;
    EXPECT_EQ(lineOf(info, "disable reason"), "<n/a>");
  }
}

TEST(ImportList, NamesTheFlagsThatHaveAName) {
  const std::vector<std::pair<std::uint32_t, std::string>> names{
      {0x0, "<not set>"},
      {0x1, "DontAnnounceStorage"},
      {0x2, "ForceReadOnly"},
      {0x3, "DontAnnounceStorage,ForceReadOnly"},
      {0x4, "<not set>"},
      {0x6, "ForceReadOnly"},
      {0xFFFFFFFC, "<not set>"},
      {0xFFFFFFFD, "DontAnnounceStorage"},
      {0xFFFFFFFF, "DontAnnounceStorage,ForceReadOnly"},
  };
  for (const auto& [mask, name] : names) {
    ImportInfo info = importInfo(1, "a");
    info.descriptor.flags = mask;
    EXPECT_EQ(lineOf(info, "flags"), name) << "mask " << mask;
  }
}

TEST(ImportList, PrintsTheLargestSize) {
  ImportInfo info = importInfo(1, "a");
  info.size = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(lineOf(info, "size"), "18446744073709551615");
}

TEST(ImportList, PrintsNothingForTextsThatAreNotThere) {
  Platform platform;
  ImportInfo info;
  info.id = static_cast<ImportID>(1);
  have(platform, info);
  EXPECT_EQ(platform.run("ilist"), succeeding("{importList}{importInfo 1}"
                                              "Imports: 1\n"
                                              "  ID 1 | \n"
                                              "     - state: <inv>\n"
                                              "     - size: 0\n"
                                              "     - node: \n"
                                              "     - disable reason: <n/a>\n"
                                              "     - description: \n"
                                              "     - flags: <not set>\n"));
}

TEST(ImportList, PrintsTextsAsTheyAre) {
  ImportInfo info = importInfo(1, "a");
  info.description = text(std::string_view("\xFF\0\xC3\xA4 \"x\"", 8));
  EXPECT_EQ(lineOf(info, "description"), std::string("\xFF\0\xC3\xA4 \"x\"", 8));
}

TEST(ImportList, ReportsTheReasonOfAFailure) {
  Platform platform;
  have(platform, importInfo(1, "a"));
  platform.fail("importList", 0x10B);
  EXPECT_EQ(platform.run("ilist"),
            failing("{importList}{Error::get}Failed to fetch list of imports: error 0x10B\n"));
}

TEST(ImportList, TakesNoNoticeOfWords) {
  Platform platform;
  have(platform, importInfo(1, "a"));
  const auto answer = platform.run("ilist");
  EXPECT_EQ(platform.run("ilist 1 2 3"), answer);
  EXPECT_EQ(platform.run("ilist \"\""), answer);
}
