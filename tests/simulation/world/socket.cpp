#include "tests/simulation/world/socket.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace Simulation {

ssize_t Socket::receive(std::span<std::byte> buffer) {
  if (world_.bug() == Bug::noDrain && serverEnded_) {
    return 0;
  }
  if (!received_.empty()) {
    const std::size_t count = std::min(buffer.size(), received_.size());
    std::ranges::copy(received_.front(count), buffer.begin());
    received_.pop(count);
    consumed_ += count;
    return static_cast<ssize_t>(count);
  }
  if (resetDelivered_ && !resetReported_) {
    resetReported_ = true;
    return resetError();
  }
  if (endDelivered_ || resetDelivered_ || readingShut_) {
    return world_.bug() == Bug::halfWrite && endDelivered_ && !readingShut_
               ? static_cast<ssize_t>(std::exchange(readingShut_, true) ? 0 : buffer.size())
               : 0;
  }
  return -EAGAIN;
}

int Socket::resetError() const {
  return timedOut_ && world_.bug() != Bug::noSettle ? -ETIMEDOUT : -ECONNRESET;
}

/// Whether what has arrived is worth an event: the low-water mark is reached, or cannot be.
bool Socket::hasEnough() const {
  return !received_.empty() && (received_.size() >= lowWater_ || received_.size() >= receiveCapacity_);
}

void Socket::setLowWater(int bytes) {
  lowWater_ = static_cast<std::size_t>(std::max(bytes, 1));
  if (hasEnough()) {
    raise();
  }
}

ssize_t Socket::room() {
  if (serverEnded_) {
    return -EPIPE;
  }
  if (resetDelivered_) {
    return std::exchange(resetReported_, true) ? -EPIPE : resetError();
  }
  if (sent_.size() >= sendCapacity_) {
    noSpace_ = true;
    return 0;
  }
  return static_cast<ssize_t>(sendCapacity_ - sent_.size());
}

void Socket::send(std::span<const std::byte> bytes) {
  if (clientClosed_) {
    answeredClosed_ = true;
  } else {
    sent_.push(bytes);
    noSpace_ = noSpace_ || sent_.size() >= sendCapacity_;
  }
}

int Socket::shutDown(int how) {
  if (resetDelivered_) {
    return -ENOTCONN;
  }
  if (how == SHUT_WR || how == SHUT_RDWR) {
    serverEnded_ = true;
  }
  if (how == SHUT_RD || how == SHUT_RDWR) {
    readingShut_ = true;
    raise();
  }
  return 0;
}

void Socket::endConnecting(int error) {
  connecting_ = false;
  connectError_ = error;
  raise();
}

std::uint32_t Socket::readiness() const {
  if (connecting_) {
    return 0;
  }
  std::uint32_t events = 0;
  const bool noMore = endDelivered_ || readingShut_ || resetDelivered_;
  if (hasEnough() || noMore) {
    events |= EPOLLIN;
  }
  if (noMore) {
    events |= EPOLLRDHUP;
  }
  if (serverEnded_ || resetDelivered_ || sent_.size() * 3 <= sendCapacity_ * 2) {
    events |= EPOLLOUT;
  }
  if (resetDelivered_ || (noMore && serverEnded_)) {
    events |= EPOLLHUP;
  }
  if (resetDelivered_ && !resetReported_) {
    events |= EPOLLERR;
  }
  return events;
}

void Socket::closed() {
  closedByServer_ = true;
  serverEnded_ = true;
  if (!received_.empty()) {
    // Who closes with unread bytes resets the connection, and what was not read there is lost as well.
    resetByServer_ = true;
    sent_.clear();
  }
  world_.note("the server closes a connection{}", resetByServer_ ? ", which resets it" : "");
}

void Socket::push(std::span<const std::byte> bytes) {
  underWay_.push(bytes);
  pushed_ += bytes.size();
}

std::vector<std::byte> Socket::pull(std::size_t count) {
  const std::span<const std::byte> bytes = sent_.front(count);
  std::vector<std::byte> pulled(bytes.begin(), bytes.end());
  sent_.pop(count);
  return pulled;
}

void Socket::abandon() {
  clientEnded_ = true;
  clientClosed_ = true;
  // What the client leaves unread resets the connection, as at the server's end.
  answeredClosed_ = answeredClosed_ || !sent_.empty();
  sent_.clear();
}

void Socket::cutBehind(std::size_t count) {
  pushed_ -= underWay_.size() - count;
  underWay_.truncate(count);
}

bool Socket::canDeliver() const {
  if (resetDelivered_ || resetByServer_) {
    return false;
  }
  if (closedByServer_) {
    return !underWay_.empty();
  }
  const bool bytes = !underWay_.empty() && received_.size() < receiveCapacity_;
  const bool end = underWay_.empty() && clientEnded_ && !endDelivered_;
  return bytes || end || answeredClosed_;
}

void Socket::deliver() {
  if (closedByServer_) {
    resetByServer_ = true;  // the answer to bytes for a connection that is not there any more
    underWay_.clear();
    sent_.clear();
    return;
  }
  if (!underWay_.empty() && received_.size() < receiveCapacity_) {
    const std::size_t most = std::min(underWay_.size(), receiveCapacity_ - received_.size());
    const std::size_t count = world_.random().chance(400) ? most : world_.random().between(1, most);
    received_.push(underWay_.front(count));
    underWay_.pop(count);
    if (hasEnough()) {
      raise();
    }
  } else if (underWay_.empty() && clientEnded_ && !endDelivered_) {
    endDelivered_ = true;
    goneAt_ = goneAt_ != 0 ? goneAt_ : world_.tick();
    world_.note("the end of a client's side arrives");
    raise();
  } else {
    reset();
  }
}

void Socket::reset() {
  resetDelivered_ = true;
  answeredClosed_ = false;
  goneAt_ = goneAt_ != 0 ? goneAt_ : world_.tick();
  underWay_.clear();
  sent_.clear();
  world_.note("a reset arrives");
  raise();
}

void Socket::timeOut() {
  timedOut_ = true;
  reset();
}

bool Socket::canAcknowledge() const {
  return noSpace_ && !closedByServer_ && !resetDelivered_ && sent_.size() * 3 <= sendCapacity_ * 2;
}

void Socket::acknowledge() {
  noSpace_ = false;
  raise();
}

}  // namespace Simulation
