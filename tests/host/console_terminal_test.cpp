// The console on a terminal, as a person sees it.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "tests/host/child.h"
#include "tests/host/echo_program.h"

using Support::echoProgram;
using Support::Ended;
using Support::TerminalChild;

namespace {

constexpr Ended endedWell{.exitCode = 0, .signal = 0};

// Keys.
const std::string enter = "\r";
const std::string controlA = "\x01";
const std::string controlC = "\x03";
const std::string controlD = "\x04";
const std::string controlE = "\x05";
const std::string controlK = "\x0b";
const std::string controlZ = "\x1a";
const std::string controlBackslash = "\x1c";
const std::string controlU = "\x15";
const std::string backspace = "\x7f";
const std::string up = "\x1b[A";
const std::string down = "\x1b[B";
const std::string left = "\x1b[D";

}  // namespace

TEST(ConsoleTerminal, ShowsThePromptOnceAndNoNeedlessLine) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("one" + enter);
  ASSERT_TRUE(child.shows({" > one", "<one>", " > "}));
  child.type("two" + enter);
  ASSERT_TRUE(child.shows({" > one", "<one>", " > two", "<two>", " > "}));
  child.type(enter);
  ASSERT_TRUE(child.shows({" > one", "<one>", " > two", "<two>", " >", "<>", " > "}));
}

TEST(ConsoleTerminal, EndsWithControlDOnAnEmptyLine) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type(controlD);
  ASSERT_TRUE(child.shows({" >", "Bye!", ""}));
  EXPECT_EQ(child.wait(), endedWell);
}

TEST(ConsoleTerminal, DeletesWithControlDOnALineThatIsNotEmpty) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("abc" + controlD + controlA + controlD + enter);
  ASSERT_TRUE(child.shows({" > bc", "<bc>", " > "}));
}

TEST(ConsoleTerminal, DropsTheLineWithControlC) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("do not" + controlC);
  ASSERT_TRUE(child.shows({" > do not^C", " > "}));
  child.type(controlC);
  ASSERT_TRUE(child.shows({" > do not^C", " > ^C", " > "}));
  child.type("do" + enter);
  ASSERT_TRUE(child.shows({" > do not^C", " > ^C", " > do", "<do>", " > "}));
  child.type(controlD);
  EXPECT_EQ(child.wait(), endedWell);
}

TEST(ConsoleTerminal, DropsTheLineFromWithinTheText) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("do not" + left + left + left + controlC);
  ASSERT_TRUE(child.shows({" > do not^C", " > "}));
}

TEST(ConsoleTerminal, DropsALineOfSeveralRows) {
  TerminalChild child(echoProgram, 20);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("0123456789abcdefghijklmnopqrstuvwxyz" + controlA + controlC);
  ASSERT_TRUE(child.shows({" > 0123456789abcdefg", "hijklmnopqrstuvwxyz^", "C", " > "}));
}

TEST(ConsoleTerminal, EditsWithEmacsKeys) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("bcd" + controlA + "a" + controlE + "ef" + backspace + enter);
  ASSERT_TRUE(child.shows({" > abcde", "<abcde>", " > "}));
  child.type("gone" + controlU + "stay away" + left + left + left + left + left + controlK + enter);
  ASSERT_TRUE(child.shows({" > abcde", "<abcde>", " > stay", "<stay>", " > "}));
}

TEST(ConsoleTerminal, KeepsAHistoryWithoutRepetitions) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("one" + enter);
  ASSERT_TRUE(child.shows({" > one", "<one>", " > "}));
  child.type("two" + enter);
  ASSERT_TRUE(child.shows({" > one", "<one>", " > two", "<two>", " > "}));
  child.type("two" + enter);
  ASSERT_TRUE(child.shows({" > one", "<one>", " > two", "<two>", " > two", "<two>", " > "}));
  child.type(enter);
  const std::vector<std::string> before{" > one", "<one>", " > two", "<two>", " > two", "<two>", " >", "<>"};
  const auto then = [&before](const std::string& last) {
    auto lines = before;
    lines.push_back(last);
    return lines;
  };
  ASSERT_TRUE(child.shows(then(" > ")));
  child.type(up);
  ASSERT_TRUE(child.shows(then(" > two")));
  child.type(up);
  ASSERT_TRUE(child.shows(then(" > one")));
  child.type(down);
  ASSERT_TRUE(child.shows(then(" > two")));
  child.type(up);
  ASSERT_TRUE(child.shows(then(" > one")));
  child.type(" more" + enter);
  auto after = then(" > one more");
  after.insert(after.end(), {"<one more>", " > "});
  ASSERT_TRUE(child.shows(after));
}

