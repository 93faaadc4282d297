#include "tests/host/child.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <utility>

namespace Support {

namespace {

/// How long anything may take before the test gives up. Far more than needed, for slow machines and
/// sanitizers.
constexpr std::chrono::milliseconds patience{20000};

/// Counts down from `patience`.
class Deadline {
 public:
  [[nodiscard]] int left() const {
    const auto passed = std::chrono::steady_clock::now() - start_;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(patience - passed);
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// In the child: runs the program and leaves at once, without what the test program does at its end.
[[noreturn]] void become(const std::function<int()>& program) {
  int code = 99;
  try {
    code = program();
  } catch (const std::exception&) {
    code = 98;
  }
  _exit(code);
}

/// What the test program itself has printed must not come out of the child a second time.
void flushOwnOutput() { std::fflush(nullptr); }

void closeDescriptor(int& descriptor) {
  if (descriptor != -1) {
    ::close(std::exchange(descriptor, -1));
  }
}

bool isReadyFor(int descriptor, short events, int timeoutMilliseconds) {
  pollfd waiting{.fd = descriptor, .events = events, .revents = 0};
  return poll(&waiting, 1, timeoutMilliseconds) > 0;
}

/// Waits for the child's end, and ends it when that takes too long.
Ended waitFor(int& pid) {
  if (pid == -1) {
    return {};
  }
  const auto handle = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (!isReadyFor(handle, POLLIN, static_cast<int>(patience.count()))) {
    ADD_FAILURE() << "the child does not end";
    kill(pid, SIGKILL);
  }
  ::close(handle);
  int status = 0;
  waitpid(std::exchange(pid, -1), &status, 0);
  if (WIFEXITED(status)) {
    return {.exitCode = WEXITSTATUS(status), .signal = 0};
  }
  return {.exitCode = -1, .signal = WTERMSIG(status)};
}

void killAndWait(int& pid) {
  if (pid != -1) {
    kill(pid, SIGKILL);
    waitpid(std::exchange(pid, -1), nullptr, 0);
  }
}

/// Appends what can be read at once; false at the end.
bool readInto(int descriptor, std::string& text) {
  std::array<char, 65536> bytes;
  const ssize_t got = read(descriptor, bytes.data(), bytes.size());
  if (got > 0) {
    text.append(bytes.data(), static_cast<std::size_t>(got));
  }
  return got > 0;
}

}  // namespace

PipedChild::PipedChild(const std::function<int()>& program) {
  std::array<int, 2> toChild{};
  std::array<int, 2> fromChild{};
  EXPECT_EQ(pipe2(toChild.data(), O_CLOEXEC), 0);
  EXPECT_EQ(pipe2(fromChild.data(), O_CLOEXEC), 0);
  flushOwnOutput();
  pid_ = fork();
  if (pid_ == 0) {
    dup2(toChild[0], STDIN_FILENO);
    dup2(fromChild[1], STDOUT_FILENO);
    for (const int end : {toChild[0], toChild[1], fromChild[0], fromChild[1]}) {
      ::close(end);
    }
    become(program);
  }
  ::close(toChild[0]);
  ::close(fromChild[1]);
  input_ = toChild[1];
  output_ = fromChild[0];
}

PipedChild::~PipedChild() {
  closeDescriptor(input_);
  closeDescriptor(output_);
  killAndWait(pid_);
}

std::string PipedChild::converse(const std::string& input) {
  EXPECT_NE(fcntl(input_, F_SETFL, O_NONBLOCK), -1);
  const Deadline deadline;
  std::string printed;
  std::size_t given = 0;
  while (true) {
    std::array<pollfd, 2> waiting{
        {{.fd = output_, .events = POLLIN, .revents = 0},
         {.fd = given < input.size() ? input_ : -1, .events = POLLOUT, .revents = 0}}};
    if (given == input.size()) {
      closeDescriptor(input_);
    }
    if (poll(waiting.data(), waiting.size(), deadline.left()) <= 0) {
      ADD_FAILURE() << "the child neither reads nor prints nor ends";
      return printed;
    }
    if (waiting[1].revents != 0) {
      const ssize_t wrote = write(input_, input.data() + given, input.size() - given);
      EXPECT_TRUE(wrote > 0 || errno == EAGAIN) << "the child reads no more";
      given += static_cast<std::size_t>(wrote > 0 ? wrote : 0);
    }
    if (waiting[0].revents != 0 && !readInto(output_, printed)) {
      return printed;
    }
  }
}

void PipedChild::give(const std::string& input) {
  EXPECT_EQ(write(input_, input.data(), input.size()), static_cast<ssize_t>(input.size()));
}

bool PipedChild::prints(const std::string& expected) {
  const Deadline deadline;
  std::string printed;
  while (printed.size() < expected.size()) {
    if (!isReadyFor(output_, POLLIN, deadline.left()) || !readInto(output_, printed)) {
      break;
    }
  }
  EXPECT_EQ(printed, expected);
  return printed == expected;
}

void PipedChild::stopReading() { closeDescriptor(output_); }

Ended PipedChild::wait() { return waitFor(pid_); }

TerminalChild::TerminalChild(const std::function<int()>& program, unsigned short columns) : screen_(columns) {
  winsize size{};
  size.ws_col = columns;
  size.ws_row = 24;
  flushOwnOutput();
  pid_ = forkpty(&terminal_, nullptr, nullptr, &size);
  if (pid_ == 0) {
    setenv("TERM", "xterm", 1);
    become(program);
  }
}

TerminalChild::~TerminalChild() {
  close();
  killAndWait(pid_);
}

void TerminalChild::type(const std::string& keys) {
  EXPECT_EQ(write(terminal_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
}

bool TerminalChild::shows(const std::vector<std::string>& lines) {
  const Deadline deadline;
  while (screen_.lines() != lines) {
    if (!readSome(deadline.left())) {
      EXPECT_EQ(screen_.lines(), lines);
      return false;
    }
  }
  return true;
}

bool TerminalChild::showsAtLast(const std::vector<std::string>& lines) {
  const Deadline deadline;
  const auto last = [&] {
    auto shown = screen_.lines();
    shown.erase(shown.begin(),
                shown.end() - static_cast<std::ptrdiff_t>(std::min(shown.size(), lines.size())));
    return shown;
  };
  while (last() != lines) {
    if (!readSome(deadline.left())) {
      EXPECT_EQ(screen_.lines(), lines);
      return false;
    }
  }
  return true;
}

void TerminalChild::close() { closeDescriptor(terminal_); }

Ended TerminalChild::wait() {
  // A terminal that nobody reads keeps the child waiting.
  while (readSome(static_cast<int>(patience.count()))) {
  }
  return waitFor(pid_);
}

bool TerminalChild::readSome(int timeoutMilliseconds) {
  std::string bytes;
  if (terminal_ == -1 || !isReadyFor(terminal_, POLLIN, timeoutMilliseconds) || !readInto(terminal_, bytes)) {
    return false;
  }
  screen_.show(bytes);
  return true;
}

}  // namespace Support
