#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/scripted_platform.h"

using Support::failing;
using Support::Platform;
using Support::succeeding;

TEST(ImportAdd, SendsTheAddressWithoutPortAndFlags) {
  Platform platform;
  platform.script.addedID = 12;
  EXPECT_EQ(platform.run("iadd 192.0.2.7 vol1"), succeeding("{IPAddress::parse 192.0.2.7}"
                                                            "Adding import for vol1 from 192.0.2.7... "
                                                            "{importAdd name=vol1 server=192.0.2.7:0 flags=0}"
                                                            "OK! Import ID: 12\n"));
}

TEST(ImportAdd, ShowsTheAddressAsItWasReadNotAsItWasTyped) {
  const std::vector<std::pair<std::string, std::string>> addresses{
      {"2001:0db8:0:0:0:0:0:1", "2001:DB8::1"},
      {"[2001:db8::1]", "2001:DB8::1"},
      {"fe80::1%7", "FE80::1%7"},
      {"1:0:0:2:0:0:0:3", "1::2:0:0:0:3"},
      {"1:2:3:4:5:6:7:0", "1:2:3:4:5:6:7:"},
  };
  for (const auto& [typed, shown] : addresses) {
    Platform platform;
    EXPECT_EQ(platform.run("iadd " + typed + " vol1").journal,
              "{IPAddress::parse " + typed + "}Adding import for vol1 from " + shown +
                  "... {importAdd name=vol1 server=[" + shown + "]:0 flags=0}OK! Import ID: 1\n");
  }
}

TEST(ImportAdd, PassesOnWhatIsNoAddress) {
  for (const std::string word : {"storage.example", "192.0.2.7:10809", "256.0.0.1"}) {
    Platform platform;
    platform.fail("importAdd", 0x10);
    EXPECT_EQ(platform.run("iadd " + word + " vol1"),
              failing("{IPAddress::parse " + word +
                      "}Adding import for vol1 from ::... "
                      "{importAdd name=vol1 server=[::]:0 flags=0}{Error::get}error 0x10\n"));
  }
}

TEST(ImportAdd, TakesNoNoticeOfAThirdWord) {
  Platform platform;
  const auto answer = platform.run("iadd 192.0.2.7 vol1");
  for (const std::string word : {"ro", "10809", "force", "\"\""}) {
    EXPECT_EQ(platform.run("iadd 192.0.2.7 vol1 " + word), answer);
  }
}

TEST(ImportAdd, SendsTheNameAsItWasTyped) {
  Platform platform;
  EXPECT_EQ(platform.run("iadd 192.0.2.7 \"my disk.img\"").journal,
            "{IPAddress::parse 192.0.2.7}Adding import for my disk.img from 192.0.2.7... "
            "{importAdd name=my disk.img server=192.0.2.7:0 flags=0}OK! Import ID: 1\n");
  EXPECT_EQ(platform.run("iadd 192.0.2.7 \"\"").journal,
            "{IPAddress::parse 192.0.2.7}Adding import for  from 192.0.2.7... "
            "{importAdd name= server=192.0.2.7:0 flags=0}OK! Import ID: 1\n");
}

TEST(ImportAdd, PrintsTheWholeRangeOfIDs) {
  Platform platform;
  platform.script.addedID = 0xFFFFFFFF;
  EXPECT_EQ(platform.run("iadd 192.0.2.7 v").journal,
            "{IPAddress::parse 192.0.2.7}Adding import for v from 192.0.2.7... "
            "{importAdd name=v server=192.0.2.7:0 flags=0}OK! Import ID: 4294967295\n");
}

TEST(ImportAdd, RefusesAWrongNumberOfWords) {
  Platform platform;
  EXPECT_EQ(platform.run("iadd"), failing("invalid arguments\n"));
  EXPECT_EQ(platform.run("iadd 192.0.2.7"), failing("invalid arguments\n"));
  EXPECT_EQ(platform.run("iadd 192.0.2.7 vol1 x y"), failing("invalid arguments\n"));
}

TEST(ImportAdd, ReportsTheReasonOfAFailure) {
  Platform platform;
  platform.fail("importAdd", 0xBEEF);
  EXPECT_EQ(platform.run("iadd 192.0.2.7 vol1"),
            failing("{IPAddress::parse 192.0.2.7}"
                    "Adding import for vol1 from 192.0.2.7... "
                    "{importAdd name=vol1 server=192.0.2.7:0 flags=0}{Error::get}"
                    "error 0xBEEF\n"));
}