TEST(ConsoleTerminal, DoesNotRememberDroppedLines) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("kept" + enter);
  ASSERT_TRUE(child.shows({" > kept", "<kept>", " > "}));
  child.type("dropped" + controlC);
  ASSERT_TRUE(child.shows({" > kept", "<kept>", " > dropped^C", " > "}));
  child.type(up);
  ASSERT_TRUE(child.shows({" > kept", "<kept>", " > dropped^C", " > kept"}));
}

TEST(ConsoleTerminal, TakesUtf8WhateverTheLocaleSays) {
  for (const char* const locale : {"C", "POSIX", "C.UTF-8"}) {
    TerminalChild child([locale] {
      setenv("LC_ALL", locale, 1);
      return echoProgram();
    });
    ASSERT_TRUE(child.shows({" > "}));
    child.type("äöü ÿжx" + left + left + backspace + enter);
    ASSERT_TRUE(child.shows({" > äöü жx", "<äöü жx>", " > "})) << locale;
  }
}

TEST(ConsoleTerminal, TakesLinesLongerThanTheScreen) {
  TerminalChild child(echoProgram, 40);
  ASSERT_TRUE(child.shows({" > "}));
  std::string text;
  for (int i = 0; i < 30; ++i) {
    text += std::to_string(1000 + i);
  }
  child.type(text + enter);
  const std::string typed = " > " + text;
  const std::string answer = "<" + text + ">";
  ASSERT_TRUE(child.shows({typed.substr(0, 40), typed.substr(40, 40), typed.substr(80, 40), typed.substr(120),
                           answer.substr(0, 40), answer.substr(40, 40), answer.substr(80, 40),
                           answer.substr(120), " > "}));
}

TEST(ConsoleTerminal, TakesALineOfThousandsOfCharacters) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  // In pieces, as a terminal's queue holds no more than 4 KiB.
  std::string typed = " > ";
  for (int piece = 0; piece < 10; ++piece) {
    const std::string text(1000, static_cast<char>('a' + piece));
    child.type(text);
    typed += text;
    std::vector<std::string> rows;
    for (std::size_t i = 0; i < typed.size(); i += 80) {
      rows.push_back(typed.substr(i, 80));
    }
    ASSERT_TRUE(child.shows(rows)) << "after " << piece + 1 << " pieces";
  }
  child.type(controlU + "x" + enter);
  child.type(controlD);
  EXPECT_EQ(child.wait(), endedWell);
}

TEST(ConsoleTerminal, TakesSeveralLinesAtOnce) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("one" + enter + "two" + enter + "three" + enter);
  ASSERT_TRUE(child.shows({" > one", "<one>", " > two", "<two>", " > three", "<three>", " > "}));
}

TEST(ConsoleTerminal, MakesAnOpenLineThePrompt) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("open" + enter);
  ASSERT_TRUE(child.shows({" > open", "left open > "}));
  child.type("abc" + controlU + "x" + controlC);
  ASSERT_TRUE(child.shows({" > open", "left open > x^C", "left open > "}));
  child.type("y" + enter);
  ASSERT_TRUE(child.shows({" > open", "left open > x^C", "left open > y", "<y>", " > "}));
}

TEST(ConsoleTerminal, MakesAnOpenLineThePromptThatIsOnTheScreenAlready) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("part" + enter);
  ASSERT_TRUE(child.shows({" > part", "part > "}));
  child.type("abc" + controlU + "x" + enter);
  ASSERT_TRUE(child.shows({" > part", "part > x", "<x>", " > "}));
}

