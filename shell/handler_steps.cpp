#include "shell/handler_steps.h"

#include "platform/string_conversion.h"
#include "shell/command_table.h"
#include "shell/output.h"

namespace Shell {

std::optional<std::uint64_t> readNumber(const Ref<String>& word, const char* complaint) {
  std::uint64_t number = 0;
  if (!StrConv::num(word, &number, nullptr)) {
    output()->printText(complaint)->printString(word)->endLine();
    return std::nullopt;
  }
  return number;
}

int refuseWords(const char* complaint) {
  output()->printText(complaint)->endLine();
  return failed;
}

int refuseWordsInOpenLine(const char* complaint) {
  output()->printText(complaint);
  return failed;
}

int endProgress(bool success) {
  if (!success) {
    printError("error 0x");
    return failed;
  }
  output()->printText("OK!")->endLine();
  return succeeded;
}

}  // namespace Shell
