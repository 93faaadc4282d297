// The commands that change exports. Each checks its words, prints what it is about to do, makes one call, and
// ends the same line with the outcome.

#include "exports/export_commands.h"

#include <optional>
#include <string_view>

#include "exports/export_id.h"
#include "platform/filesystem.h"
#include "shell/command_table.h"
#include "shell/handler_steps.h"
#include "shell/output.h"

namespace Exports {

namespace {

using namespace Services::NBD::Client::Types;
using Services::NBD::Client::Service;
using Shell::output;

/// Reads the number in `word` and opens the progress line with it; nothing, and an answer printed, if it is
/// none.
std::optional<ExportID> announce(const char* action, const Ref<String>& word) {
  const auto number = readExportNumber(word);
  if (!number) {
    return std::nullopt;
  }
  output()->printText(action)->printU64(*number)->printText("... ");
  return exportID(*number);
}

}  // namespace

int add(Ref<Service> service, std::vector<Ref<String>> words) {
  if (words.empty() || words.size() > 2) {
    return Shell::refuseWords("invalid arguments");
  }
  const bool readOnly = words.size() == 2;
  if (readOnly && !words[1]->equals("ro") && !words[1]->equals("read-only")) {
    output()->printText("unrecognied argument: ")->printString(words[1])->endLine();
    return Shell::failed;
  }
  ExportDescriptor descriptor;
  descriptor.node = Services::Filesystem::Client::Service::absolute(words[0], nullptr);
  if (readOnly) {
    descriptor.flags |= ExportFlag::ReadOnly;
  }
  output()->printText("Adding '")->printString(descriptor.node)->printText("' as export...");
  const auto id = service->exportAdd(descriptor);
  if (!id) {
    return Shell::endProgress(false);
  }
  output()->printText("OK! Export ID: ")->printU32(static_cast<std::uint32_t>(*id))->endLine();
  return Shell::succeeded;
}

int enable(Ref<Service> service, std::vector<Ref<String>> words) {
  if (words.size() != 1) {
    return Shell::refuseWordsInOpenLine("invalid arguments");
  }
  const auto id = announce("Enabling export with ID ", words[0]);
  return id ? Shell::endProgress(service->exportEnable(*id)) : Shell::failed;
}

int disable(Ref<Service> service, std::vector<Ref<String>> words) {
  if (words.empty() || words.size() > 2) {
    return Shell::refuseWordsInOpenLine("invalid arguments");
  }
  const auto id = announce("Disabling export with ID ", words[0]);
  if (!id) {
    return Shell::failed;
  }
  const bool force = words.size() == 2 && words[1]->equals("force");
  return Shell::endProgress(service->exportDisable(*id, force));
}

int remove(Ref<Service> service, std::vector<Ref<String>> words) {
  if (words.size() != 1) {
    return Shell::refuseWordsInOpenLine("invalid arguments");
  }
  const auto id = announce("Removing export with ID ", words[0]);
  return id ? Shell::endProgress(service->exportRemove(*id)) : Shell::failed;
}

}  // namespace Exports
