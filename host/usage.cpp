#include "host/usage.h"

#include <string_view>

#include "talvek_version.h"

namespace Host {

namespace {

constexpr std::string_view usage =
    "Usage: nbdctl [COMMAND [WORD]...]\n"
    "       nbdctl --help | --version\n"
    "\n"
    "Manages the local NBD service: its exports, its imports and its server.\n"
    "\n"
    "With a COMMAND, runs it and ends; without, reads commands from standard input, a line each.\n"
    "`nbdctl help` lists the commands. Words with blanks in them need double quotes, which a shell\n"
    "has to be kept from taking away: nbdctl add '\"/srv/my disk.img\"'\n"
    "\n"
    "  -h, --help     show this text and end\n"
    "  -V, --version  show the version and end\n"
    "\n"
    "See nbdctl(1).\n";

}  // namespace

std::optional<std::string> answerOption(std::span<char*> arguments) {
  if (arguments.size() < 2) {
    return std::nullopt;
  }
  const std::string_view option = arguments[1];
  if (option == "--help" || option == "-h") {
    return std::string(usage);
  }
  if (option == "--version" || option == "-V") {
    return std::string("nbdctl ") + talvekVersion + "\n";
  }
  return std::nullopt;
}

}  // namespace Host
