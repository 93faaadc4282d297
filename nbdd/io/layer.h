#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Nbdd::Io {

/// What stands between a stream and its socket once the connection is secured: the bytes that the stream's
/// users give and take are not those of the socket any more. Belongs to its stream and its thread. Never
/// blocks.
class Layer {
 public:
  Layer() = default;
  Layer(const Layer&) = delete;
  Layer& operator=(const Layer&) = delete;
  virtual ~Layer() = default;

  /// As those of Stream, which calls them. What is accepted for sending may still wait here: see flushed().
  virtual ssize_t receive(std::span<std::byte> buffer) = 0;
  virtual ssize_t send(std::span<const iovec> pieces, bool more) = 0;
  virtual ssize_t sendFile(int file, std::uint64_t offset, std::size_t length) = 0;

  /// Whether `receive` has something to say without a look at the socket.
  virtual bool holdsInput() const = 0;
  /// Sends what was accepted and waits, as far as the socket takes it. Called whenever the socket can take
  /// more.
  virtual void flush() = 0;
  /// Whether nothing waits to be sent.
  virtual bool flushed() const = 0;
  /// Tells the peer in this layer's own words that nothing more comes. If they cannot leave at once, the
  /// layer ends the sending side of the socket behind them.
  virtual void endSending() = 0;
  /// Bytes that both ends of this secured connection know and no other connection has, so that what is proved
  /// within it can be bound to it: RFC 9266, type "tls-exporter". Empty if there are none.
  virtual std::vector<std::byte> channelBinding() const = 0;
};

}  // namespace Nbdd::Io
