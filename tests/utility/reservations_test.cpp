#include <gtest/gtest.h>

#include "tests/support/scripted_platform.h"
#include "tests/utility/variants.h"

using Support::endpoint;
using Support::failing;
using Support::Platform;
using Support::succeeding;

// ---- password

TEST(Password, IsSet) {
  Platform platform;
  EXPECT_EQ(platform.run("password secret"),
            succeeding("Setting local password... {serverEnableReservation password=secret}OK!\n"));
  EXPECT_EQ(platform.run("password \"two words\""),
            succeeding("Setting local password... {serverEnableReservation password=two words}OK!\n"));
}

TEST(Password, IsDisabledWithoutAWord) {
  Platform platform;
  EXPECT_EQ(platform.run("password"),
            succeeding("Disabling local password... {serverEnableReservation no password}OK!\n"));
}

TEST(Password, IsSetToTheEmptyWord) {
  Platform platform;
  EXPECT_EQ(platform.run("password \"\""),
            succeeding("Setting local password... {serverEnableReservation password=}OK!\n"));
}

TEST(Password, ReportsTheReasonOfAFailure) {
  Platform platform;
  platform.fail("serverEnableReservation", 0xBEEF);
  EXPECT_EQ(platform.run("password secret"),
            failing("Setting local password... {serverEnableReservation password=secret}"
                    "{Error::get}FAIL! (0xBEEF)\n"));
  EXPECT_EQ(platform.run("password"),
            failing("Disabling local password... {serverEnableReservation no password}"
                    "{Error::get}FAIL! (0xBEEF)\n"));
}

TEST(Password, RefusesMoreThanOneWordAndLeavesTheLineOpen) {
  Platform platform;
  EXPECT_EQ(platform.run("password a b"), failing("unexpected arguments"));
  EXPECT_EQ(platform.run("password a b c"), failing("unexpected arguments"));
}

// ---- reserve

TEST(Reserve, EchoesTheWordsAndReadsTheReasonOnceMore) {
  Platform platform;
  EXPECT_EQ(platform.run("reserve 192.0.2.7 secret"),
            succeeding("{IPAddress::parse 192.0.2.7}Reserving 192.0.2.7 with password <secret>... "
                       "{serverReserveRemote 192.0.2.7:0 password=secret}{Error::get}OK!\n"));
}

TEST(Reserve, EchoesTheAddressAsItWasTyped) {
  Platform platform;
  EXPECT_EQ(platform.run("reserve [2001:0db8::1] \"a <b>\""),
            succeeding("{IPAddress::parse [2001:0db8::1]}Reserving [2001:0db8::1] with password <a <b>>... "
                       "{serverReserveRemote [2001:DB8::1]:0 password=a <b>}{Error::get}OK!\n"));
}

TEST(Reserve, PassesOnWhatIsNoAddress) {
  Platform platform;
  platform.fail("serverReserveRemote", 0x10);
  EXPECT_EQ(platform.run("reserve storage.example \"\""),
            failing("{IPAddress::parse storage.example}Reserving storage.example with password <>... "
                    "{serverReserveRemote [::]:0 password=}{Error::get}{Error::get}FAIL! (0x10)\n"));
}

TEST(Reserve, ReportsTheReasonOfAFailure) {
  Platform platform;
  platform.fail("serverReserveRemote", 0x61);
  EXPECT_EQ(platform.run("reserve 192.0.2.7 wrong"),
            failing("{IPAddress::parse 192.0.2.7}Reserving 192.0.2.7 with password <wrong>... "
                    "{serverReserveRemote 192.0.2.7:0 password=wrong}{Error::get}{Error::get}"
                    "FAIL! (0x61)\n"));
}

TEST(Reserve, RefusesAWrongNumberOfWordsAndLeavesTheLineOpen) {
  Platform platform;
  EXPECT_EQ(platform.run("reserve"), failing("unexpected arguments"));
  EXPECT_EQ(platform.run("reserve 192.0.2.7"), failing("unexpected arguments"));
  EXPECT_EQ(platform.run("reserve 192.0.2.7 a b"), failing("unexpected arguments"));
}

// ---- unreserve

