#include <gtest/gtest.h>

#include "tests/support/scripted_platform.h"

using Support::failing;
using Support::Platform;
using Support::succeeding;

// ---- add

TEST(Add, SendsTheNodeWithoutFlags) {
  Platform platform;
  platform.script.addedID = 12;
  EXPECT_EQ(platform.run("add /dev/disk0"),
            succeeding("{absolute /dev/disk0 none}"
                       "Adding '/dev/disk0' as export..."
                       "{exportAdd name=none node=/dev/disk0 flags=0 elements=0*0}"
                       "OK! Export ID: 12\n"));
}

TEST(Add, MakesARelativeNodeAbsolute) {
  Platform platform;
  platform.script.directory = "/srv/images";
  EXPECT_EQ(platform.run("add ../disk.img"),
            succeeding("{absolute ../disk.img none}"
                       "Adding '/srv/disk.img' as export..."
                       "{exportAdd name=none node=/srv/disk.img flags=0 elements=0*0}"
                       "OK! Export ID: 1\n"));
}

TEST(Add, TakesBothWordsForReadOnly) {
  for (const std::string option : {"ro", "read-only"}) {
    Platform platform;
    EXPECT_EQ(platform.run("add /d " + option),
              succeeding("{absolute /d none}"
                         "Adding '/d' as export..."
                         "{exportAdd name=none node=/d flags=1 elements=0*0}"
                         "OK! Export ID: 1\n"));
  }
}

TEST(Add, KeepsAQuotedNodeTogether) {
  Platform platform;
  EXPECT_EQ(platform.run("add \"/srv/my disk\" ro"),
            succeeding("{absolute /srv/my disk none}"
                       "Adding '/srv/my disk' as export..."
                       "{exportAdd name=none node=/srv/my disk flags=1 elements=0*0}"
                       "OK! Export ID: 1\n"));
}

TEST(Add, PrintsTheWholeRangeOfIDs) {
  Platform platform;
  platform.script.addedID = 0xFFFFFFFF;
  EXPECT_EQ(platform.run("add /d").journal,
            "{absolute /d none}Adding '/d' as export..."
            "{exportAdd name=none node=/d flags=0 elements=0*0}OK! Export ID: 4294967295\n");
}

TEST(Add, RefusesOtherOptions) {
  Platform platform;
  EXPECT_EQ(platform.run("add /d rw"), failing("unrecognied argument: rw\n"));
  EXPECT_EQ(platform.run("add /d RO"), failing("unrecognied argument: RO\n"));
  EXPECT_EQ(platform.run("add /d read"), failing("unrecognied argument: read\n"));
  EXPECT_EQ(platform.run("add /d \"\""), failing("unrecognied argument: \n"));
}

TEST(Add, RefusesAWrongNumberOfWords) {
  Platform platform;
  EXPECT_EQ(platform.run("add"), failing("invalid arguments\n"));
  EXPECT_EQ(platform.run("add /d ro ro"), failing("invalid arguments\n"));
  EXPECT_EQ(platform.run("add /d bad ro"), failing("invalid arguments\n"));
}

TEST(Add, ReportsTheReasonOfAFailure) {
  Platform platform;
  platform.fail("exportAdd", 0xBEEF);
  EXPECT_EQ(platform.run("add /d"), failing("{absolute /d none}"
                                            "Adding '/d' as export..."
                                            "{exportAdd name=none node=/d flags=0 elements=0*0}{Error::get}"
                                            "error 0xBEEF\n"));
}

// ---- enable

TEST(Enable, EnablesTheExport) {
  Platform platform;
  EXPECT_EQ(platform.run("enable 3"), succeeding("Enabling export with ID 3... {exportEnable 3}OK!\n"));
}

TEST(Enable, ShowsTheWholeNumberAndActsOnItsLow32Bits) {
  Platform platform;
  EXPECT_EQ(platform.run("enable 4294967299"),
            succeeding("Enabling export with ID 4294967299... {exportEnable 3}OK!\n"));
  EXPECT_EQ(platform.run("enable 18446744073709551615"),
            succeeding("Enabling export with ID 18446744073709551615... {exportEnable 4294967295}OK!\n"));
}

