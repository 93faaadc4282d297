#include "server/properties.h"

#include "server/variant_printer.h"
#include "shell/command_table.h"
#include "shell/handler_steps.h"
#include "shell/output.h"

namespace Server {

using Shell::output;

int props(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words) {
  if (!words.empty()) {
    return Shell::refuseWordsInOpenLine("unexpected arguments");
  }
  output()->printText("Fetching server properties... ");
  const auto properties = service->serverGetNamedProperties();
  if (!properties) {
    output()->printText("failed!")->endLine();
    return Shell::failed;
  }
  output()->printText("OK!")->endLine();
  printPropertyList("Server properties: ", *properties);
  return Shell::succeeded;
}

}  // namespace Server
