#include "tests/host/echo_program.h"

#include <string>

#include "host/console.h"
#include "host/process.h"
#include "platform/commandline.h"

namespace Support {

int echoProgram() {
  namespace Commandline = Libraries::Commandline;
  Host::prepareProcess();
  if (!Commandline::initCommandline(0, nullptr, nullptr, nullptr, nullptr, nullptr)) {
    return 1;
  }
  const auto out = Commandline::outPrinter();
  while (true) {
    out->printText(" > ");
    const auto line = Commandline::readLine(nullptr, Commandline::display(), Commandline::keyInput());
    if (!line) {
      break;
    }
    out->endLine();
    if (line->equals("open")) {
      out->printText("left open");
    } else if (line->equals("wait")) {
      out->printText("before... ");
      Host::flushOutput();
      out->printText("after")->endLine();
    } else if (line->equals("part")) {
      out->printText("part");
      Host::flushOutput();
    } else if (line->equals("wide")) {
      out->printText(std::string(1100, 'x').c_str());
    } else if (line->equals("tabs")) {
      out->printText("a\tb");
    } else if (line->equals("quiet")) {
    } else if (line->equals("fail")) {
      return 7;
    } else if (line->equals("long")) {
      for (std::uint32_t i = 0; i < 100000; ++i) {
        out->printU32(i)->endLine();
      }
    } else {
      out->printText("<")->printString(line)->printText(">")->endLine();
    }
  }
  out->printText("Bye!")->endLine();
  Host::flushOutput();
  return 0;
}

}  // namespace Support
