#include "imports/node_interfaces.h"

#include "imports/import_id.h"
#include "server/variant_printer.h"
#include "shell/command_table.h"
#include "shell/handler_steps.h"

namespace Imports {

int listNodes(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words) {
  if (words.size() != 1) {
    return Shell::refuseWordsInOpenLine("invalid arguments");
  }
  const auto id = announceImport("Listing node interfaces for import with ID ", words[0]);
  if (!id) {
    return Shell::failed;
  }
  const auto interfaces = service->importListNodeInterfaces(*id);
  if (Shell::endProgress(interfaces.has_value()) != Shell::succeeded) {
    return Shell::failed;
  }
  Server::printPropertyList("Node interfaces: ", *interfaces);
  return Shell::succeeded;
}

}  // namespace Imports
