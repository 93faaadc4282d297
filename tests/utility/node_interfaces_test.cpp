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

TEST(NodeInterfaces, ShowsEachWithAnEmptyLineBehindIt) {
  Platform platform;
  platform.script.nodeInterfaces = list({
      nested("file", {words("path", "/run/x/1"), nested("more", {number("readers", 2)})}),
      words("socket", "/run/x/1.sock"),
  });
  EXPECT_EQ(platform.run("ilistnodes 3"),
            succeeding("Listing node interfaces for import with ID 3... {importListNodeInterfaces 3}OK!\n"
                       "Node interfaces: 2\n"
                       "  Property: file\n"
                       "  -> value: <nested>\n"
                       "            Property: path\n"
                       "            -> value: /run/x/1\n"
                       "            Property: more\n"
                       "            -> value: <nested>\n"
                       "                      Property: readers\n"
                       "                      -> value: 2\n"
                       "\n"
                       "  Property: socket\n"
                       "  -> value: /run/x/1.sock\n"
                       "\n"));
}

TEST(NodeInterfaces, SaysThatThereIsNone) {
  Platform platform;
  EXPECT_EQ(platform.run("ilistnodes 3"),
            succeeding("Listing node interfaces for import with ID 3... {importListNodeInterfaces 3}OK!\n"
                       "Node interfaces: 0\n"));
}

TEST(NodeInterfaces, ShowsTheWholeNumberAndActsOnItsLow32Bits) {
  Platform platform;
  EXPECT_EQ(platform.run("ilistnodes 4294967298").journal,
            "Listing node interfaces for import with ID 4294967298... {importListNodeInterfaces 2}OK!\n"
            "Node interfaces: 0\n");
  EXPECT_EQ(platform.run("ilistnodes 18446744073709551615").journal,
            "Listing node interfaces for import with ID 18446744073709551615... "
            "{importListNodeInterfaces 4294967295}OK!\n"
            "Node interfaces: 0\n");
}

TEST(NodeInterfaces, RefusesWhatIsNoNumber) {
  Platform platform;
  EXPECT_EQ(platform.run("ilistnodes abc"), failing("Invalid import ID: abc\n"));
  EXPECT_EQ(platform.run("ilistnodes \"\""), failing("Invalid import ID: \n"));
  EXPECT_EQ(platform.run("ilistnodes 18446744073709551616"),
            failing("Invalid import ID: 18446744073709551616\n"));
}

TEST(NodeInterfaces, RefusesAWrongNumberOfWordsAndLeavesTheLineOpen) {
  Platform platform;
  EXPECT_EQ(platform.run("ilistnodes"), failing("invalid arguments"));
  EXPECT_EQ(platform.run("ilistnodes 1 2"), failing("invalid arguments"));
  EXPECT_EQ(platform.run("ilistnodes x y z"), failing("invalid arguments"));
}

TEST(NodeInterfaces, ReportsTheReasonOfAFailureAndNothingElse) {
  Platform platform;
  platform.script.nodeInterfaces = list({words("file", "/x")});
  platform.fail("importListNodeInterfaces", 0x30);
  EXPECT_EQ(platform.run("ilistnodes 3"), failing("Listing node interfaces for import with ID 3... "
                                                  "{importListNodeInterfaces 3}{Error::get}error 0x30\n"));
}
