#include "imports/import_list.h"

#include <optional>
#include <utility>

#include "platform/string_util.h"
#include "platform/vector.h"
#include "shell/command_table.h"
#include "shell/output.h"

namespace Imports {

namespace {

using namespace Services::NBD::Client::Types;
using Services::NBD::Client::Service;
using Shell::output;

const char* stateText(ImportState state) {
  switch (state) {
    case ImportState::Added:
      return "added";
    case ImportState::Connecting:
    case ImportState::Connected:
      return "enabled";
    case ImportState::Disabling:
      return "disabling";
    case ImportState::Disabled:
      return "disabled";
  }
  return "<inv>";
}

const char* reasonText(const std::optional<ImportDisableReason>& reason) {
  if (!reason) {
    return "<n/a>";
  }
  switch (*reason) {
    case ImportDisableReason::InternalError:
      return "InternalError";
    case ImportDisableReason::ClientRequest:
      return "ClientRequest";
    case ImportDisableReason::ConnectionFailed:
      return "ConnectionFailed";
    case ImportDisableReason::NetworkError:
      return "NetworkError";
  }
  return "<inv>";
}

/// The names of the flags that have one, with commas between them.
Ref<String> flagsText(std::uint32_t flags) {
  const auto names = TVector<Ref<String>>::create();
  if ((flags & ImportFlag::DontAnnounceStorage) != 0) {
    names->append(String::create("DontAnnounceStorage", 0, -1));
  }
  if ((flags & ImportFlag::ForceReadOnly) != 0) {
    names->append(String::create("ForceReadOnly", 0, -1));
  }
  if (names->isEmpty()) {
    names->append(String::create("<not set>", 0, -1));
  }
  return StringUtil::join(names, ',');
}

/// All that is known of the imports in `ids`; those that have gone meanwhile are left out.
std::vector<ImportInfo> fetch(const Ref<Service>& service, const std::vector<ImportID>& ids) {
  std::vector<ImportInfo> imports;
  for (const ImportID id : ids) {
    if (auto info = service->importInfo(id)) {
      imports.push_back(*std::move(info));
    }
  }
  return imports;
}

void printImport(const ImportInfo& info) {
  output()
      ->printText("  ID ")
      ->printU32(static_cast<std::uint32_t>(info.id))
      ->printText(" | ")
      ->printString(info.descriptor.name)
      ->endLine();
  output()->printText("     - state: ")->printText(stateText(info.state))->endLine();
  output()->printText("     - size: ")->printU64(info.size)->endLine();
  output()->printText("     - node: ")->printString(info.node)->endLine();
  output()->printText("     - disable reason: ")->printText(reasonText(info.disableReason))->endLine();
  output()->printText("     - description: ")->printString(info.description)->endLine();
  output()->printText("     - flags: ")->printString(flagsText(info.descriptor.flags))->endLine();
}

}  // namespace

int list(Ref<Service> service, std::vector<Ref<String>> /*words*/) {
  std::vector<ImportID> ids;
  if (!service->importList(ids)) {
    Shell::printError("Failed to fetch list of imports: error 0x");
    return Shell::failed;
  }
  const auto imports = fetch(service, ids);
  output()->printText("Imports: ")->printU64(imports.size())->endLine();
  for (const ImportInfo& info : imports) {
    printImport(info);
  }
  return Shell::succeeded;
}

}  // namespace Imports
