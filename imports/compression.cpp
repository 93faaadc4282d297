#include "imports/compression.h"

#include "shell/command_table.h"
#include "shell/handler_steps.h"
#include "shell/output.h"

namespace Imports {

using Shell::output;

int compression(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words) {
  if (words.size() != 1) {
    return Shell::refuseWordsInOpenLine("invalid arguments");
  }
  const auto number = Shell::readNumber(words[0], "Invalid argument: ");
  if (!number) {
    return Shell::failed;
  }
  const bool enable = *number != 0;
  output()
      ->printText("Setting import data transfer compression to ")
      ->printText(enable ? "on" : "off")
      ->printText("... ");
  return Shell::endProgress(service->importEnableTransferCompression(enable));
}

}  // namespace Imports
