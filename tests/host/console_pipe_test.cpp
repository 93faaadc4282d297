// The console where standard input and output are no terminal.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <new>
#include <string>

#include "host/console.h"
#include "host/process.h"
#include "platform/commandline.h"
#include "tests/host/child.h"
#include "tests/host/echo_program.h"

using Support::echoProgram;
using Support::Ended;
using Support::PipedChild;

namespace {

constexpr Ended endedWell{.exitCode = 0, .signal = 0};

/// What the echo program prints for this input, from the first prompt to its end.
std::string echo(const std::string& input) {
  PipedChild child(echoProgram);
  std::string printed = child.converse(input);
  EXPECT_EQ(child.wait(), endedWell);
  return printed;
}

}  // namespace

TEST(ConsolePipe, ReadsLinesAndPrintsByteForByte) {
  EXPECT_EQ(echo("one\ntwo words\n"), " > \n<one>\n > \n<two words>\n > Bye!\n");
}

TEST(ConsolePipe, ReadsAnEmptyInputAndEmptyLines) {
  EXPECT_EQ(echo(""), " > Bye!\n");
  EXPECT_EQ(echo("\n"), " > \n<>\n > Bye!\n");
  EXPECT_EQ(echo("\n\na"), " > \n<>\n > \n<>\n > \n<a>\n > Bye!\n");
}

TEST(ConsolePipe, ReadsALastLineWithoutALineEnd) {
  EXPECT_EQ(echo("one\ntwo"), " > \n<one>\n > \n<two>\n > Bye!\n");
}

TEST(ConsolePipe, KeepsEveryByte) {
  std::string line;
  for (int byte = 0; byte < 256; ++byte) {
    if (byte != '\n') {
      line += static_cast<char>(byte);
    }
  }
  EXPECT_EQ(echo(line + "\n" + line), " > \n<" + line + ">\n > \n<" + line + ">\n > Bye!\n");
}

TEST(ConsolePipe, ReadsALineOfManyMegabytes) {
  const std::string line(20'000'000, 'x');
  EXPECT_TRUE(echo(line + "\nshort") == " > \n<" + line + ">\n > \n<short>\n > Bye!\n");
}

TEST(ConsolePipe, ReadsManyLines) {
  std::string input;
  std::string expected;
  for (int i = 0; i < 100'000; ++i) {
    input += std::to_string(i) + "\n";
    expected += " > \n<" + std::to_string(i) + ">\n";
  }
  EXPECT_TRUE(echo(input) == expected + " > Bye!\n");
}

TEST(ConsolePipe, LeavesAnOpenLineOpen) { EXPECT_EQ(echo("open\nx\n"), " > \nleft open > \n<x>\n > Bye!\n"); }

TEST(ConsolePipe, ShowsEverythingBeforeItWaits) {
  PipedChild child(echoProgram);
  ASSERT_TRUE(child.prints(" > "));
  child.give("one\n");
  ASSERT_TRUE(child.prints("\n<one>\n > "));
  child.give("two\nthree\nhalf");
  ASSERT_TRUE(child.prints("\n<two>\n > \n<three>\n > "));
  child.give(" and half\n");
  ASSERT_TRUE(child.prints("\n<half and half>\n > "));
  EXPECT_EQ(child.converse(""), "Bye!\n");
  EXPECT_EQ(child.wait(), endedWell);
}

TEST(ConsolePipe, SendsALongAnswerBeforeItEnds) {
  PipedChild child([] {
    const auto out = Libraries::Commandline::outPrinter();
    const std::string line(1000, 'x');
    for (int i = 0; i < 66; ++i) {
      out->printText(line.c_str());
    }
    pause();
    return 0;
  });
  EXPECT_TRUE(child.prints(std::string(66'000, 'x'))) << "nothing is held back beyond the size of the buffer";
}

TEST(ConsolePipe, EndsQuietlyWhenNobodyReads) {
  PipedChild child(echoProgram);
  ASSERT_TRUE(child.prints(" > "));
  child.stopReading();
  child.give("long\nfail\n");
  EXPECT_EQ(child.wait(), endedWell) << "without another command";
}

TEST(ConsolePipe, DoesNotWaitForInputWhenNobodyReads) {
  PipedChild child(echoProgram);
  ASSERT_TRUE(child.prints(" > "));
  child.stopReading();
  child.give("one\n");
  EXPECT_EQ(child.wait(), endedWell) << "with more input to come";
}

TEST(ConsolePipe, WaitsForAReaderThatIsSlow) {
  PipedChild child([] {
    if (fcntl(STDOUT_FILENO, F_SETFL, O_NONBLOCK) == -1) {
      return 1;
    }
    return echoProgram();
  });
  std::string expected = " > \n";
  for (int i = 0; i < 100'000; ++i) {
    expected += std::to_string(i) + "\n";
  }
  EXPECT_TRUE(child.converse("long\n") == expected + " > Bye!\n");
  EXPECT_EQ(child.wait(), endedWell);
}

TEST(ConsolePipe, DoesWithoutStandardDescriptors) {
  PipedChild child([] {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    const int result = echoProgram();
    // Whatever is opened now must not be taken for standard input, output or error.
    return open("/dev/null", O_RDONLY) > STDERR_FILENO ? result : 2;
  });
  EXPECT_EQ(child.converse(""), "");
  EXPECT_EQ(child.wait(), endedWell);
}

TEST(Process, EndsThroughTheDeliberateFaultWithoutAWord) {
  PipedChild child([] {
    dup2(STDOUT_FILENO, STDERR_FILENO);
    Host::prepareProcess();
    Libraries::Commandline::outPrinter()->printText("lost");
    // What operator new calls when there is no memory; sanitizers bring an operator new that does not.
    std::get_new_handler()();
    return 0;
  });
  EXPECT_EQ(child.converse(""), "");
  EXPECT_EQ(child.wait(), (Ended{.exitCode = -1, .signal = SIGABRT}));
}
