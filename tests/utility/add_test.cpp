#include <gtest/gtest.h>

#include "tests/support/scripted_platform.h"

using Support::failing;
using Support::Platform;
using Support::succeeding;

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
