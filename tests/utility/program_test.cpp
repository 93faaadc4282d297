#include "platform/program.h"

#include <gtest/gtest.h>

#include "shell/command_table.h"
#include "tests/support/scripted_platform.h"

using Support::Platform;

namespace {

/// What a session prints between its start and its end.
std::string session(Platform& platform, std::vector<std::string> lines) {
  const std::string journal = platform.runSession(std::move(lines));
  const std::string start = "{initCommandline}{create 1000}";
  const std::string end = "{setExitCode 0x0}";
  EXPECT_TRUE(journal.starts_with(start) && journal.ends_with(end)) << journal;
  return journal.substr(start.size(), journal.size() - start.size() - end.size());
}

}  // namespace

// ---- Interactive.

TEST(Session, EndsAtTheEndOfTheInput) {
  Platform platform;
  EXPECT_EQ(session(platform, {}), " > {end of input}Bye!\n");
}

TEST(Session, EndsWithThreeWords) {
  for (const std::string word : {"exit", "quit", "q"}) {
    Platform platform;
    EXPECT_EQ(session(platform, {word, "stop"}), " > {typed: " + word + "}\nBye!\n");
    EXPECT_EQ(session(platform, {word + " now"}), " > {typed: " + word + " now}\nBye!\n");
  }
}

TEST(Session, ShowsThePromptBeforeAndALineEndAfterEachLine) {
  Platform platform;
  EXPECT_EQ(session(platform, {"enable 1", "remove 1"}),
            " > {typed: enable 1}\n"
            "Enabling export with ID 1... {exportEnable 1}OK!\n"
            " > {typed: remove 1}\n"
            "Removing export with ID 1... {exportRemove 1}OK!\n"
            " > {end of input}Bye!\n");
}

TEST(Session, PrintsNothingForALineWithoutACommand) {
  Platform platform;
  EXPECT_EQ(session(platform, {"", "   ", "\t", "\"\"", "\"  \" help", "\\ "}),
            " > {typed: }\n"
            " > {typed:    }\n"
            " > {typed: \t}\n"
            " > {typed: \"\"}\n"
            " > {typed: \"  \" help}\n"
            " > {typed: \\ }\n"
            " > {end of input}Bye!\n");
}

TEST(Session, TrimsTheFirstWordAlone) {
  Platform platform;
  EXPECT_EQ(session(platform, {"  \tstop\r", "\" stop \"", "enable \" 1\""}),
            " > {typed:   \tstop\r}\n"
            "Stopping server... {serverStop}OK!\n"
            " > {typed: \" stop \"}\n"
            "Stopping server... {serverStop}OK!\n"
            " > {typed: enable \" 1\"}\n"
            "Invalid export ID:  1\n"
            " > {end of input}Bye!\n");
}

TEST(Session, RefusesUnknownWordsAndGoesOn) {
  Platform platform;
  EXPECT_EQ(session(platform, {"frob 1 2", "Help", "lis", "\" frob \"", "stop"}),
            " > {typed: frob 1 2}\n"
            "Unknown command: frob\n"
            " > {typed: Help}\n"
            "Unknown command: Help\n"
            " > {typed: lis}\n"
            "Unknown command: lis\n"
            " > {typed: \" frob \"}\n"
            "Unknown command: frob\n"
            " > {typed: stop}\n"
            "Stopping server... {serverStop}OK!\n"
            " > {end of input}Bye!\n");
}

TEST(Session, ContinuesALineThatWasLeftOpen) {
  Platform platform;
  EXPECT_EQ(
      session(platform, {"enable", "remove 1 2", "idisable 5 force", "props now", "ilistnodes", "exit"}),
      " > {typed: enable}\n"
      "invalid arguments > {typed: remove 1 2}\n"
      "invalid arguments > {typed: idisable 5 force}\n"
      "invalid arguments > {typed: props now}\n"
      "unexpected arguments > {typed: ilistnodes}\n"
      "invalid arguments > {typed: exit}\n"
      "Bye!\n");
}

TEST(Session, GoesOnAfterAFailureAndExitsWithZero) {
  Platform platform;
  platform.fail("exportEnable", 5);
  EXPECT_EQ(session(platform, {"enable 1", "enable x"}),
            " > {typed: enable 1}\n"
            "Enabling export with ID 1... {exportEnable 1}{Error::get}error 0x5\n"
            " > {typed: enable x}\n"
            "Invalid export ID: x\n"
            " > {end of input}Bye!\n");
}

TEST(Session, TakesWordsOutOfQuotesAndEscapes) {
  Platform platform;
  EXPECT_EQ(session(platform, {R"(add /a\ b)", R"("add" "/a \"b\"" r"o")", R"(add "/unclosed a)"}),
            " > {typed: add /a\\ b}\n"
            "{absolute /a b none}Adding '/a b' as export..."
            "{exportAdd name=none node=/a b flags=0 elements=0*0}OK! Export ID: 1\n"
            " > {typed: \"add\" \"/a \\\"b\\\"\" r\"o\"}\n"
            "{absolute /a \"b\" none}Adding '/a \"b\"' as export..."
            "{exportAdd name=none node=/a \"b\" flags=1 elements=0*0}OK! Export ID: 1\n"
            " > {typed: add \"/unclosed a}\n"
            "{absolute /unclosed a none}Adding '/unclosed a' as export..."
            "{exportAdd name=none node=/unclosed a flags=0 elements=0*0}OK! Export ID: 1\n"
            " > {end of input}Bye!\n");
}

