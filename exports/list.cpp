#include "exports/list.h"

#include <optional>
#include <utility>

#include "shell/addresses.h"
#include "shell/command_table.h"
#include "shell/output.h"

namespace Exports {

namespace {

using namespace Services::NBD::Client::Types;
using Services::NBD::Client::Service;
using Shell::output;

const char* stateText(ExportState state) {
  switch (state) {
    case ExportState::Added:
      return "added";
    case ExportState::Enabled:
      return "enabled";
    case ExportState::Disabling:
      return "disabling";
    case ExportState::Disabled:
      return "disabled";
    case ExportState::Failed:
      return "failed";
  }
  return "<inv>";
}

const char* reasonText(ExportReason reason) {
  switch (reason) {
    case ExportReason::None:
      return "none";
    case ExportReason::AccessDenied:
      return "access denied";
    case ExportReason::AccessError:
      return "access error";
  }
  return "<inv>";
}

/// All that is known of the exports in `ids`; those that have gone meanwhile are left out.
std::vector<ExportInfo> fetch(const Ref<Service>& service, const std::vector<ExportID>& ids) {
  std::vector<ExportInfo> exports;
  for (const ExportID id : ids) {
    if (auto info = service->exportInfo(id)) {
      exports.push_back(*std::move(info));
    }
  }
  return exports;
}

/// Shows the clients of one export; nothing if the service cannot tell them.
void printClients(const Ref<Service>& service, ExportID id) {
  std::vector<ExportClientInfo> clients;
  if (!service->exportGetClients(id, clients)) {
    return;
  }
  output()->printText("     - client count: ")->printU64(clients.size())->endLine();
  for (const ExportClientInfo& client : clients) {
    output()->printText("       -> ")->printString(Shell::formatEndpoint(client.endpoint))->endLine();
  }
}

void printExport(const ExportInfo& info) {
  const ExportDescriptor& descriptor = info.descriptor;
  output()
      ->printText("  ID ")
      ->printU32(static_cast<std::uint32_t>(info.id))
      ->printText(" | ")
      ->printString(descriptor.name)
      ->endLine();
  output()->printText("     - node: ")->printString(descriptor.node)->endLine();
  output()->printText("     - elem count: ")->printU64(descriptor.elemCount)->endLine();
  output()->printText("     - elem size: ")->printU64(descriptor.elemSize)->endLine();
  output()->printText("     - state: ")->printText(stateText(info.state))->endLine();
  output()->printText("     - uuid: ")->printString(info.uuid)->endLine();
  if (info.reason) {
    output()->printText("     - reason: ")->printText(reasonText(*info.reason))->endLine();
  }
}

}  // namespace

int list(Ref<Service> service, std::vector<Ref<String>> /*words*/) {
  std::vector<ExportID> ids;
  if (!service->exportList(ids)) {
    Shell::printError("Failed to fetch list of exports: error 0x");
    return Shell::failed;
  }
  const auto exports = fetch(service, ids);
  output()->printText("Exports: ")->printU64(exports.size())->endLine();
  for (const ExportInfo& info : exports) {
    printExport(info);
    printClients(service, info.id);
  }
  return Shell::succeeded;
}

}  // namespace Exports
