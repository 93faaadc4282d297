// The program from start to end: start-up, the command loop, and tear-down.

#include "platform/program.h"

#include <utility>
#include <vector>

#include "platform/binary.h"
#include "platform/commandline.h"
#include "platform/nbd_service.h"
#include "platform/process.h"
#include "platform/string_util.h"
#include "shell/command_table.h"
#include "shell/output.h"
#include "shell/tear_down.h"

namespace Shell {

namespace {

using Services::NBD::Client::Service;

constexpr unsigned int exitSuccess = 0;
constexpr unsigned int exitNoConsole = 0x8443;
constexpr unsigned int exitNoService = 0xFFFFFFFF;

/// How long the service may take to be reached.
constexpr unsigned int serviceTimeoutMilliseconds = 1000;

enum class Next { goOn, leave };

Ref<TVector<Ref<String>>> splitLine(const Ref<String>& line) {
  constexpr std::uint64_t anyNumber = 0;
  constexpr bool skipEmpty = true;
  return StringUtil::split(line, ' ', anyNumber, skipEmpty, '\\', '"');
}

/// Runs the command that `line` spells, if it spells one.
Next dispatch(const Ref<Service>& service, const Ref<String>& line) {
  const auto words = splitLine(line);
  if (!words || words->isEmpty()) {
    return Next::goOn;
  }
  const auto command = StringUtil::trim(words->at(0)->toString());
  if (command->isEmpty()) {
    return Next::goOn;
  }
  const CommandEntry* const entry = findCommand(command);
  if (entry == nullptr) {
    output()->printText("Unknown command: ")->printString(command)->endLine();
    return Next::goOn;
  }
  if (entry->handler == nullptr) {
    return Next::leave;
  }
  entry->handler(service, std::vector<Ref<String>>(words->begin() + 1, words->end()));
  return Next::goOn;
}

void sayGoodbye() { Libraries::Commandline::outPrinter()->printText("Bye!")->endLine(); }

/// The program's own arguments as one line. They fall apart into words again where they hold blanks.
Ref<String> joinArguments() {
  const auto arguments = TVector<Ref<String>>::create();
  for (std::uint32_t i = 1; i < Binary::argCount(); ++i) {
    arguments->append(Binary::arg(i));
  }
  return StringUtil::join(arguments, ' ');
}

Ref<String> readLine() {
  namespace Commandline = Libraries::Commandline;
  Commandline::outPrinter()->printText(" > ");
  const auto line = Commandline::readLine(nullptr, Commandline::display(), Commandline::keyInput());
  if (line) {
    output()->endLine();
  }
  return line;
}

void runInteractively(const Ref<Service>& service) {
  while (const auto line = readLine()) {
    if (dispatch(service, line) == Next::leave) {
      break;
    }
  }
  sayGoodbye();
}

/// The whole run; returns the exit code when everything it held has been released.
unsigned int run() {
  if (!Libraries::Commandline::initCommandline(0, nullptr, nullptr, nullptr, nullptr, nullptr)) {
    return exitNoConsole;
  }
  setOutput(Libraries::Commandline::outPrinter());

  const auto service = Service::create(serviceTimeoutMilliseconds);
  if (!service) {
    printError("Service not available: 0x");
    return exitNoService;
  }
  if (Binary::argCount() <= 1) {
    runInteractively(service);
  } else if (dispatch(service, joinArguments()) == Next::leave) {
    sayGoodbye();
  }
  return exitSuccess;
}

void start() {
  registerOutputRelease();
  buildCommandTable();
  Proc::setExitCode(run());
}

}  // namespace

}  // namespace Shell

int programEntry(unsigned int reason) {
  if (reason == reasonStart) {
    Shell::start();
  } else if (reason == reasonTearDown) {
    Shell::runTearDown();
  }
  return 0;
}
