#include "host/service_interruption.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "platform/binary.h"

namespace Host {

namespace {

sigset_t interruptSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  return signals;
}

}  // namespace

Interruption::Interruption() {
  if (Binary::argCount() > 1 || ::isatty(STDIN_FILENO) != 1) return;
  const sigset_t signals = interruptSignal();
  signals_ = Control::Descriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

Interruption::Wait::Wait(const Interruption& interruption) : interruption_(interruption) {
  if (!interruption_.signals_) return;
  const sigset_t signals = interruptSignal();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

Interruption::Wait::~Wait() {
  if (!interruption_.signals_) return;
  signalfd_siginfo taken;
  while (::read(interruption_.signals_.number(), &taken, sizeof taken) > 0) {
  }
  const sigset_t signals = interruptSignal();
  ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace Host
