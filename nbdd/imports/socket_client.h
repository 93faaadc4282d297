#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "nbd/reply_encoder.h"
#include "nbd/server_handshake.h"
#include "nbd/validation.h"
#include "nbdd/imports/program_watch.h"
#include "nbdd/io/buffer.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/signal.h"
#include "nbdd/io/stream.h"
#include "nbdd/io/task.h"
#include "nbdd/remote/device.h"
#include "nbdd/server/sender.h"

namespace Nbdd {

/// Somebody on this host who speaks NBD to an import, from the greeting to the end: what is asked is asked of
/// the remote server, and answered in the form that was agreed on. The import's thread.
class SocketClient {
 public:
  /// `changed` is called when `inUse` changes. All else outlives this.
  SocketClient(Io::EventLoop& loop, Remote::Device& device, Io::BufferPool& buffers,
               Io::FileDescriptor socket, std::function<void()> changed);
  SocketClient(const SocketClient&) = delete;
  SocketClient& operator=(const SocketClient&) = delete;
  ~SocketClient();

  /// The whole life; to be run once. Ends after the device has answered all that was asked. `exports`
  /// outlives it.
  Io::Task<void> run(const Nbd::ExportDirectory& exports);
  /// The same for somebody who does not negotiate and knows these limits, which need no allocation context.
  Io::Task<void> runAgreed(Nbd::ExportLimits limits);
  /// Closes the connection at once.
  void end();
  bool inUse() const { return inUse_; }

 private:
  class Exchange;

  Io::Task<bool> negotiate(const Nbd::ExportDirectory& exports);
  Io::Task<void> use();
  Io::Task<void> finish();
  Io::Task<bool> receiveMore();
  ssize_t receive();
  Io::Task<bool> lookAway();
  Io::Task<void> serve();
  bool hasRoom() const;
  bool takeInput();
  bool takeRequest();
  bool begin(const Nbd::Request& request);
  void refuse(const Nbd::Request& request, Nbd::Error error);
  Exchange& newExchange();
  void submitWrite();
  std::span<std::byte> room();
  void setInUse(bool inUse);

  Io::EventLoop& loop_;
  Remote::Device& device_;
  Io::BufferPool& buffers_;
  const std::function<void()> changed_;
  Io::Stream stream_;
  Sender sender_;
  Io::Signal answered_;
  Io::Timer deadline_;
  bool ending_ = false;
  bool inUse_ = false;

  // While the program is not watched.
  ProgramWatch watch_;
  Io::Timer look_;
  bool timeToLook_ = false;

  // Agreed on in the handshake.
  Nbd::ExportLimits limits_;
  Nbd::ReplyEncoder replies_{Nbd::HeaderStyle::simple};
  std::uint32_t allocationContext_ = 0;

  // What has arrived and is not used yet: bytes [begin_, end_).
  std::vector<std::byte> input_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::uint64_t skip_ = 0;        // bytes to pass over: the data of a write that was refused
  Exchange* writing_ = nullptr;   // whose data are arriving
  std::span<std::byte> missing_;  // what of them has not come

  // Requests; those that are free are used again.
  std::vector<std::unique_ptr<Exchange>> exchanges_;
  std::vector<Exchange*> free_;
  std::size_t inFlight_ = 0;
  std::size_t bytesInFlight_ = 0;
};

}  // namespace Nbdd
