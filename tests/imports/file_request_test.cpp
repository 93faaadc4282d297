#include "nbdd/imports/file_request.h"

#include <gtest/gtest.h>

namespace Nbdd {
namespace {

constexpr std::string_view calm =
    "Name:\tdd\nState:\tD (disk "
    "sleep)\nSigQ:\t1/95000\nSigPnd:\t0000000000000000\nShdPnd:\t0000000000004000\n";

TEST(KilledThread, HasSigkillPending) {
  EXPECT_FALSE(saysKilled(calm)) << "SIGTERM may be handled";
  EXPECT_TRUE(saysKilled("State:\tD\nSigPnd:\t0000000000000100\nShdPnd:\t0000000000000000\n"));
  EXPECT_TRUE(saysKilled("State:\tD\nSigPnd:\t0000000000000000\nShdPnd:\t0000000000000100\n"));
  EXPECT_TRUE(saysKilled("State:\tD\nSigPnd:\t000000000000010a\n"));
}

TEST(KilledThread, IsNotOneWhoseStatusSaysNothing) {
  EXPECT_FALSE(saysKilled(""));
  EXPECT_FALSE(saysKilled("\nSigPnd:\t"));
  EXPECT_FALSE(saysKilled("\nSigPnd:\tx"));
  EXPECT_FALSE(saysKilled("Name:\tSigPnd:\t0000000000000100\n")) << "a name that looks like it";
}

}  // namespace
}  // namespace Nbdd