TEST(Unreserve, ReadsTheReasonOnceMore) {
  Platform platform;
  EXPECT_EQ(platform.run("unreserve 192.0.2.7"),
            succeeding("{IPAddress::parse 192.0.2.7}Unreserving 192.0.2.7... "
                       "{serverUnreserveRemote 192.0.2.7:0}{Error::get}OK!\n"));
  EXPECT_EQ(platform.run("unreserve fe80::1%2"),
            succeeding("{IPAddress::parse fe80::1%2}Unreserving fe80::1%2... "
                       "{serverUnreserveRemote [FE80::1%2]:0}{Error::get}OK!\n"));
}

TEST(Unreserve, ReportsTheReasonOfAFailure) {
  Platform platform;
  platform.fail("serverUnreserveRemote", 0x60);
  EXPECT_EQ(platform.run("unreserve host"),
            failing("{IPAddress::parse host}Unreserving host... "
                    "{serverUnreserveRemote [::]:0}{Error::get}{Error::get}FAIL! (0x60)\n"));
}

TEST(Unreserve, RefusesAWrongNumberOfWordsAndLeavesTheLineOpen) {
  Platform platform;
  EXPECT_EQ(platform.run("unreserve"), failing("unexpected arguments"));
  EXPECT_EQ(platform.run("unreserve 192.0.2.7 secret"), failing("unexpected arguments"));
}

// ---- reslist

TEST(ReservationList, ShowsTheAddressesWithoutPorts) {
  Platform platform;
  platform.script.remoteReservations = {
      {.endpoint = endpoint("192.0.2.7", 10809), .details = Support::list({Support::number("a", 1)})},
      {.endpoint = endpoint("fe80::1%2", 1), .details = {}},
  };
  EXPECT_EQ(platform.run("reslist"), succeeding("{serverListRemoteReservations}"
                                                "Remote reservations: 2\n"
                                                "- 192.0.2.7\n"
                                                "- FE80::1%2\n"));
}

TEST(ReservationList, SaysThatThereIsNone) {
  Platform platform;
  EXPECT_EQ(platform.run("reslist"), succeeding("{serverListRemoteReservations}Remote reservations: 0\n"));
}

TEST(ReservationList, ReportsTheReasonOfAFailureAndNothingElse) {
  Platform platform;
  platform.script.remoteReservations = {{.endpoint = endpoint("192.0.2.7", 0), .details = {}}};
  platform.fail("serverListRemoteReservations", 0x301);
  EXPECT_EQ(platform.run("reslist"), failing("{serverListRemoteReservations}{Error::get}"
                                             "Failed to fetch list of remote reservations: error 0x301\n"));
}

TEST(ReservationList, RefusesWordsAndLeavesTheLineOpen) {
  Platform platform;
  EXPECT_EQ(platform.run("reslist all"), failing("unexpected arguments"));
  EXPECT_EQ(platform.run("reslist \"\""), failing("unexpected arguments"));
}

// ---- rescheck

TEST(ReservationCheck, ShowsTheHolderWithoutAPort) {
  Platform platform;
  platform.script.localReservation = {.endpoint = endpoint("192.0.2.9", 40000), .details = {}};
  EXPECT_EQ(platform.run("rescheck"), succeeding("{serverGetReservation}Server is reserved by: 192.0.2.9\n"));
  platform.script.localReservation->endpoint = endpoint("fe80::1%2", 40000);
  EXPECT_EQ(platform.run("rescheck"), succeeding("{serverGetReservation}Server is reserved by: FE80::1%2\n"));
}

TEST(ReservationCheck, ReportsAServerThatNobodyHasReservedLikeAFailure) {
  Platform platform;
  platform.fail("serverGetReservation", 0x60);
  EXPECT_EQ(platform.run("rescheck"), failing("{serverGetReservation}{Error::get}"
                                              "Failed to fetch server reservation state: error 0x60\n"));
}

TEST(ReservationCheck, ShowsWhateverCodeIsThere) {
  Platform platform;
  EXPECT_EQ(platform.run("rescheck"), failing("{serverGetReservation}{Error::get}"
                                              "Failed to fetch server reservation state: error 0x0\n"));
}

TEST(ReservationCheck, RefusesWordsAndLeavesTheLineOpen) {
  Platform platform;
  EXPECT_EQ(platform.run("rescheck now"), failing("unexpected arguments"));
  EXPECT_EQ(platform.run("rescheck 1 2"), failing("unexpected arguments"));
}
