#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "tests/simulation/world/world.h"

namespace Simulation {

/// Bytes that go in at one end and come out at the other.
class ByteQueue {
 public:
  std::size_t size() const { return bytes_.size() - begin_; }
  bool empty() const { return size() == 0; }
  std::span<const std::byte> front(std::size_t count) const {
    return std::span(bytes_).subspan(begin_, count);
  }
  void push(std::span<const std::byte> bytes) { bytes_.insert(bytes_.end(), bytes.begin(), bytes.end()); }
  void pop(std::size_t count) {
    begin_ += count;
    if (begin_ == bytes_.size()) {
      bytes_.clear();
      begin_ = 0;
    } else if (begin_ > bytes_.size() / 2 && begin_ > 4096) {
      bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(begin_));
      begin_ = 0;
    }
  }
  void clear() { pop(size()); }
  /// Drops all but the first `count`.
  void truncate(std::size_t count) { bytes_.resize(begin_ + count); }

 private:
  std::vector<std::byte> bytes_;
  std::size_t begin_ = 0;
};

/// A TCP connection, both ends of it and the network between: what the client sends is under way until it is
/// delivered, in pieces of any size; what the server sends waits in a buffer of a certain size until the
/// client reads. Readiness and edges are those of Linux.
class Socket final : public Descriptor {
 public:
  Socket(World& world, std::size_t receiveCapacity, std::size_t sendCapacity)
      : world_(world), receiveCapacity_(receiveCapacity), sendCapacity_(sendCapacity) {}

  // The server's side: results as system calls give them, or a negative errno.
  ssize_t receive(std::span<std::byte> buffer);
  /// How many bytes it would take now; 0 is for EAGAIN, negative for an error.
  ssize_t room();
  /// At most `room` bytes.
  void send(std::span<const std::byte> bytes);
  int shutDown(int how);
  /// As SO_RCVLOWAT: fewer bytes are no reason to wake anybody.
  void setLowWater(int bytes);
  std::size_t received() const { return received_.size(); }
  /// A sendfile has failed: the reply whose header is out cannot be completed.
  void breakOff() { brokenOff_ = true; }
  bool brokenOff() const { return brokenOff_; }
  std::uint32_t readiness() const override;
  void closed() override;

  // A socket that the service connects by itself.
  void beginConnecting() { connecting_ = true; }
  bool connecting() const { return connecting_; }
  /// It is connected, or cannot be, for this errno.
  void endConnecting(int error);
  /// As SO_ERROR.
  int takeError() { return std::exchange(connectError_, 0); }

  // The client's side.
  void push(std::span<const std::byte> bytes);
  /// How many bytes the client has ever sent, and how many of them the server has taken.
  std::uint64_t pushed() const { return pushed_; }
  std::uint64_t consumed() const { return consumed_; }
  std::size_t readable() const { return sent_.size(); }
  std::vector<std::byte> pull(std::size_t count);
  /// The server has ended its side, and everything before that was read.
  bool atEnd() const { return serverEnded_ && sent_.empty(); }
  bool wasReset() const { return resetByServer_; }
  /// Nothing comes behind what was pushed.
  void endSending() { clientEnded_ = true; }
  /// The same, and nothing is read any more.
  void abandon();
  /// The cable is cut: only the first `count` bytes of what is under way still arrive.
  void cutBehind(std::size_t count);
  std::size_t underWay() const { return underWay_.size(); }

  // The network.
  bool canDeliver() const;
  /// Delivers some bytes, or the end of the client's side, or a reset.
  void deliver();
  /// The connection is reset from the client's side, here and now.
  void reset();
  /// Nothing was heard of the other side for so long that the service's kernel gives the connection up.
  void timeOut();
  bool canAcknowledge() const;
  /// The server's kernel hears that the client has taken bytes.
  void acknowledge();

  /// When the server's kernel learnt that the client has ended its side or is gone; 0 = it has not.
  std::uint64_t goneAt() const { return goneAt_; }
  bool closedByServer() const { return closedByServer_; }

 private:
  bool hasEnough() const;
  int resetError() const;

  World& world_;
  const std::size_t receiveCapacity_;
  const std::size_t sendCapacity_;
  bool connecting_ = false;
  int connectError_ = 0;

  ByteQueue underWay_;  // from the client to the server's kernel
  ByteQueue received_;  // in the server's kernel
  ByteQueue sent_;      // from the server, not read yet
  std::size_t lowWater_ = 1;
  std::uint64_t pushed_ = 0;
  std::uint64_t consumed_ = 0;
  bool clientEnded_ = false;   // behind what is under way
  bool clientClosed_ = false;  // and does not read any more
  bool endDelivered_ = false;  // the server's kernel knows the first
  bool resetDelivered_ = false;
  bool resetReported_ = false;   // by a failed call
  bool timedOut_ = false;        // that was the reset
  bool answeredClosed_ = false;  // bytes went to a client that has closed: a reset comes back
  bool brokenOff_ = false;
  bool noSpace_ = false;  // the server was told that the buffer is full
  bool serverEnded_ = false;
  bool readingShut_ = false;
  bool closedByServer_ = false;
  bool resetByServer_ = false;
  std::uint64_t goneAt_ = 0;
};

}  // namespace Simulation
