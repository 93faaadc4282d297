#include <gtest/gtest.h>

#include <limits>

#include "tests/support/scripted_platform.h"

using Support::failing;
using Support::Platform;
using Support::succeeding;

TEST(Stat, PrintsTheCountersOfBothDirections) {
  Platform platform;
  platform.script.exportStatistics[7] = {{1, 2, 3, 4}, {5, 6, 7, 8}};
  EXPECT_EQ(platform.run("stat 7"),
            succeeding("Fetching access statistics for export with ID 7... {exportGetStatistics 7}OK!\n"
                       "- RX\n"
                       "  NUM_TRANS_TOTAL        : 1\n"
                       "  NUM_TRANS_COMPRESSED   : 2\n"
                       "  BYTES_TRANS_TOTAL      : 3\n"
                       "  BYTES_TRANS_TRANSFERRED: 4\n"
                       "- TX\n"
                       "  NUM_TRANS_TOTAL        : 5\n"
                       "  NUM_TRANS_COMPRESSED   : 6\n"
                       "  BYTES_TRANS_TOTAL      : 7\n"
                       "  BYTES_TRANS_TRANSFERRED: 8\n"));
}

TEST(Stat, PrintsTheSmallestAndTheLargestCounters) {
  constexpr auto most = std::numeric_limits<std::uint64_t>::max();
  Platform platform;
  platform.script.exportStatistics[0] = {{0, 0, 0, 0}, {most, most, most, most}};
  EXPECT_EQ(platform.run("stat 0"),
            succeeding("Fetching access statistics for export with ID 0... {exportGetStatistics 0}OK!\n"
                       "- RX\n"
                       "  NUM_TRANS_TOTAL        : 0\n"
                       "  NUM_TRANS_COMPRESSED   : 0\n"
                       "  BYTES_TRANS_TOTAL      : 0\n"
                       "  BYTES_TRANS_TRANSFERRED: 0\n"
                       "- TX\n"
                       "  NUM_TRANS_TOTAL        : 18446744073709551615\n"
                       "  NUM_TRANS_COMPRESSED   : 18446744073709551615\n"
                       "  BYTES_TRANS_TOTAL      : 18446744073709551615\n"
                       "  BYTES_TRANS_TRANSFERRED: 18446744073709551615\n"));
}

TEST(Stat, ShowsTheWholeNumberAndActsOnItsLow32Bits) {
  Platform platform;
  platform.script.exportStatistics[1] = {};
  const auto answer = platform.run("stat 4294967297");
  EXPECT_EQ(answer.result, 0);
  EXPECT_TRUE(answer.journal.starts_with(
      "Fetching access statistics for export with ID 4294967297... {exportGetStatistics 1}OK!\n- RX\n"))
      << answer.journal;
}

TEST(Stat, RefusesAWrongNumberOfWordsInALineOfItsOwn) {
  Platform platform;
  EXPECT_EQ(platform.run("stat"), failing("invalid arguments\n"));
  EXPECT_EQ(platform.run("stat 1 2"), failing("invalid arguments\n"));
}

TEST(Stat, RefusesWhatIsNoNumber) {
  Platform platform;
  EXPECT_EQ(platform.run("stat x"), failing("Invalid export ID: x\n"));
  EXPECT_EQ(platform.run("stat 1x"), failing("Invalid export ID: 1x\n"));
  EXPECT_EQ(platform.run("stat +1"), failing("Invalid export ID: +1\n"));
}

TEST(Stat, ReportsTheReasonOfAFailure) {
  Platform platform;
  EXPECT_EQ(platform.run("stat 5"),
            failing("Fetching access statistics for export with ID 5... {exportGetStatistics 5}{Error::get}"
                    "error 0xDEAD\n"));
}

TEST(Stat, PrintsDecimalAgainAfterAnErrorCode) {
  Platform platform;
  platform.script.exportStatistics[26] = {{26, 26, 26, 26}, {26, 26, 26, 26}};
  const std::string journal = platform.runSession({"stat 27", "stat 26"});
  EXPECT_NE(journal.find("error 0xDEAD\n"), std::string::npos) << journal;
  EXPECT_NE(journal.find("ID 26... {exportGetStatistics 26}OK!\n- RX\n  NUM_TRANS_TOTAL        : 26\n"),
            std::string::npos)
      << journal;
}
