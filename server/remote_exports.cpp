#include "server/remote_exports.h"

#include <cstddef>

#include "platform/network.h"
#include "server/variant_printer.h"
#include "shell/addresses.h"
#include "shell/command_table.h"
#include "shell/handler_steps.h"
#include "shell/output.h"

namespace Server {

namespace {

using namespace Services::NBD::Client::Types;
using Services::NBD::Client::Service;
using Shell::output;

void printIdentity(const RemoteExportList& list) {
  output()->printText("Is Talvek server: ")->printBool(list.isTalvekServer)->endLine();
  if (list.isTalvekServer) {
    output()->printText("Server UUID: ")->printString(list.uuid)->endLine();
    printPropertyList("Server properties: ", list.properties);
  }
}

void printExport(const RemoteExportEntry& entry) {
  output()->printText("  Export: ")->printString(entry.name)->endLine();
  if (entry.uuid && !entry.uuid->isEmpty()) {
    output()->printText("    - uuid: ")->printString(entry.uuid)->endLine();
  }
  output()->printText("    - size: ")->printU64(entry.size)->endLine();
  output()->printText("    - flgs: ")->printU32(entry.flags)->endLine();
}

}  // namespace

int listRemote(Ref<Service> service, std::vector<Ref<String>> words) {
  if (words.size() != 1) {
    return Shell::refuseWordsInOpenLine("missing argument: remote-host");
  }
  const IPEndpoint server{.address = Shell::IPAddress::parse(words[0]), .port = 0};
  output()
      ->printText("Fetching exports from ")
      ->printString(Shell::formatAddress(server.address))
      ->printText("... ");
  const auto list = service->fetchRemoteExports(server);
  if (!list) {
    output()->printText("failed!")->endLine();
    return Shell::failed;
  }
  output()->printText("OK!")->endLine();
  printIdentity(*list);
  output()->printText("Export count: ")->printU64(list->exports.size())->endLine();
  for (std::size_t index = 0; index < list->exports.size(); ++index) {
    if (index > 0) {
      output()->endLine();
    }
    printExport(list->exports[index]);
  }
  return Shell::succeeded;
}

}  // namespace Server
