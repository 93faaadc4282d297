#include <gtest/gtest.h>

#include "tests/support/scripted_platform.h"
#include "tests/utility/variants.h"

using Support::failing;
using Support::list;
using Support::nested;
using Support::number;
using Support::Platform;
using Support::succeeding;
using Support::words;

TEST(Props, ShowsTheServersProperties) {
  Platform platform;
  platform.script.properties = list({words("vendor", "X"), nested("net", {number("port", 5)})});
  EXPECT_EQ(platform.run("props"), succeeding("Fetching server properties... {serverGetNamedProperties}OK!\n"
                                              "Server properties: 2\n"
                                              "  Property: vendor\n"
                                              "  -> value: X\n"
                                              "\n"
                                              "  Property: net\n"
                                              "  -> value: <nested>\n"
                                              "            Property: port\n"
                                              "            -> value: 5\n"
                                              "\n"));
}

TEST(Props, SaysThatThereIsNothing) {
  Platform platform;
  EXPECT_EQ(platform.run("props"), succeeding("Fetching server properties... {serverGetNamedProperties}OK!\n"
                                              "Server properties: 0\n"));
}

TEST(Props, DoesNotAskForTheReasonOfAFailure) {
  Platform platform;
  platform.script.properties = list({words("vendor", "X")});
  platform.fail("serverGetNamedProperties", 0x301);
  EXPECT_EQ(platform.run("props"),
            failing("Fetching server properties... {serverGetNamedProperties}failed!\n"));
}

TEST(Props, RefusesWordsAndLeavesTheLineOpen) {
  Platform platform;
  EXPECT_EQ(platform.run("props all"), failing("unexpected arguments"));
  EXPECT_EQ(platform.run("props \"\""), failing("unexpected arguments"));
  EXPECT_EQ(platform.run("props 1 2 3"), failing("unexpected arguments"));
}
