#include "shell/not_available.h"

#include "shell/command_table.h"
#include "shell/output.h"

namespace Shell {

int notAvailable(Ref<Services::NBD::Client::Service> /*service*/, std::vector<Ref<String>> /*words*/) {
  output()->printText("This command is not available in this version.")->endLine();
  return failed;
}

}  // namespace Shell
