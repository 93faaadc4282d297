#include "imports/import_id.h"

#include "shell/handler_steps.h"
#include "shell/output.h"

namespace Imports {

using Services::NBD::Client::Types::ImportID;

std::optional<ImportID> announceImport(const char* action, const Ref<String>& word) {
  const auto number = Shell::readNumber(word, "Invalid import ID: ");
  if (!number) {
    return std::nullopt;
  }
  Shell::output()->printText(action)->printU64(*number)->printText("... ");
  return static_cast<ImportID>(static_cast<std::uint32_t>(*number));
}

}  // namespace Imports
