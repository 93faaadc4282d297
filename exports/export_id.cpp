#include "exports/export_id.h"

#include "shell/handler_steps.h"

namespace Exports {

std::optional<std::uint64_t> readExportNumber(const Ref<String>& word) {
  return Shell::readNumber(word, "Invalid export ID: ");
}

}  // namespace Exports
