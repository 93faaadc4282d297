#include "tests/simulation/world/guard.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "tests/simulation/world/world.h"

namespace Simulation {

namespace {

// Only what is safe in a handler of signals: no allocation.
void say(const char* format, unsigned long long number) {
  std::array<char, 200> text{};
  const int length = std::snprintf(text.data(), text.size(), format, number);
  if (::write(STDERR_FILENO, text.data(), static_cast<std::size_t>(length)) < 0) {
    std::abort();
  }
}

void onForeignSystemCall(int /*signal*/, siginfo_t* info, void* /*context*/) {
  say("simulation: system call %llu reached the kernel with a simulated descriptor; simulate it in "
      "tests/simulation/world/system_calls.cpp\n",
      static_cast<unsigned long long>(info->si_syscall));
  std::abort();
}

void onCrash(int signal) {
  if (const World* const world = World::current()) {
    say("simulation: the crash came with seed %llu\n", world->seed());
  }
  ::signal(signal, SIG_DFL);
  ::raise(signal);
}

constexpr unsigned int low = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 0 : 4;

}  // namespace

bool guardSystemCalls() {
  struct sigaction action{};
  action.sa_sigaction = &onForeignSystemCall;
  action.sa_flags = SA_SIGINFO;
  ::sigaction(SIGSYS, &action, nullptr);
  constexpr auto argument = static_cast<unsigned int>(offsetof(seccomp_data, args));
  // Is the first argument 0x5a5a....? Descriptors of our world are, and addresses have more digits.
  std::array<sock_filter, 7> program{{
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument + 4 - low),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 4),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument + low),
      BPF_STMT(BPF_ALU | BPF_RSH | BPF_K, 16),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0x5a5a, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  }};
  const sock_fprog filter{.len = program.size(), .filter = program.data()};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

void stayOnOneProcessor() {
  static const cpu_set_t allowed = [] {
    cpu_set_t set;
    CPU_ZERO(&set);
    ::sched_getaffinity(0, sizeof set, &set);
    return set;
  }();
  // A moment without a choice of ours, for the kernel to make its own.
  ::sched_setaffinity(0, sizeof allowed, &allowed);
  ::sched_yield();
  cpu_set_t here;
  CPU_ZERO(&here);
  CPU_SET(static_cast<std::size_t>(::sched_getcpu()), &here);
  ::sched_setaffinity(0, sizeof here, &here);
}

void reportCrashes() {
  for (const int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
    ::signal(signal, &onCrash);
  }
}

}  // namespace Simulation
