#include "exports/export_id.h"

#include "platform/string_conversion.h"
#include "shell/output.h"

namespace Exports {

std::optional<std::uint64_t> readExportNumber(const Ref<String>& word) {
  std::uint64_t number = 0;
  if (!StrConv::num(word, &number, nullptr)) {
    Shell::output()->printText("Invalid export ID: ")->printString(word)->endLine();
    return std::nullopt;
  }
  return number;
}

}  // namespace Exports
