#include "shell/output.h"

#include <cstdint>
#include <utility>

#include "platform/error.h"
#include "shell/tear_down.h"

namespace Shell {

namespace {

constinit Ref<CharPrinter> programOutput;

}  // namespace

const Ref<CharPrinter>& output() { return programOutput; }

void setOutput(Ref<CharPrinter> printer) { programOutput = std::move(printer); }

void registerOutputRelease() {
  registerTearDown([] { programOutput = nullptr; });
}

void printError(const char* label) {
  const std::uint32_t code = Error::get();
  output()->printText(label)->hex()->printU32(code)->endLine();
}

}  // namespace Shell
