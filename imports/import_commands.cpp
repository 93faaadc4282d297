// The commands that change imports. Each checks its words, prints what it is about to do, makes one call, and
// ends the same line with the outcome.

#include "imports/import_commands.h"

#include "imports/import_id.h"
#include "platform/network.h"
#include "shell/addresses.h"
#include "shell/command_table.h"
#include "shell/handler_steps.h"
#include "shell/output.h"

namespace Imports {

namespace {

using namespace Services::NBD::Client::Types;
using Services::NBD::Client::Service;
using Shell::output;

}  // namespace

int add(Ref<Service> service, std::vector<Ref<String>> words) {
  if (words.size() != 2 && words.size() != 3) {
    return Shell::refuseWords("invalid arguments");
  }
  ImportDescriptor descriptor;
  descriptor.name = words[1];
  descriptor.server.address = Shell::IPAddress::parse(words[0]);
  output()
      ->printText("Adding import for ")
      ->printString(descriptor.name)
      ->printText(" from ")
      ->printString(Shell::formatAddress(descriptor.server.address))
      ->printText("... ");
  const auto id = service->importAdd(descriptor);
  if (!id) {
    return Shell::endProgress(false);
  }
  output()->printText("OK! Import ID: ")->printU32(static_cast<std::uint32_t>(*id))->endLine();
  return Shell::succeeded;
}

int enable(Ref<Service> service, std::vector<Ref<String>> words) {
  if (words.size() != 1) {
    return Shell::refuseWordsInOpenLine("invalid arguments");
  }
  const auto id = announceImport("Enabling import with ID ", words[0]);
  return id ? Shell::endProgress(service->importEnable(*id)) : Shell::failed;
}

int disable(Ref<Service> service, std::vector<Ref<String>> words) {
  if (words.size() != 1) {
    return Shell::refuseWordsInOpenLine("invalid arguments");
  }
  const auto id = announceImport("Disabling import with ID ", words[0]);
  return id ? Shell::endProgress(service->importDisable(*id, true)) : Shell::failed;
}

int remove(Ref<Service> service, std::vector<Ref<String>> words) {
  if (words.size() != 1) {
    return Shell::refuseWordsInOpenLine("invalid arguments");
  }
  const auto id = announceImport("Removing import with ID ", words[0]);
  return id ? Shell::endProgress(service->importRemove(*id)) : Shell::failed;
}

}  // namespace Imports
