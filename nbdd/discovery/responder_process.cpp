#include "nbdd/discovery/responder_process.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <memory>
#include <system_error>
#include <utility>

#include "nbdd/limits.h"

namespace Nbdd::Discovery {

namespace {

/// The number of the socket in the responder.
constexpr int socketNumber = 3;

using Attributes = std::unique_ptr<posix_spawnattr_t,
                                   decltype([](posix_spawnattr_t* each) { posix_spawnattr_destroy(each); })>;
using Actions = std::unique_ptr<posix_spawn_file_actions_t, decltype([](posix_spawn_file_actions_t* each) {
                                  posix_spawn_file_actions_destroy(each);
                                })>;

std::unexpected<std::string> failure(const char* what, int error) {
  return std::unexpected(fmt::format("{}: {}", what, std::generic_category().message(error)));
}

/// Starts the program with the socket alone, and without the signals that are blocked here. 0 or an errno.
int spawn(pid_t& process, const std::string& program, int socket) {
  posix_spawnattr_t attributes;
  if (const int error = posix_spawnattr_init(&attributes); error != 0) return error;
  const Attributes attributesOwner(&attributes);
  posix_spawn_file_actions_t actions;
  if (const int error = posix_spawn_file_actions_init(&actions); error != 0) return error;
  const Actions actionsOwner(&actions);

  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  posix_spawn_file_actions_adddup2(&actions, socket, socketNumber);
  posix_spawn_file_actions_addclosefrom_np(&actions, socketNumber + 1);

  std::string name = "nbdd";
  std::string option = fmt::format("--discovery-responder={}", socketNumber);
  const std::array<char*, 3> words{name.data(), option.data(), nullptr};
  return posix_spawn(&process, program.c_str(), &actions, &attributes, words.data(), environ);
}

}  // namespace

ResponderProcess::ResponderProcess(Io::EventLoop& loop, Events events)
    : loop_(loop),
      events_(std::move(events)),
      ended_([this] { reap(); }),
      readable_([this] { receive(); }),
      patience_(loop, [this] { kill(); }) {}

ResponderProcess::~ResponderProcess() {
  closeSocket();
  if (handle_) loop_.unwatch(handle_.number(), ended_);
  if (process_ > 0) {
    kill();
    while (::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
}

std::expected<void, std::string> ResponderProcess::start(const std::string& program) {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0)
    return failure("the system gives no socket", errno);
  socket_ = Io::FileDescriptor(ends[0]);
  const Io::FileDescriptor theirs(ends[1]);
  if (const int error = spawn(process_, program, theirs.number()); error != 0) {
    socket_.reset();
    process_ = -1;
    return failure("the responder cannot be started", error);
  }
  handle_ = Io::FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, process_, 0)));
  int error = handle_ ? 0 : errno;
  if (error == 0) error = loop_.watch(handle_.number(), EPOLLIN, ended_);
  if (error == 0) error = loop_.watch(socket_.number(), EPOLLIN, readable_);
  if (error != 0) return failure("the responder cannot be watched", error);
  return {};
}

void ResponderProcess::tell(const Wish& wish) {
  if (!socket_) return;
  const std::string message = encode(wish);
  if (::send(socket_.number(), message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) kill();
}

void ResponderProcess::end() {
  if (std::exchange(asked_, true)) return;
  closeSocket();
  patience_.start(Limits::discoveryGoodbye);
}

void ResponderProcess::receive() {
  std::array<char, Limits::discoveryMessage> message;
  // A bounded number a turn: nobody in the network shall keep the service from its other work.
  for (int count = 0; count < 256 && socket_; ++count) {
    const ssize_t length = ::recv(socket_.number(), message.data(), message.size(), MSG_DONTWAIT);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (length <= 0) return closeSocket();  // it has ended, or is about to
    auto report = decodeReport({message.data(), static_cast<std::size_t>(length)});
    if (!report) return kill();
    events_.report(std::move(*report));
  }
}

void ResponderProcess::reap() {
  while (::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
  }
  process_ = -1;
  loop_.unwatch(handle_.number(), ended_);
  handle_.reset();
  closeSocket();
  patience_.cancel();
  // A copy: whoever is told may destroy us.
  const std::function<void()> ended = events_.ended;
  ended();
}

void ResponderProcess::closeSocket() {
  if (!socket_) return;
  loop_.unwatch(socket_.number(), readable_);
  socket_.reset();
}

void ResponderProcess::kill() {
  if (process_ > 0) ::kill(process_, SIGKILL);
}

}  // namespace Nbdd::Discovery