TEST(ConsoleTerminal, ShowsAnOpenLineThatIsTooLongForAPrompt) {
  TerminalChild child(echoProgram, 100);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("wide" + enter);
  std::vector<std::string> lines(12, std::string(100, 'x'));
  lines.front() = " > wide";
  lines.insert(lines.end(), {" >", ""});
  ASSERT_TRUE(child.shows(lines));
  child.type("y" + enter);
  lines.back() = "y";
  lines.insert(lines.end(), {"<y>", " > "});
  ASSERT_TRUE(child.shows(lines));
}

TEST(ConsoleTerminal, ShowsAnOpenLineThatIsNotFitForAPrompt) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("tabs" + enter);
  ASSERT_TRUE(child.shows({" > tabs", "a       b >", ""}));
  child.type("quiet" + enter);
  ASSERT_TRUE(child.shows({" > tabs", "a       b >", "quiet", " > "}));
}

TEST(ConsoleTerminal, AnswersWithNothing) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("quiet" + enter);
  ASSERT_TRUE(child.shows({" > quiet", " > "}));
  child.type("quiet" + enter);
  ASSERT_TRUE(child.shows({" > quiet", " > quiet", " > "}));
}

TEST(ConsoleTerminal, ShowsWhatWasPrintedBeforeAWait) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("wait" + enter);
  ASSERT_TRUE(child.shows({" > wait", "before... after", " > "}));
}

TEST(ConsoleTerminal, StopsWithControlZAndGoesOn) {
  // The program in a process group of its own in the foreground, as a shell would run it.
  TerminalChild child([] {
    std::signal(SIGTTOU, SIG_IGN);
    const pid_t program = fork();
    setpgid(program, 0);
    tcsetpgrp(STDIN_FILENO, program == 0 ? getpid() : program);
    if (program == 0) {
      return echoProgram();
    }
    int status = 0;
    waitpid(program, &status, WUNTRACED);
    if (!WIFSTOPPED(status)) {
      return 1;
    }
    termios mode{};
    tcgetattr(STDIN_FILENO, &mode);
    if ((mode.c_lflag & ICANON) == 0 || (mode.c_lflag & ECHO) == 0 || (mode.c_lflag & ISIG) == 0) {
      return 2;
    }
    kill(program, SIGCONT);
    waitpid(program, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 3;
  });
  ASSERT_TRUE(child.shows({" > "}));
  child.type("half" + controlZ + "way" + enter);
  EXPECT_TRUE(child.showsAtLast({"<halfway>", " > "}));
  child.type(controlD);
  EXPECT_EQ(child.wait(), endedWell);
}

TEST(ConsoleTerminal, AbortsWithControlBackslash) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type(controlBackslash);
  EXPECT_EQ(child.wait(), (Ended{.exitCode = -1, .signal = SIGQUIT}));
}

TEST(ConsoleTerminal, LeavesTheTerminalInItsUsualMode) {
  for (const std::string& key : {controlD, controlBackslash}) {
    TerminalChild child([] {
      const pid_t program = fork();
      if (program == 0) {
        return echoProgram();
      }
      std::signal(SIGQUIT, SIG_IGN);  // which goes to the whole group, as from any terminal
      int status = 0;
      waitpid(program, &status, 0);
      termios mode{};
      tcgetattr(STDIN_FILENO, &mode);
      return (mode.c_lflag & ICANON) != 0 && (mode.c_lflag & ECHO) != 0 && (mode.c_lflag & ISIG) != 0 ? 0 : 2;
    });
    ASSERT_TRUE(child.shows({" > "}));
    child.type(key);
    EXPECT_EQ(child.wait(), endedWell);
  }
}

TEST(ConsoleTerminal, EndsWhenTheTerminalGoesAway) {
  TerminalChild child(echoProgram);
  ASSERT_TRUE(child.shows({" > "}));
  child.type("half a line");
  ASSERT_TRUE(child.shows({" > half a line"}));
  child.close();
  const Ended ended = child.wait();
  EXPECT_TRUE(ended == endedWell || ended.signal == SIGHUP) << ended.exitCode << ' ' << ended.signal;
}
