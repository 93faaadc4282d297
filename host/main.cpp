#include <cstddef>
#include <span>

#include "host/binary.h"
#include "host/console.h"
#include "host/process.h"
#include "host/usage.h"
#include "platform/commandline.h"
#include "platform/program.h"

/// Runs the program as a Linux process: prepares the process, answers the options that are the host's, and
/// otherwise starts the program and tears it down again.
int main(int argc, char** argv) {
  const std::span<char*> arguments(argv, static_cast<std::size_t>(argc));
  Host::prepareProcess();
  if (const auto answer = Host::answerOption(arguments)) {
    Libraries::Commandline::outPrinter()->printText(answer->c_str());
    Host::flushOutput();
    return 0;
  }
  Host::setArguments(arguments);
  programEntry(reasonStart);
  programEntry(reasonTearDown);
  Host::flushOutput();
  return static_cast<int>(Host::exitCode());
}
