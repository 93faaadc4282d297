#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <coroutine>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "nbdd/io/event_loop.h"
#include "nbdd/io/file_descriptor.h"
#include "nbdd/io/layer.h"

namespace Nbdd::Io {

/// A connected stream socket that never blocks, on one event loop.
///
/// Reading and writing go straight to the kernel; only when it says EAGAIN does a coroutine await `readable`
/// or `writable`. At most one coroutine waits for each. The descriptor is watched once, edge-triggered, for
/// both. From `secure` on everything passes through a layer between the users and the socket.
class Stream final : public EventHandler {
 public:
  /// `socket` must be non-blocking. If it cannot be watched, every operation fails with that errno.
  Stream(EventLoop& loop, FileDescriptor socket);
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  /// Nobody may be waiting any more.
  ~Stream() override;

  int descriptor() const { return socket_.number(); }
  EventLoop& loop() const { return loop_; }

  /// From now on every byte goes through `layer`. Once, while nobody waits.
  void secure(std::unique_ptr<Layer> layer) { layer_ = std::move(layer); }
  /// The layer; null while there is none.
  const Layer* layer() const { return layer_.get(); }

  /// The number of bytes received (0 = the peer has ended its side), or a negative errno (-EAGAIN: nothing
  /// there).
  ssize_t receive(std::span<std::byte> buffer);
  /// Waits for reading end only when `bytes` have arrived, or the peer's end, or an error; 1 at first.
  /// Lowered, it ends a wait that it no longer holds up. Behind a layer it is a hint of the size alone.
  void setReceiveThreshold(std::size_t bytes);
  /// Bytes that have arrived and not been received.
  std::size_t available() const;
  /// The loop is told nothing more of the socket, but that both sides have ended, until somebody waits for
  /// it again: whoever knows when to try is not woken meanwhile. `drained` then says nothing. Does nothing
  /// while somebody waits.
  void rest();
  /// Whether nothing has arrived since the last `receive`, as far as the loop knows: wait instead of trying.
  bool drained() const { return !readable_; }
  /// What proofs made within this connection can be bound to, as Layer says; empty where there is nothing.
  std::vector<std::byte> channelBinding() const {
    return layer_ == nullptr ? std::vector<std::byte>() : layer_->channelBinding();
  }
  /// Bytes that the socket has taken and the network has not, of a connection by TCP; else 0.
  std::size_t unsent() const;
  /// Whether all that was sent has reached the socket. Without a layer it always has.
  bool flushed() const { return layer_ == nullptr || layer_->flushed(); }
  /// The number of bytes sent, or a negative errno (-EAGAIN: the send buffer is full). `more`: further bytes
  /// follow at once, so the kernel may hold a partial packet back.
  ssize_t send(std::span<const std::byte> bytes, bool more = false);
  ssize_t send(std::span<const iovec> pieces, bool more = false);
  /// As sendfile(2), from `file` at `offset`.
  ssize_t sendFile(int file, std::uint64_t offset, std::size_t length);

  // For the layer:
  ssize_t receiveFromSocket(std::span<std::byte> buffer);
  ssize_t sendToSocket(std::span<const std::byte> bytes, bool more = false);

  /// How a wait ended.
  enum class Wake { ready, interrupted };

  class Waiting {
   public:
    Waiting(Stream& stream, bool forReading) : stream_(stream), forReading_(forReading) {}
    bool await_ready() const noexcept;
    void await_suspend(std::coroutine_handle<> waiter) noexcept;
    Wake await_resume() const noexcept;

   private:
    Stream& stream_;
    bool forReading_;
  };

  /// Awaits that receiving may make progress. Spurious wake-ups happen: try again after each.
  Waiting readable() { return {*this, true}; }
  /// Awaits that sending may make progress, or has failed.
  Waiting writable() { return {*this, false}; }

  /// Ends the current wait for reading, and every later one, with Wake::interrupted. The waiter is resumed on
  /// the caller's stack.
  void interruptReading();
  /// Waits for reading are waits again.
  void resumeReading() { readingInterrupted_ = false; }
  /// Tells the peer that nothing more comes.
  void endSending();
  /// Shuts the connection down in both directions, so that the peer sees its end; the descriptor stays ours.
  void shutDown();

  void onEvents(std::uint32_t events) override;

 private:
  void endRest();

  EventLoop& loop_;
  FileDescriptor socket_;
  std::unique_ptr<Layer> layer_;
  int failure_ = 0;
  std::size_t receiveThreshold_ = 1;
  bool readable_ = true;
  bool writable_ = true;
  bool peerEnded_ = false;
  bool resting_ = false;
  bool readingInterrupted_ = false;
  std::coroutine_handle<> reader_;
  std::coroutine_handle<> writer_;
};

}  // namespace Nbdd::Io