// ---- One command from the arguments.

TEST(Once, RunsItWithoutPromptAndFarewell) {
  Platform platform;
  EXPECT_EQ(platform.runOnce({"disable", "3", "force"}),
            "{initCommandline}{create 1000}"
            "Disabling export with ID 3... {exportDisable 3 force}OK!\n"
            "{setExitCode 0x0}");
}

TEST(Once, SaysGoodbyeToTheEndingWords) {
  for (const std::string word : {"exit", "quit", "q"}) {
    Platform platform;
    EXPECT_EQ(platform.runOnce({word}), "{initCommandline}{create 1000}Bye!\n{setExitCode 0x0}");
  }
}

TEST(Once, ExitsWithZeroWhateverHappens) {
  Platform platform;
  EXPECT_EQ(platform.runOnce({"frob"}),
            "{initCommandline}{create 1000}Unknown command: frob\n{setExitCode 0x0}");
  EXPECT_EQ(platform.runOnce({"enable"}), "{initCommandline}{create 1000}invalid arguments{setExitCode 0x0}");
  EXPECT_EQ(platform.runOnce({""}), "{initCommandline}{create 1000}{setExitCode 0x0}");
  EXPECT_EQ(platform.runOnce({" ", ""}), "{initCommandline}{create 1000}{setExitCode 0x0}");
}

TEST(Once, SplitsTheArgumentsAgain) {
  Platform platform;
  EXPECT_EQ(platform.runOnce({"disable 3", "force"}),
            "{initCommandline}{create 1000}Disabling export with ID 3... {exportDisable 3 force}OK!\n"
            "{setExitCode 0x0}");
  EXPECT_EQ(platform.runOnce({"add", "/my disk"}),
            "{initCommandline}{create 1000}unrecognied argument: disk\n{setExitCode 0x0}");
  EXPECT_EQ(platform.runOnce({"add", "\"/my disk\""}),
            "{initCommandline}{create 1000}{absolute /my disk none}Adding '/my disk' as export..."
            "{exportAdd name=none node=/my disk flags=0 elements=0*0}OK! Export ID: 1\n{setExitCode 0x0}");
}

// ---- Start and end.

TEST(Program, EndsSilentlyWithoutAConsole) {
  Platform platform;
  platform.fail("initCommandline");
  EXPECT_EQ(platform.runSession({"help"}), "{initCommandline}{setExitCode 0x8443}");
}

TEST(Program, SaysThatThereIsNoService) {
  Platform platform;
  platform.fail("create", 0xC0DE);
  EXPECT_EQ(
      platform.runSession({"help"}),
      "{initCommandline}{create 1000}{Error::get}Service not available: 0xC0DE\n{setExitCode 0xFFFFFFFF}");
  EXPECT_EQ(
      platform.runOnce({"exit"}),
      "{initCommandline}{create 1000}{Error::get}Service not available: 0xC0DE\n{setExitCode 0xFFFFFFFF}");
}

TEST(Program, ReleasesTheServiceThenTheTableThenThePrinter) {
  Platform platform;
  platform.traceTearDown();
  EXPECT_EQ(platform.runSession({"stop"}),
            "{lock}{unlock}{lock}{unlock}"
            "{initCommandline}{create 1000}"
            " > {typed: stop}\n"
            "Stopping server... {serverStop}OK!\n"
            " > {end of input}Bye!\n"
            "{service released}{setExitCode 0x0}"
            "{lock}{free}{unlock}"
            "{lock}{free}{last printer released}{unlock}"
            "{lock}{unlock}");
}

TEST(Program, ReleasesTheServiceBeforeTheExitCodeInEveryMode) {
  Platform platform;
  platform.traceTearDown();
  const std::string once = platform.runOnce({"exit"});
  EXPECT_NE(once.find("Bye!\n{service released}{setExitCode 0x0}"), std::string::npos) << once;
}

TEST(Program, DoesNothingForOtherReasons) {
  Platform platform;
  platform.traceTearDown();
  EXPECT_EQ(programEntry(2), 0);
  EXPECT_EQ(programEntry(0xFFFFFFFF), 0);
  EXPECT_EQ(platform.journal, "");
}

TEST(Program, RunsAgainAfterItsTearDown) {
  Platform platform;
  EXPECT_EQ(platform.runOnce({"stop"}), platform.runOnce({"stop"}));
  for (const auto& entry : Shell::commandTable) {
    EXPECT_FALSE(entry.name) << "the table is empty after the tear-down";
  }
}