TEST(Enable, RefusesWhatIsNoNumber) {
  Platform platform;
  EXPECT_EQ(platform.run("enable abc"), failing("Invalid export ID: abc\n"));
  EXPECT_EQ(platform.run("enable -1"), failing("Invalid export ID: -1\n"));
  EXPECT_EQ(platform.run("enable 0x3"), failing("Invalid export ID: 0x3\n"));
  EXPECT_EQ(platform.run("enable \"\""), failing("Invalid export ID: \n"));
  EXPECT_EQ(platform.run("enable \" 3\""), failing("Invalid export ID:  3\n"));
  EXPECT_EQ(platform.run("enable 18446744073709551616"),
            failing("Invalid export ID: 18446744073709551616\n"));
}

TEST(Enable, RefusesAWrongNumberOfWordsAndLeavesTheLineOpen) {
  Platform platform;
  EXPECT_EQ(platform.run("enable"), failing("invalid arguments"));
  EXPECT_EQ(platform.run("enable 1 2"), failing("invalid arguments"));
}

TEST(Enable, ReportsTheReasonOfAFailure) {
  Platform platform;
  platform.fail("exportEnable", 0x2A);
  EXPECT_EQ(platform.run("enable 7"),
            failing("Enabling export with ID 7... {exportEnable 7}{Error::get}error 0x2A\n"));
}

// ---- disable

TEST(Disable, DisablesGracefully) {
  Platform platform;
  EXPECT_EQ(platform.run("disable 5"), succeeding("Disabling export with ID 5... {exportDisable 5}OK!\n"));
}

TEST(Disable, ForcesWithThatWordAlone) {
  Platform platform;
  EXPECT_EQ(platform.run("disable 5 force"),
            succeeding("Disabling export with ID 5... {exportDisable 5 force}OK!\n"));
  EXPECT_EQ(platform.run("disable 5 now"),
            succeeding("Disabling export with ID 5... {exportDisable 5}OK!\n"));
  EXPECT_EQ(platform.run("disable 5 FORCE"),
            succeeding("Disabling export with ID 5... {exportDisable 5}OK!\n"));
  EXPECT_EQ(platform.run("disable 5 forced"),
            succeeding("Disabling export with ID 5... {exportDisable 5}OK!\n"));
}

TEST(Disable, ReadsTheIDBeforeTheSecondWord) {
  Platform platform;
  EXPECT_EQ(platform.run("disable abc force"), failing("Invalid export ID: abc\n"));
}

TEST(Disable, ShowsTheWholeNumberAndActsOnItsLow32Bits) {
  Platform platform;
  EXPECT_EQ(platform.run("disable 4294967296 force"),
            succeeding("Disabling export with ID 4294967296... {exportDisable 0 force}OK!\n"));
}

TEST(Disable, RefusesAWrongNumberOfWordsAndLeavesTheLineOpen) {
  Platform platform;
  EXPECT_EQ(platform.run("disable"), failing("invalid arguments"));
  EXPECT_EQ(platform.run("disable 1 force x"), failing("invalid arguments"));
}

TEST(Disable, ReportsTheReasonOfAFailure) {
  Platform platform;
  platform.fail("exportDisable", 0xFFFFFFFF);
  EXPECT_EQ(platform.run("disable 7 force"),
            failing("Disabling export with ID 7... {exportDisable 7 force}{Error::get}error 0xFFFFFFFF\n"));
}

// ---- remove

TEST(Remove, RemovesTheExport) {
  Platform platform;
  EXPECT_EQ(platform.run("remove 9"), succeeding("Removing export with ID 9... {exportRemove 9}OK!\n"));
}

TEST(Remove, ShowsTheWholeNumberAndActsOnItsLow32Bits) {
  Platform platform;
  EXPECT_EQ(platform.run("remove 4294967297"),
            succeeding("Removing export with ID 4294967297... {exportRemove 1}OK!\n"));
}

TEST(Remove, RefusesWhatIsNoNumber) {
  Platform platform;
  EXPECT_EQ(platform.run("remove all"), failing("Invalid export ID: all\n"));
}

TEST(Remove, RefusesAWrongNumberOfWordsAndLeavesTheLineOpen) {
  Platform platform;
  EXPECT_EQ(platform.run("remove"), failing("invalid arguments"));
  EXPECT_EQ(platform.run("remove 1 2"), failing("invalid arguments"));
}

TEST(Remove, ReportsTheReasonOfAFailure) {
  Platform platform;
  platform.fail("exportRemove", 0);
  EXPECT_EQ(platform.run("remove 7"),
            failing("Removing export with ID 7... {exportRemove 7}{Error::get}error 0x0\n"));
}
