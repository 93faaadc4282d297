#include "nbdd/log/log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <thread>
#include <vector>

#include "nbdd/limits.h"

namespace Nbdd {
namespace {

class LogTest : public ::testing::Test {
 protected:
  Log make(Log::Form form) {
    return Log(form, [this](std::string_view line) { lines.emplace_back(line); }, [this] { return now; });
  }

  std::vector<std::string> lines;
  Log::Clock::time_point now{};
};

TEST_F(LogTest, TheJournalIsGivenLevels) {
  Log log = make(Log::Form::journal);
  log.write(LogLevel::error, "a", "broken");
  log.write(LogLevel::info, "b", "fine");
  EXPECT_EQ(lines, (std::vector<std::string>{"<3>broken\n", "<6>fine\n"}));
}

TEST_F(LogTest, APlainLineHasTimeAndWord) {
  Log log = make(Log::Form::plain);
  log.write(LogLevel::warning, "a", "careful");
  ASSERT_EQ(lines.size(), 1U);
  // 2026-11-21T08:00:00Z
  ASSERT_GT(lines[0].size(), 20U);
  EXPECT_EQ(lines[0][10], 'T');
  EXPECT_EQ(lines[0][19], 'Z');
  EXPECT_EQ(lines[0].substr(20), " warning: careful\n");
}

TEST_F(LogTest, OneEventIsOneLineWhateverIsInIt) {
  Log log = make(Log::Form::journal);
  log.write(LogLevel::info, "a", "evil\n<0>panic\r\x1b[2J\xff\xc2\x9b ok ü");
  EXPECT_EQ(lines, (std::vector<std::string>{"<6>evil\\x0a<0>panic\\x0d\\x1b[2J\\xff\\xc2\\x9b ok ü\n"}));
}

TEST_F(LogTest, LinesAreBoundedAndStayWhole) {
  Log log = make(Log::Form::journal);
  log.write(LogLevel::info, "a", "x" + std::string(100'000, '\xc3'));
  std::string wide;
  for (int count = 0; count < 50'000; ++count) wide += "ü";
  log.write(LogLevel::info, "a", "x" + wide);
  ASSERT_EQ(lines.size(), 2U);
  for (const std::string& line : lines) EXPECT_LE(line.size(), Limits::logLineLength + 8);
  EXPECT_TRUE(lines[1].ends_with("ü...\n"));
}

TEST_F(LogTest, AFloodIsCutAndCounted) {
  Log log = make(Log::Form::journal);
  for (int count = 0; count < 1000; ++count) log.write(LogLevel::info, "flood", "again");
  log.write(LogLevel::info, "other", "heard");
  EXPECT_EQ(lines.size(), Limits::logLinesPerKind + 1);
  EXPECT_EQ(lines.back(), "<6>heard\n");
  now += Limits::logWindow;
  log.write(LogLevel::info, "flood", "once more");
  ASSERT_EQ(lines.size(), Limits::logLinesPerKind + 3);
  EXPECT_NE(lines[lines.size() - 2].find("980 more lines"), std::string::npos) << lines[lines.size() - 2];
  EXPECT_EQ(lines.back(), "<6>once more\n");
}

TEST_F(LogTest, WhatWasLeftOutIsSaidAtTheEnd) {
  Log log = make(Log::Form::journal);
  for (int count = 0; count < 30; ++count) log.write(LogLevel::info, "flood", "again");
  log.reportOmitted(false);
  EXPECT_EQ(lines.size(), Limits::logLinesPerKind);
  log.reportOmitted(true);
  ASSERT_EQ(lines.size(), Limits::logLinesPerKind + 1);
  EXPECT_NE(lines.back().find("10 more lines"), std::string::npos);
  log.reportOmitted(true);
  EXPECT_EQ(lines.size(), Limits::logLinesPerKind + 1);
}

TEST_F(LogTest, ManyThreadsWriteWholeLines) {
  Log log = make(Log::Form::journal);
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread) {
      threads.emplace_back([&log, thread] {
        for (int count = 0; count < 20; ++count) log.write(LogLevel::info, std::to_string(thread), "line");
      });
    }
  }
  EXPECT_EQ(lines, std::vector<std::string>(80, "<6>line\n"));
}

TEST(LogText, EscapingIsUnambiguous) {
  EXPECT_EQ(escaped("plain ü"), "plain ü");
  EXPECT_EQ(escaped("a\\x0a"), "a\\\\x0a");
  EXPECT_EQ(escaped("a\n"), "a\\x0a");
  EXPECT_EQ(printable("a\\n\n"), "a\\n\\x0a");
  EXPECT_EQ(escaped(std::string_view("\0", 1)), "\\x00");
  EXPECT_EQ(escaped("\xed\xa0\x80"), "\\xed\\xa0\\x80");
}

TEST(LogText, TheJournalsStreamIsKnownByItsNumbers) {
  struct stat status{};
  ASSERT_EQ(::fstat(2, &status), 0);
  const std::string own = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
  EXPECT_TRUE(isJournalStream(2, own));
  EXPECT_FALSE(isJournalStream(2, own + "0"));
  EXPECT_FALSE(isJournalStream(2, ""));
}

}  // namespace
}  // namespace Nbdd
