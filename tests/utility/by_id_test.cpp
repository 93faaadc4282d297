#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/scripted_platform.h"

// The commands that do one thing to the export or import with an ID.

using Support::failing;
using Support::Platform;
using Support::succeeding;

namespace {

struct Command {
  std::string word;       // as it is typed
  std::string doing;      // as it is shown
  std::string kind;       // "export" or "import"
  std::string operation;  // as the service is asked
  std::string how = "";   // what stands behind the ID there
  std::string tooManyWords = "1 2";
};

class ById : public ::testing::TestWithParam<Command> {
 protected:
  std::string line(const std::string& words) const { return GetParam().word + " " + words; }
  /// What is shown and asked for the ID as it was typed, up to the answer.
  std::string asks(const std::string& typed, const std::string& asked) const {
    const Command& command = GetParam();
    return command.doing + " " + command.kind + " with ID " + typed + "... {" + command.operation + " " +
           asked + command.how + "}";
  }
  std::string invalid(const std::string& typed) const {
    return "Invalid " + GetParam().kind + " ID: " + typed + "\n";
  }

  Platform platform_;
};

TEST_P(ById, DoesWhatItSays) { EXPECT_EQ(platform_.run(line("3")), succeeding(asks("3", "3") + "OK!\n")); }

TEST_P(ById, ShowsTheWholeNumberAndActsOnItsLow32Bits) {
  EXPECT_EQ(platform_.run(line("4294967299")), succeeding(asks("4294967299", "3") + "OK!\n"));
  EXPECT_EQ(platform_.run(line("4294967296")), succeeding(asks("4294967296", "0") + "OK!\n"));
  EXPECT_EQ(platform_.run(line("18446744073709551615")),
            succeeding(asks("18446744073709551615", "4294967295") + "OK!\n"));
}

TEST_P(ById, RefusesWhatIsNoNumber) {
  for (const std::string typed : {"abc", "all", "force", "-1", "0x3", "18446744073709551616"}) {
    EXPECT_EQ(platform_.run(line(typed)), failing(invalid(typed)));
  }
  EXPECT_EQ(platform_.run(line("\"\"")), failing(invalid("")));
  EXPECT_EQ(platform_.run(line("\" 3\"")), failing(invalid(" 3")));
}

TEST_P(ById, RefusesAWrongNumberOfWordsAndLeavesTheLineOpen) {
  EXPECT_EQ(platform_.run(GetParam().word), failing("invalid arguments"));
  EXPECT_EQ(platform_.run(line(GetParam().tooManyWords)), failing("invalid arguments"));
  EXPECT_EQ(platform_.run(line("abc force x")), failing("invalid arguments"))
      << "the words are counted first";
}

TEST_P(ById, ReportsTheReasonOfAFailure) {
  const std::vector<std::pair<std::uint32_t, std::string>> codes{
      {0, "0x0"}, {0x2A, "0x2A"}, {0xFFFFFFFF, "0xFFFFFFFF"}};
  for (const auto& [code, shown] : codes) {
    platform_.fail(GetParam().operation, code);
    EXPECT_EQ(platform_.run(line("7")), failing(asks("7", "7") + "{Error::get}error " + shown + "\n"));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Commands, ById,
    ::testing::Values(Command{"enable", "Enabling", "export", "exportEnable"},
                      Command{"disable", "Disabling", "export", "exportDisable", "", "1 force x"},
                      Command{"remove", "Removing", "export", "exportRemove"},
                      Command{"ienable", "Enabling", "import", "importEnable"},
                      Command{"idisable", "Disabling", "import", "importDisable", " force", "5 force"},
                      Command{"iremove", "Removing", "import", "importRemove"}),
    [](const ::testing::TestParamInfo<Command>& command) { return command.param.word; });

// ---- What only one of them has

TEST(Disable, ForcesWithThatWordAlone) {
  Platform platform;
  EXPECT_EQ(platform.run("disable 5 force"),
            succeeding("Disabling export with ID 5... {exportDisable 5 force}OK!\n"));
  for (const std::string word : {"now", "FORCE", "forced"}) {
    EXPECT_EQ(platform.run("disable 5 " + word),
              succeeding("Disabling export with ID 5... {exportDisable 5}OK!\n"));
  }
}

TEST(Disable, ReadsTheIDBeforeTheSecondWord) {
  Platform platform;
  EXPECT_EQ(platform.run("disable abc force"), failing("Invalid export ID: abc\n"));
}

TEST(ImportDisable, RefusesTheWordForceAsAnyOther) {
  Platform platform;
  EXPECT_EQ(platform.run("idisable 5 force"), failing("invalid arguments"));
  EXPECT_EQ(platform.run("idisable 5 now"), failing("invalid arguments"));
}

}  // namespace
