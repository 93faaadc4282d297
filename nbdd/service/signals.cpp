#include "nbdd/service/signals.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

namespace Nbdd {

Signals::Signals(Io::EventLoop& loop, std::function<void(int)> handle)
    : loop_(loop), handle_(std::move(handle)) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, signal);
  if (const int error = ::pthread_sigmask(SIG_BLOCK, &set, nullptr); error != 0) {
    throw std::system_error(error, std::generic_category(), "signals cannot be blocked");
  }
  descriptor_ = Io::FileDescriptor(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
  const int error = descriptor_ ? loop_.watch(descriptor_.number(), EPOLLIN, *this) : errno;
  if (error != 0) throw std::system_error(error, std::generic_category(), "signals cannot be received");
}

Signals::~Signals() { loop_.unwatch(descriptor_.number(), *this); }

void Signals::onEvents(std::uint32_t /*events*/) {
  signalfd_siginfo info{};
  while (::read(descriptor_.number(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    handle_(static_cast<int>(info.ssi_signo));
  }
}

}  // namespace Nbdd
