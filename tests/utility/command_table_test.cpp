#include "shell/command_table.h"

#include <gtest/gtest.h>

#include <set>

#include "shell/tear_down.h"
#include "tests/support/scripted_platform.h"

using Support::text;

namespace {

/// The table, while it is built.
class CommandTable : public testing::Test {
 protected:
  CommandTable() { Shell::buildCommandTable(); }
  ~CommandTable() override { Shell::runTearDown(); }

  Support::Platform platform_;
};

}  // namespace

TEST_F(CommandTable, HasItsRowsInOrder) {
  const std::vector<std::string> names{
      "help",    "exit",     "start",      "stop",        "caps",     "list",     "ilist",   "add",
      "iadd",    "enable",   "ienable",    "disable",     "idisable", "remove",   "iremove", "rlist",
      "props",   "discover", "ilistnodes", "compression", "diskspec", "password", "reserve", "unreserve",
      "reslist", "rescheck", "stat",       "quit",        "q",        "ls",       "s",
  };
  ASSERT_EQ(names.size(), Shell::commandTable.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(Shell::commandTable.at(i).name->view(), names[i]);
  }
}

TEST_F(CommandTable, FindsEveryNameAsAWhole) {
  for (const auto& entry : Shell::commandTable) {
    EXPECT_EQ(Shell::findCommand(entry.name), &entry) << "names are different";
  }
  for (const char* const word : {"", "h", "hel", "helpx", "HELP", "li", "st", " list", "list "}) {
    EXPECT_EQ(Shell::findCommand(text(word)), nullptr) << '"' << word << '"';
  }
}

TEST_F(CommandTable, EndsTheProgramWithThreeWords) {
  std::set<std::string> ending;
  for (const auto& entry : Shell::commandTable) {
    if (entry.handler == nullptr) {
      ending.emplace(entry.name->view());
    }
  }
  EXPECT_EQ(ending, (std::set<std::string>{"exit", "quit", "q"}));
}

TEST_F(CommandTable, HidesFourWordsWithoutSynopsisAndHelp) {
  std::set<std::string> hidden;
  for (const auto& entry : Shell::commandTable) {
    if (!entry.help) {
      EXPECT_FALSE(entry.synopsis);
      hidden.emplace(entry.name->view());
    }
  }
  EXPECT_EQ(hidden, (std::set<std::string>{"quit", "q", "ls", "s"}));
}

TEST_F(CommandTable, RunsTheSameForAShortName) {
  EXPECT_EQ(Shell::findCommand(text("ls"))->handler, Shell::findCommand(text("list"))->handler);
  EXPECT_EQ(Shell::findCommand(text("s"))->handler, Shell::findCommand(text("start"))->handler);
}

TEST_F(CommandTable, ReleasesItsTextsAtTearDown) {
  Shell::runTearDown();
  for (const auto& entry : Shell::commandTable) {
    EXPECT_FALSE(entry.name);
    EXPECT_FALSE(entry.synopsis);
    EXPECT_FALSE(entry.help);
  }
}
