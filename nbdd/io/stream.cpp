#include "nbdd/io/stream.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <limits>
#include <utility>

namespace Nbdd::Io {

namespace {

constexpr std::uint32_t watchedEvents = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;

}  // namespace

Stream::Stream(EventLoop& loop, FileDescriptor socket) : loop_(loop), socket_(std::move(socket)) {
  failure_ = loop_.watch(socket_.number(), watchedEvents, *this);
}

Stream::~Stream() {
  if (reader_ || writer_) {
    std::terminate();
  }
  loop_.unwatch(socket_.number(), *this);
}

namespace {

// What a layer may hold of a message that has not arrived whole, and what it adds to one: a threshold that
// left no room for that would wait for bytes that never come.
constexpr std::size_t layerSlack = std::size_t{40} * 1024;

}  // namespace

ssize_t Stream::receive(std::span<std::byte> buffer) {
  if (layer_ == nullptr) [[likely]] {
    return receiveFromSocket(buffer);
  }
  const ssize_t count = layer_->receive(buffer);
  readable_ = readable_ || layer_->holdsInput();
  return count;
}

ssize_t Stream::receiveFromSocket(std::span<std::byte> buffer) {
  if (failure_ != 0) {
    return -failure_;
  }
  ssize_t count = 0;
  do {
    count = ::recv(socket_.number(), buffer.data(), buffer.size(), 0);
  } while (count < 0 && errno == EINTR);
  if (count < 0) {
    readable_ = readable_ && errno != EAGAIN;
    return -errno;
  }
  // What arrives after a short read raises a new event. Only the peer's end may already stand behind the
  // bytes just taken, and its event came with theirs.
  readable_ = static_cast<std::size_t>(count) == buffer.size() || peerEnded_;
  return count;
}

void Stream::setReceiveThreshold(std::size_t bytes) {
  if (layer_ != nullptr) {
    bytes = bytes > layerSlack ? bytes - layerSlack : 1;
  }
  if (bytes == receiveThreshold_) {
    return;
  }
  const auto lowWater = static_cast<int>(std::min<std::size_t>(bytes, std::numeric_limits<int>::max()));
  // Where it is refused, waits end with the first byte, as they always may.
  if (::setsockopt(socket_.number(), SOL_SOCKET, SO_RCVLOWAT, &lowWater, sizeof lowWater) == 0) {
    receiveThreshold_ = bytes;
  }
}

std::size_t Stream::available() const {
  int count = 0;
  return ::ioctl(socket_.number(), FIONREAD, &count) == 0 ? static_cast<std::size_t>(std::max(count, 0)) : 0;
}

std::size_t Stream::unsent() const {
  int count = 0;
  return ::ioctl(socket_.number(), SIOCOUTQNSD, &count) == 0 ? static_cast<std::size_t>(std::max(count, 0))
                                                             : 0;
}

ssize_t Stream::send(std::span<const std::byte> bytes, bool more) {
  if (layer_ == nullptr) [[likely]] {
    return sendToSocket(bytes, more);
  }
  // The layer only reads it.
  const iovec piece{.iov_base = const_cast<std::byte*>(bytes.data()), .iov_len = bytes.size()};
  return layer_->send({&piece, 1}, more);
}

ssize_t Stream::sendToSocket(std::span<const std::byte> bytes, bool more) {
  if (failure_ != 0) {
    return -failure_;
  }
  ssize_t count = 0;
  do {
    count = ::send(socket_.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL | (more ? MSG_MORE : 0));
  } while (count < 0 && errno == EINTR);
  if (count < 0) {
    writable_ = writable_ && errno != EAGAIN;
    return -errno;
  }
  return count;
}

ssize_t Stream::send(std::span<const iovec> pieces, bool more) {
  if (layer_ != nullptr) {
    return layer_->send(pieces, more);
  }
  if (failure_ != 0) {
    return -failure_;
  }
  msghdr message{};
  message.msg_iov = const_cast<iovec*>(pieces.data());
  message.msg_iovlen = pieces.size();
  ssize_t count = 0;
  do {
    count = ::sendmsg(socket_.number(), &message, MSG_NOSIGNAL | (more ? MSG_MORE : 0));
  } while (count < 0 && errno == EINTR);
  if (count < 0) {
    writable_ = writable_ && errno != EAGAIN;
    return -errno;
  }
  return count;
}

ssize_t Stream::sendFile(int file, std::uint64_t offset, std::size_t length) {
  if (layer_ != nullptr) {
    return layer_->sendFile(file, offset, length);
  }
  if (failure_ != 0) {
    return -failure_;
  }
  auto position = static_cast<off_t>(offset);
  ssize_t count = 0;
  do {
    count = ::sendfile(socket_.number(), file, &position, length);
  } while (count < 0 && errno == EINTR);
  if (count < 0) {
    writable_ = writable_ && errno != EAGAIN;
    return -errno;
  }
  return count;
}

void Stream::rest() {
  if (resting_ || reader_ || writer_ || failure_ != 0) {
    return;
  }
  resting_ = loop_.change(socket_.number(), EPOLLET, *this) == 0;
}

/// The kernel tells at once what has happened meanwhile.
void Stream::endRest() {
  resting_ = false;
  failure_ = loop_.change(socket_.number(), watchedEvents, *this);
  if (failure_ != 0) {
    readable_ = writable_ = true;  // whoever tries hears of it
  }
}

bool Stream::Waiting::await_ready() const noexcept {
  if (stream_.resting_) [[unlikely]] {
    stream_.endRest();
  }
  return forReading_ ? stream_.readable_ || stream_.readingInterrupted_ : stream_.writable_;
}

void Stream::Waiting::await_suspend(std::coroutine_handle<> waiter) noexcept {
  (forReading_ ? stream_.reader_ : stream_.writer_) = waiter;
}

Stream::Wake Stream::Waiting::await_resume() const noexcept {
  return forReading_ && stream_.readingInterrupted_ ? Wake::interrupted : Wake::ready;
}

void Stream::interruptReading() {
  readingInterrupted_ = true;
  if (reader_) {
    std::exchange(reader_, {}).resume();
  }
}

void Stream::endSending() {
  if (layer_ != nullptr) {
    layer_->endSending();
    if (!layer_->flushed()) {
      return;  // the layer ends the socket's side behind its last word
    }
  }
  ::shutdown(socket_.number(), SHUT_WR);
}

void Stream::shutDown() { ::shutdown(socket_.number(), SHUT_RDWR); }

void Stream::onEvents(std::uint32_t events) {
  constexpr std::uint32_t ended = EPOLLERR | EPOLLHUP;
  std::coroutine_handle<> reader;
  std::coroutine_handle<> writer;
  if ((events & (EPOLLIN | EPOLLRDHUP | ended)) != 0) {
    readable_ = true;
    peerEnded_ = peerEnded_ || (events & (EPOLLRDHUP | ended)) != 0;
    reader = std::exchange(reader_, {});
  }
  if ((events & (EPOLLOUT | ended)) != 0) {
    writable_ = true;
    if (layer_ != nullptr) {
      layer_->flush();
    }
    writer = std::exchange(writer_, {});
  }
  if (writer) {
    writer.resume();
  }
  if (reader) {
    reader.resume();
  }
}

}  // namespace Nbdd::Io
