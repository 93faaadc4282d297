#include <gtest/gtest.h>

#include "tests/support/scripted_platform.h"

using Support::Platform;
using Support::succeeding;

namespace {

const std::string helpText =
    "Supported commands:\n"
    "    help\n\tShow this text.\n\n"
    "    exit\n\tExit application.\n\n"
    "    start\n\tStart NBD server.\n\n"
    "    stop\n\tStop NBD server.\n\n"
    "    caps\n\tGet NBD server capabilities.\n\n"
    "    list\n\tList all exports.\n\n"
    "    ilist\n\tList all imports.\n\n"
    "    add <node> [ro]\n\tAdd a new export [read-only].\n\n"
    "    iadd <host> <name>\n\tAdd a new import.\n\n"
    "    enable <ID>\n\tEnable an export.\n\n"
    "    ienable <ID>\n\tEnable an import.\n\n"
    "    disable <ID> [force]\n\tDisable an export.\n\n"
    "    idisable <ID> [force]\n\tDisable an import.\n\n"
    "    remove <ID>\n\tRemove an export.\n\n"
    "    iremove <ID>\n\tRemove an import.\n\n"
    "    rlist <server>\n\tReturn list of exports offered by remote server.\n\n"
    "    props\n\tList all server properties\n\n"
    "    discover\n\tList servers in the local network.\n\n"
    "    ilistnodes <ID>\n\tList available node interfaces for an import.\n\n"
    "    compression <1|0>\n\tEnable or disable data transfer compression for all imports.\n\n"
    "    diskspec <SpecString>\n\tDiscover exports in the local network that match a DiskSpec.\n\n"
    "    password [<password>]\n\tSet/unset password for the local server.\n\n"
    "    reserve <host> <password>\n\tReserve a remote server.\n\n"
    "    unreserve <host>\n\tRemove the reservation of a remote server.\n\n"
    "    reslist\n\tList active remote server reservations.\n\n"
    "    rescheck\n\tGet current server reservation state.\n\n"
    "    stat <ID>\n\tPrint the exports access statistics.\n\n";

}  // namespace

TEST(Help, ListsTheCommandsInTableOrder) {
  Platform platform;
  EXPECT_EQ(platform.run("help"), succeeding(helpText));
}

TEST(Help, TakesNoNoticeOfWords) {
  Platform platform;
  EXPECT_EQ(platform.run("help stat \"\" q"), succeeding(helpText));
}
