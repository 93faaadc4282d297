#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/scripted_platform.h"

using Support::failing;
using Support::Platform;
using Support::succeeding;

// ---- iadd

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

// ---- ienable

TEST(ImportEnable, EnablesTheImport) {
  Platform platform;
  EXPECT_EQ(platform.run("ienable 3"), succeeding("Enabling import with ID 3... {importEnable 3}OK!\n"));
}

TEST(ImportEnable, ShowsTheWholeNumberAndActsOnItsLow32Bits) {
  Platform platform;
  EXPECT_EQ(platform.run("ienable 4294967298"),
            succeeding("Enabling import with ID 4294967298... {importEnable 2}OK!\n"));
  EXPECT_EQ(platform.run("ienable 18446744073709551615"),
            succeeding("Enabling import with ID 18446744073709551615... {importEnable 4294967295}OK!\n"));
}

TEST(ImportEnable, RefusesWhatIsNoNumber) {
  Platform platform;
  EXPECT_EQ(platform.run("ienable abc"), failing("Invalid import ID: abc\n"));
  EXPECT_EQ(platform.run("ienable -1"), failing("Invalid import ID: -1\n"));
  EXPECT_EQ(platform.run("ienable 0x3"), failing("Invalid import ID: 0x3\n"));
  EXPECT_EQ(platform.run("ienable \"\""), failing("Invalid import ID: \n"));
  EXPECT_EQ(platform.run("ienable \" 3\""), failing("Invalid import ID:  3\n"));
  EXPECT_EQ(platform.run("ienable 18446744073709551616"),
            failing("Invalid import ID: 18446744073709551616\n"));
}

TEST(ImportEnable, RefusesAWrongNumberOfWordsAndLeavesTheLineOpen) {
  Platform platform;
  EXPECT_EQ(platform.run("ienable"), failing("invalid arguments"));
  EXPECT_EQ(platform.run("ienable 1 2"), failing("invalid arguments"));
  EXPECT_EQ(platform.run("ienable abc 2"), failing("invalid arguments")) << "the words are counted first";
}

TEST(ImportEnable, ReportsTheReasonOfAFailure) {
  Platform platform;
  platform.fail("importEnable", 0x2A);
  EXPECT_EQ(platform.run("ienable 7"),
            failing("Enabling import with ID 7... {importEnable 7}{Error::get}error 0x2A\n"));
}

// ---- idisable

TEST(ImportDisable, AlwaysForces) {
  Platform platform;
  EXPECT_EQ(platform.run("idisable 5"),
            succeeding("Disabling import with ID 5... {importDisable 5 force}OK!\n"));
}

TEST(ImportDisable, RefusesTheWordForceAsAnyOther) {
  Platform platform;
  EXPECT_EQ(platform.run("idisable 5 force"), failing("invalid arguments"));
  EXPECT_EQ(platform.run("idisable 5 now"), failing("invalid arguments"));
  EXPECT_EQ(platform.run("idisable"), failing("invalid arguments"));
  EXPECT_EQ(platform.run("idisable 5 force x"), failing("invalid arguments"));
}

TEST(ImportDisable, ShowsTheWholeNumberAndActsOnItsLow32Bits) {
  Platform platform;
  EXPECT_EQ(platform.run("idisable 4294967296"),
            succeeding("Disabling import with ID 4294967296... {importDisable 0 force}OK!\n"));
}

TEST(ImportDisable, RefusesWhatIsNoNumber) {
  Platform platform;
  EXPECT_EQ(platform.run("idisable force"), failing("Invalid import ID: force\n"));
}

TEST(ImportDisable, ReportsTheReasonOfAFailure) {
  Platform platform;
  platform.fail("importDisable", 0xFFFFFFFF);
  EXPECT_EQ(platform.run("idisable 7"),
            failing("Disabling import with ID 7... {importDisable 7 force}{Error::get}error 0xFFFFFFFF\n"));
}

// ---- iremove

TEST(ImportRemove, RemovesTheImport) {
  Platform platform;
  EXPECT_EQ(platform.run("iremove 9"), succeeding("Removing import with ID 9... {importRemove 9}OK!\n"));
}

TEST(ImportRemove, ShowsTheWholeNumberAndActsOnItsLow32Bits) {
  Platform platform;
  EXPECT_EQ(platform.run("iremove 4294967297"),
            succeeding("Removing import with ID 4294967297... {importRemove 1}OK!\n"));
}

TEST(ImportRemove, RefusesWhatIsNoNumber) {
  Platform platform;
  EXPECT_EQ(platform.run("iremove all"), failing("Invalid import ID: all\n"));
}

TEST(ImportRemove, RefusesAWrongNumberOfWordsAndLeavesTheLineOpen) {
  Platform platform;
  EXPECT_EQ(platform.run("iremove"), failing("invalid arguments"));
  EXPECT_EQ(platform.run("iremove 1 2"), failing("invalid arguments"));
}

TEST(ImportRemove, ReportsTheReasonOfAFailure) {
  Platform platform;
  platform.fail("importRemove", 0);
  EXPECT_EQ(platform.run("iremove 7"),
            failing("Removing import with ID 7... {importRemove 7}{Error::get}error 0x0\n"));
}
