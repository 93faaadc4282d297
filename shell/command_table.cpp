#include "shell/command_table.h"

#include <algorithm>
#include <ranges>

#include "exports/export_commands.h"
#include "exports/list.h"
#include "exports/stat.h"
#include "imports/compression.h"
#include "imports/import_commands.h"
#include "imports/import_list.h"
#include "imports/node_interfaces.h"
#include "server/discovery.h"
#include "server/properties.h"
#include "server/remote_exports.h"
#include "server/reservations.h"
#include "server/server_control.h"
#include "shell/help.h"
#include "shell/tear_down.h"

namespace Shell {

constinit std::array<CommandEntry, commandCount> commandTable;

namespace {

/// A row as it is written down: null stands for a text or a handler that is not there.
struct Row {
  const char* name;
  const char* synopsis;
  const char* help;
  CommandHandler handler;
};

constexpr std::array<Row, commandCount> rows{{
    {"help", nullptr, "Show this text.", help},
    {"exit", nullptr, "Exit application.", nullptr},
    {"start", nullptr, "Start NBD server.", Server::start},
    {"stop", nullptr, "Stop NBD server.", Server::stop},
    {"caps", nullptr, "Get NBD server capabilities.", Server::caps},
    {"list", nullptr, "List all exports.", Exports::list},
    {"ilist", nullptr, "List all imports.", Imports::list},
    {"add", "<node> [ro]", "Add a new export [read-only].", Exports::add},
    {"iadd", "<host> <name>", "Add a new import.", Imports::add},
    {"enable", "<ID>", "Enable an export.", Exports::enable},
    {"ienable", "<ID>", "Enable an import.", Imports::enable},
    {"disable", "<ID> [force]", "Disable an export.", Exports::disable},
    {"idisable", "<ID> [force]", "Disable an import.", Imports::disable},
    {"remove", "<ID>", "Remove an export.", Exports::remove},
    {"iremove", "<ID>", "Remove an import.", Imports::remove},
    {"rlist", "<server>", "Return list of exports offered by remote server.", Server::listRemote},
    {"props", nullptr, "List all server properties", Server::props},
    {"discover", nullptr, "List servers in the local network.", Server::discover},
    {"ilistnodes", "<ID>", "List available node interfaces for an import.", Imports::listNodes},
    {"compression", "<1|0>", "Enable or disable data transfer compression for all imports.",
     Imports::compression},
    {"diskspec", "<SpecString>", "Discover exports in the local network that match a DiskSpec.",
     Server::diskspec},
    {"password", "[<password>]", "Set/unset password for the local server.", Server::password},
    {"reserve", "<host> <password>", "Reserve a remote server.", Server::reserve},
    {"unreserve", "<host>", "Remove the reservation of a remote server.", Server::unreserve},
    {"reslist", nullptr, "List active remote server reservations.", Server::listReservations},
    {"rescheck", nullptr, "Get current server reservation state.", Server::checkReservation},
    {"stat", "<ID>", "Print the exports access statistics.", Exports::stat},
    {"quit", nullptr, nullptr, nullptr},
    {"q", nullptr, nullptr, nullptr},
    {"ls", nullptr, nullptr, Exports::list},
    {"s", nullptr, nullptr, Server::start},
}};

Ref<String> text(const char* literal) {
  return literal == nullptr ? nullptr : String::create(literal, 0, -1);
}

void releaseCommandTable() {
  for (CommandEntry& entry : commandTable | std::views::reverse) {
    entry.help = nullptr;
    entry.synopsis = nullptr;
    entry.name = nullptr;
  }
}

}  // namespace

void buildCommandTable() {
  std::ranges::transform(rows, commandTable.begin(), [](const Row& row) {
    return CommandEntry{text(row.name), text(row.synopsis), text(row.help), row.handler};
  });
  registerTearDown(releaseCommandTable);
}

const CommandEntry* findCommand(const Ref<String>& word) {
  const auto found =
      std::ranges::find_if(commandTable, [&word](const auto& entry) { return entry.name->equals(word); });
  return found == commandTable.end() ? nullptr : &*found;
}

}  // namespace Shell
