#include "host/process.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <new>

#include "platform/process.h"

namespace {

unsigned int programExitCode = 0;

}  // namespace

namespace Proc {

void setExitCode(unsigned int code) { programExitCode = code; }

// Unlike abort(), this comes back if the signal does not end the process.
void raiseFault() noexcept { static_cast<void>(std::raise(SIGABRT)); }

}  // namespace Proc

namespace Host {

unsigned int exitCode() noexcept { return programExitCode; }

void prepareProcess() noexcept {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    // open() takes the lowest free number, which is this one, as those below it are in use.
    if (fcntl(descriptor, F_GETFD) == -1 && errno == EBADF &&
        open("/dev/null", O_RDWR | O_NOCTTY) != descriptor) {
      Proc::failFast();
    }
  }
  if (std::signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
    Proc::failFast();
  }
  std::set_new_handler([] { Proc::failFast(); });
}

}  // namespace Host
