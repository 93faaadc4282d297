#include "shell/help.h"

#include "shell/command_table.h"
#include "shell/output.h"

namespace Shell {

int help(Ref<Services::NBD::Client::Service> /*service*/, std::vector<Ref<String>> /*words*/) {
  output()->printText("Supported commands:")->endLine();
  for (const CommandEntry& entry : commandTable) {
    if (!entry.help) {
      continue;
    }
    output()->printText("    ")->printString(entry.name);
    if (entry.synopsis) {
      output()->printText(" ")->printString(entry.synopsis);
    }
    output()->printText("\n\t")->printString(entry.help)->endLine()->endLine();
  }
  return succeeded;
}

}  // namespace Shell
