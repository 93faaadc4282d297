#include "server/server_control.h"

#include "shell/addresses.h"
#include "shell/command_table.h"
#include "shell/output.h"

namespace Server {

namespace {

using namespace Services::NBD::Client::Types;
using Services::NBD::Client::Service;
using Shell::output;

}  // namespace

int start(Ref<Service> service, std::vector<Ref<String>> /*words*/) {
  output()->printText("Starting server... ");
  std::vector<NetIfFirewallState> endpoints;
  if (!service->serverStart(endpoints)) {
    Shell::printError("error 0x");
    return Shell::succeeded;
  }
  output()->printText("OK!")->endLine();
  if (!endpoints.empty()) {
    output()->printText("Note: check firewall for...")->endLine();
  }
  for (const NetIfFirewallState& state : endpoints) {
    output()->printText("      -> ")->printString(Shell::formatEndpoint(state.endpoint))->endLine();
  }
  return Shell::succeeded;
}

int stop(Ref<Service> service, std::vector<Ref<String>> /*words*/) {
  output()->printText("Stopping server... ");
  if (!service->serverStop()) {
    Shell::printError("error 0x");
    return Shell::succeeded;
  }
  output()->printText("OK!")->endLine();
  return Shell::succeeded;
}

int caps(Ref<Service> service, std::vector<Ref<String>> /*words*/) {
  output()->printText("Server capabilities: ");
  const ServerCapabilities capabilities = service->serverCapabilities();
  if (capabilities.mask() == 0) {
    output()->printText("N/A!")->endLine();
    return Shell::succeeded;
  }
  output()->endLine();
  if (capabilities.contains(ServerCapability::ReadWriteExports)) {
    output()->printText("    -> ")->printText("R/W exports")->endLine();
  }
  if (capabilities.contains(ServerCapability::TransferCompression)) {
    output()->printText("    -> ")->printText("transfer compression")->endLine();
  }
  return Shell::succeeded;
}

}  // namespace Server
