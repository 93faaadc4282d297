#include <gtest/gtest.h>

#include "tests/support/scripted_platform.h"

using Support::endpoint;
using Support::Platform;
using Support::succeeding;

// ---- start

TEST(Start, SaysNoMoreIfThereIsNoEndpoint) {
  Platform platform;
  EXPECT_EQ(platform.run("start"), succeeding("Starting server... {serverStart}OK!\n"));
}

TEST(Start, NamesTheEndpointsThatAFirewallMayClose) {
  Platform platform;
  platform.script.firewall = {{endpoint("192.0.2.7", 10809)}, {endpoint("2001:db8::7", 10809)}};
  EXPECT_EQ(platform.run("start"), succeeding("Starting server... {serverStart}OK!\n"
                                              "Note: check firewall for...\n"
                                              "      -> 192.0.2.7:10809\n"
                                              "      -> [2001:DB8::7]:10809\n"));
}

TEST(Start, PrintsAFailureAloneAndStillSucceeds) {
  Platform platform;
  platform.script.firewall = {{endpoint("192.0.2.7", 10809)}};
  platform.fail("serverStart", 0x301);
  EXPECT_EQ(platform.run("start"), succeeding("Starting server... {serverStart}{Error::get}error 0x301\n"));
}

TEST(Start, HasAShortNameAndTakesNoNoticeOfWords) {
  Platform platform;
  const auto answer = succeeding("Starting server... {serverStart}OK!\n");
  EXPECT_EQ(platform.run("s"), answer);
  EXPECT_EQ(platform.run("start now"), answer);
  EXPECT_EQ(platform.run("s 1 2 3"), answer);
}

// ---- stop

TEST(Stop, StopsTheServer) {
  Platform platform;
  EXPECT_EQ(platform.run("stop"), succeeding("Stopping server... {serverStop}OK!\n"));
}

TEST(Stop, PrintsAFailureAndStillSucceeds) {
  Platform platform;
  platform.fail("serverStop", 0xF);
  EXPECT_EQ(platform.run("stop"), succeeding("Stopping server... {serverStop}{Error::get}error 0xF\n"));
}

TEST(Stop, TakesNoNoticeOfWords) {
  Platform platform;
  EXPECT_EQ(platform.run("stop 1 2"), succeeding("Stopping server... {serverStop}OK!\n"));
}

// ---- caps

TEST(Caps, ShowsWhatTheServerCanDo) {
  Platform platform;
  platform.script.capabilities = 0x3;
  EXPECT_EQ(platform.run("caps"), succeeding("Server capabilities: {serverCapabilities}\n"
                                             "    -> R/W exports\n"
                                             "    -> transfer compression\n"));
}

TEST(Caps, ShowsEachAlone) {
  Platform platform;
  platform.script.capabilities = 0x1;
  EXPECT_EQ(platform.run("caps"), succeeding("Server capabilities: {serverCapabilities}\n"
                                             "    -> R/W exports\n"));
  platform.script.capabilities = 0x2;
  EXPECT_EQ(platform.run("caps"), succeeding("Server capabilities: {serverCapabilities}\n"
                                             "    -> transfer compression\n"));
}

TEST(Caps, ShowsTheHeadingAloneForBitsThatHaveNoName) {
  Platform platform;
  platform.script.capabilities = 0xFFFFFFFC;
  EXPECT_EQ(platform.run("caps"), succeeding("Server capabilities: {serverCapabilities}\n"));
}

TEST(Caps, SaysThatThereAreNone) {
  Platform platform;
  EXPECT_EQ(platform.run("caps"), succeeding("Server capabilities: {serverCapabilities}N/A!\n"));
}

TEST(Caps, TakesNoNoticeOfWords) {
  Platform platform;
  EXPECT_EQ(platform.run("caps x"), succeeding("Server capabilities: {serverCapabilities}N/A!\n"));
}
