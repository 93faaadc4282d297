#include <gtest/gtest.h>

#include "tests/support/scripted_platform.h"

using Support::failing;
using Support::Platform;
using Support::succeeding;

TEST(Compression, IsSwitchedOnAndOff) {
  Platform platform;
  EXPECT_EQ(platform.run("compression 1"), succeeding("Setting import data transfer compression to on... "
                                                      "{importEnableTransferCompression on}OK!\n"));
  EXPECT_EQ(platform.run("compression 0"), succeeding("Setting import data transfer compression to off... "
                                                      "{importEnableTransferCompression off}OK!\n"));
}

TEST(Compression, IsSwitchedOnByEveryNumberButZero) {
  for (const std::string number : {"2", "01", "4294967296", "18446744073709551615"}) {
    Platform platform;
    EXPECT_EQ(platform.run("compression " + number),
              succeeding("Setting import data transfer compression to on... "
                         "{importEnableTransferCompression on}OK!\n"));
  }
  Platform platform;
  EXPECT_EQ(platform.run("compression 000"), succeeding("Setting import data transfer compression to off... "
                                                        "{importEnableTransferCompression off}OK!\n"));
}

TEST(Compression, RefusesWhatIsNoNumberWithoutACall) {
  Platform platform;
  for (const std::string word : {"on", "off", "-1", "0x1", "1.0", "18446744073709551616"}) {
    EXPECT_EQ(platform.run("compression " + word), failing("Invalid argument: " + word + "\n"));
  }
  EXPECT_EQ(platform.run("compression \"\""), failing("Invalid argument: \n"));
  EXPECT_EQ(platform.run("compression \" 1\""), failing("Invalid argument:  1\n"));
}

TEST(Compression, RefusesAWrongNumberOfWordsAndLeavesTheLineOpen) {
  Platform platform;
  EXPECT_EQ(platform.run("compression"), failing("invalid arguments"));
  EXPECT_EQ(platform.run("compression 1 0"), failing("invalid arguments"));
  EXPECT_EQ(platform.run("compression on off now"), failing("invalid arguments"));
}

TEST(Compression, ReportsTheReasonOfAFailure) {
  Platform platform;
  platform.fail("importEnableTransferCompression", 0x2A);
  EXPECT_EQ(platform.run("compression 1"),
            failing("Setting import data transfer compression to on... "
                    "{importEnableTransferCompression on}{Error::get}error 0x2A\n"));
  EXPECT_EQ(platform.run("compression 0"),
            failing("Setting import data transfer compression to off... "
                    "{importEnableTransferCompression off}{Error::get}error 0x2A\n"));
}
