// The way from the server's system calls into the world: the test programs are linked with --wrap for each
// function here (CMakeLists.txt), so that a reference to `recv` leads to `__wrap_recv`, and `__real_recv` is
// the C library's. Without a world, and for descriptors that are not simulated, everything is as it was.
//
// A call that the data path has newly begun to make is added in three places: below, in the list of
// CMakeLists.txt, and where the world answers it.

#include <linux/fs.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tests/simulation/world/disk.h"
#include "tests/simulation/world/network.h"
#include "tests/simulation/world/socket.h"
#include "tests/simulation/world/world.h"

namespace {

using Simulation::Epoll;
using Simulation::EventCounter;
using Simulation::File;
using Simulation::Socket;
using Simulation::World;

/// The simulated object of kind T behind `descriptor`, or null.
template <class T>
T* simulated(int descriptor) {
  if (!World::isSimulated(descriptor)) {
    return nullptr;
  }
  World* const world = World::current();
  return world == nullptr ? nullptr : world->find<T>(descriptor);
}

/// What a system call returns for a result that may be a negative errno.
template <class T>
T answer(T result) {
  if (result < 0) {
    errno = static_cast<int>(-result);
    return -1;
  }
  return result;
}

bool isInterrupted() {
  World& world = *World::current();
  return world.random().chance(world.faults().interrupted);
}

[[noreturn]] void refuse(const char* call) {
  World::current()->impossible(std::string(call) + " with arguments that it has not met");
}

ssize_t sendPieces(Socket& socket, std::span<const iovec> pieces) {
  if (isInterrupted()) {
    return -EINTR;
  }
  const ssize_t room = socket.room();
  if (room <= 0) {
    return room == 0 ? -EAGAIN : room;
  }
  std::size_t left = static_cast<std::size_t>(room);
  for (const iovec& piece : pieces) {
    const std::size_t count = std::min(left, piece.iov_len);
    socket.send(std::span(static_cast<const std::byte*>(piece.iov_base), count));
    left -= count;
  }
  return room - static_cast<ssize_t>(left);
}

ssize_t sendFromFile(Socket& socket, File& file, off_t* position, std::size_t length) {
  if (isInterrupted()) {
    return -EINTR;
  }
  const ssize_t room = socket.room();
  if (room <= 0) {
    return room == 0 ? -EAGAIN : room;
  }
  // A pipe is between the two in the kernel, of 64 KiB.
  std::vector<std::byte> bytes(std::min({length, static_cast<std::size_t>(room), std::size_t{65'536}}));
  const ssize_t count = file.disk.read(bytes, static_cast<std::uint64_t>(*position));
  if (count > 0) {
    socket.send(std::span(bytes).first(static_cast<std::size_t>(count)));
    *position += count;
  } else if (count == -EIO) {
    socket.breakOff();
  }
  return count;
}

long cacheState(File& file, const void* range, void* state) {
  std::array<std::uint64_t, 2> asked{};
  std::array<std::uint64_t, 5> counted{};
  std::memcpy(asked.data(), range, sizeof asked);
  if (file.disk.isCached()) {
    const auto page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
    counted[0] = (asked[0] + asked[1] + page - 1) / page - asked[0] / page;
  }
  std::memcpy(state, counted.data(), sizeof counted);
  return 0;
}

}  // namespace

extern "C" {

// --- Descriptors and waiting

int __real_close(int descriptor);
int __wrap_close(int descriptor) {
  if (World::isSimulated(descriptor) && World::current() != nullptr) {
    return World::current()->close(descriptor);
  }
  return __real_close(descriptor);
}

int __real_epoll_create1(int flags);
int __wrap_epoll_create1(int flags) {
  return World::current() != nullptr ? World::current()->addEpoll() : __real_epoll_create1(flags);
}

int __real_epoll_ctl(int epoll, int operation, int descriptor, epoll_event* event);
int __wrap_epoll_ctl(int epoll, int operation, int descriptor, epoll_event* event) {
  if (Epoll* const found = simulated<Epoll>(epoll)) {
    return answer(found->control(operation, descriptor, event));
  }
  return __real_epoll_ctl(epoll, operation, descriptor, event);
}

int __real_epoll_pwait2(int epoll, epoll_event* events, int most, const timespec* limit,
                        const sigset_t* mask);
int __wrap_epoll_pwait2(int epoll, epoll_event* events, int most, const timespec* limit,
                        const sigset_t* mask) {
  if (Epoll* const found = simulated<Epoll>(epoll)) {
    if (mask != nullptr) {
      refuse("epoll_pwait2");
    }
    std::optional<Simulation::Nanoseconds> span;
    if (limit != nullptr) {
      span = Simulation::Nanoseconds{limit->tv_sec} * 1'000'000'000 + limit->tv_nsec;
    }
    return answer(found->wait(std::span(events, static_cast<std::size_t>(most)), span));
  }
  return __real_epoll_pwait2(epoll, events, most, limit, mask);
}

int __real_epoll_wait(int epoll, epoll_event* events, int most, int timeout);
int __wrap_epoll_wait(int epoll, epoll_event* events, int most, int timeout) {
  if (Epoll* const found = simulated<Epoll>(epoll)) {
    if (timeout != 0) {
      refuse("epoll_wait");
    }
    return found->look(std::span(events, static_cast<std::size_t>(most)));
  }
  return __real_epoll_wait(epoll, events, most, timeout);
}

int __real_eventfd(unsigned int count, int flags);
int __wrap_eventfd(unsigned int count, int flags) {
  return World::current() != nullptr ? World::current()->add(std::make_shared<EventCounter>())
                                     : __real_eventfd(count, flags);
}

int __real_eventfd_write(int descriptor, eventfd_t value);
int __wrap_eventfd_write(int descriptor, eventfd_t value) {
  if (EventCounter* const found = simulated<EventCounter>(descriptor)) {
    found->add(value);
    return 0;
  }
  return __real_eventfd_write(descriptor, value);
}

// --- Sockets

ssize_t __real_recv(int socket, void* buffer, std::size_t length, int flags);
ssize_t __wrap_recv(int socket, void* buffer, std::size_t length, int flags) {
  if (Socket* const found = simulated<Socket>(socket)) {
    if ((flags & ~MSG_DONTWAIT) != 0 || length == 0) {
      refuse("recv");
    }
    if (isInterrupted()) {
      return answer<ssize_t>(-EINTR);
    }
    return answer(found->receive(std::span(static_cast<std::byte*>(buffer), length)));
  }
  return __real_recv(socket, buffer, length, flags);
}

ssize_t __real_send(int socket, const void* bytes, std::size_t length, int flags);
ssize_t __wrap_send(int socket, const void* bytes, std::size_t length, int flags) {
  if (Socket* const found = simulated<Socket>(socket)) {
    if ((flags & ~(MSG_NOSIGNAL | MSG_MORE | MSG_DONTWAIT)) != 0 || (flags & MSG_NOSIGNAL) == 0) {
      refuse("send");
    }
    const iovec piece{.iov_base = const_cast<void*>(bytes), .iov_len = length};
    return answer(sendPieces(*found, std::span(&piece, 1)));
  }
  return __real_send(socket, bytes, length, flags);
}

ssize_t __real_sendmsg(int socket, const msghdr* message, int flags);
ssize_t __wrap_sendmsg(int socket, const msghdr* message, int flags) {
  if (Socket* const found = simulated<Socket>(socket)) {
    if ((flags & ~(MSG_NOSIGNAL | MSG_MORE | MSG_DONTWAIT)) != 0 || (flags & MSG_NOSIGNAL) == 0 ||
        message->msg_controllen != 0) {
      refuse("sendmsg");
    }
    return answer(sendPieces(*found, std::span(message->msg_iov, message->msg_iovlen)));
  }
  return __real_sendmsg(socket, message, flags);
}

ssize_t __real_sendfile64(int socket, int file, off_t* position, std::size_t length);
ssize_t __wrap_sendfile64(int socket, int file, off_t* position, std::size_t length) {
  if (Socket* const found = simulated<Socket>(socket)) {
    File* const source = simulated<File>(file);
    if (source == nullptr || position == nullptr) {
      refuse("sendfile");
    }
    return answer(sendFromFile(*found, *source, position, length));
  }
  return __real_sendfile64(socket, file, position, length);
}

int __real_shutdown(int socket, int how);
int __wrap_shutdown(int socket, int how) {
  if (Socket* const found = simulated<Socket>(socket)) {
    return answer(found->shutDown(how));
  }
  return __real_shutdown(socket, how);
}

int __real_setsockopt(int socket, int level, int option, const void* value, socklen_t length);
int __wrap_setsockopt(int socket, int level, int option, const void* value, socklen_t length) {
  if (Socket* const found = simulated<Socket>(socket)) {
    // How patient the kernel is with a silent path, the scheduler decides.
    if (level == IPPROTO_TCP || (level == SOL_SOCKET && option == SO_KEEPALIVE)) {
      return 0;
    }
    if (level != SOL_SOCKET || option != SO_RCVLOWAT || length != sizeof(int)) {
      refuse("setsockopt");
    }
    found->setLowWater(*static_cast<const int*>(value));
    return 0;
  }
  return __real_setsockopt(socket, level, option, value, length);
}

int __real_getsockopt(int socket, int level, int option, void* value, socklen_t* length);
int __wrap_getsockopt(int socket, int level, int option, void* value, socklen_t* length) {
  if (Socket* const found = simulated<Socket>(socket)) {
    if (level != SOL_SOCKET || option != SO_ERROR || *length != sizeof(int)) {
      refuse("getsockopt");
    }
    *static_cast<int*>(value) = found->takeError();
    return 0;
  }
  return __real_getsockopt(socket, level, option, value, length);
}

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol) {
  World* const world = World::current();
  const bool isTcp = (domain == AF_INET || domain == AF_INET6) && (type & SOCK_STREAM) != 0;
  if (world == nullptr || world->network() == nullptr || !isTcp) {
    return __real_socket(domain, type, protocol);
  }
  return world->add(world->network()->open());
}

int __real_connect(int socket, const sockaddr* address, socklen_t length);
int __wrap_connect(int socket, const sockaddr* address, socklen_t length) {
  if (Socket* const found = simulated<Socket>(socket)) {
    found->beginConnecting();
    World::current()->network()->connect(*found);
    return answer(-EINPROGRESS);
  }
  return __real_connect(socket, address, length);
}

// --- Files

// They cannot be mapped, so the server takes the way of system calls.
void* __real_mmap64(void* place, std::size_t length, int protection, int flags, int file, off_t offset);
void* __wrap_mmap64(void* place, std::size_t length, int protection, int flags, int file, off_t offset) {
  if (simulated<File>(file) != nullptr) {
    errno = ENODEV;
    return MAP_FAILED;
  }
  return __real_mmap64(place, length, protection, flags, file, offset);
}

ssize_t __real_pread64(int file, void* buffer, std::size_t length, off_t offset);
ssize_t __wrap_pread64(int file, void* buffer, std::size_t length, off_t offset) {
  if (File* const found = simulated<File>(file)) {
    return answer(found->disk.read(std::span(static_cast<std::byte*>(buffer), length),
                                   static_cast<std::uint64_t>(offset)));
  }
  return __real_pread64(file, buffer, length, offset);
}

ssize_t __real_preadv64v2(int file, const iovec* pieces, int count, off_t offset, int flags);
ssize_t __wrap_preadv64v2(int file, const iovec* pieces, int count, off_t offset, int flags) {
  if (File* const found = simulated<File>(file)) {
    if (count != 1 || (flags & ~RWF_NOWAIT) != 0) {
      refuse("preadv2");
    }
    const std::span buffer(static_cast<std::byte*>(pieces->iov_base), pieces->iov_len);
    const auto position = static_cast<std::uint64_t>(offset);
    return answer(flags != 0 ? found->disk.readCached(buffer, position) : found->disk.read(buffer, position));
  }
  return __real_preadv64v2(file, pieces, count, offset, flags);
}

ssize_t __real_pwrite64(int file, const void* bytes, std::size_t length, off_t offset);
ssize_t __wrap_pwrite64(int file, const void* bytes, std::size_t length, off_t offset) {
  if (File* const found = simulated<File>(file)) {
    return answer(found->disk.write(std::span(static_cast<const std::byte*>(bytes), length),
                                    static_cast<std::uint64_t>(offset)));
  }
  return __real_pwrite64(file, bytes, length, offset);
}

int __real_fdatasync(int file);
int __wrap_fdatasync(int file) {
  if (File* const found = simulated<File>(file)) {
    return answer(found->disk.endSync(found->disk.beginSync()));
  }
  return __real_fdatasync(file);
}

int __real_fallocate64(int file, int mode, off_t offset, off_t length);
int __wrap_fallocate64(int file, int mode, off_t offset, off_t length) {
  if (File* const found = simulated<File>(file)) {
    return answer(
        found->disk.allocate(mode, static_cast<std::uint64_t>(offset), static_cast<std::uint64_t>(length)));
  }
  return __real_fallocate64(file, mode, offset, length);
}

int __real_posix_fadvise64(int file, off_t offset, off_t length, int advice);
int __wrap_posix_fadvise64(int file, off_t offset, off_t length, int advice) {
  return simulated<File>(file) != nullptr ? 0 : __real_posix_fadvise64(file, offset, length, advice);
}

off_t __real_lseek64(int file, off_t offset, int whence);
off_t __wrap_lseek64(int file, off_t offset, int whence) {
  if (const File* const found = simulated<File>(file)) {
    return answer(found->disk.seek(static_cast<std::uint64_t>(offset), whence));
  }
  return __real_lseek64(file, offset, whence);
}

int __real_fstat64(int file, struct stat* status);
int __wrap_fstat64(int file, struct stat* status) {
  if (const File* const found = simulated<File>(file)) {
    *status = {};
    status->st_mode = S_IFREG;
    status->st_size = static_cast<off_t>(found->disk.size());
    status->st_blocks = static_cast<blkcnt_t>(found->disk.allocatedBytes() / 512);
    return 0;
  }
  return __real_fstat64(file, status);
}

int __real_ioctl(int file, unsigned long request, void* argument);
int __wrap_ioctl(int file, unsigned long request, ...) {
  std::va_list rest;
  va_start(rest, request);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  if (const auto* const socket = dynamic_cast<Socket*>(simulated<Simulation::Descriptor>(file))) {
    if (request != FIONREAD) {
      refuse("ioctl");
    }
    *static_cast<int*>(argument) = static_cast<int>(socket->received());
    return 0;
  }
  if (File* const found = simulated<File>(file)) {
    if (request != BLKDISCARD) {
      refuse("ioctl");
    }
    const auto* const range = static_cast<const std::uint64_t*>(argument);
    return answer(found->disk.discard(range[0], range[1]));
  }
  return __real_ioctl(file, request, argument);
}

long __real_syscall(long number, ...);
long __wrap_syscall(long number, ...) {
  constexpr long cachestatNumber = 451;
  std::array<long, 6> arguments{};
  std::va_list rest;
  va_start(rest, number);
  for (long& argument : arguments) {
    argument = va_arg(rest, long);
  }
  va_end(rest);
  if (File* const found =
          number == cachestatNumber ? simulated<File>(static_cast<int>(arguments[0])) : nullptr) {
    return cacheState(*found, reinterpret_cast<const void*>(arguments[1]),
                      reinterpret_cast<void*>(arguments[2]));
  }
  return __real_syscall(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                        arguments[5]);
}

}  // extern "C"
