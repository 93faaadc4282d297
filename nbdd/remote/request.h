#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "nbd/constants.h"
#include "nbd/read_reply.h"
#include "nbd/reply.h"

namespace Nbdd::Remote {

/// One request to a remote export, on its way from whoever asks to the server and back.
///
/// It belongs to whoever asks and stays where it is, together with the memory it names, until `done` is
/// called: once, on the loop's thread, never inside `Device::submit`. It may be carried by several
/// connections one after the other before that.
class Request {
 public:
  Request() = default;
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;
  virtual ~Request() = default;

  /// The server's answer. May destroy the request and submit others.
  virtual void done(Nbd::Error error) = 0;
  /// Called when data of a READ begin to arrive that has no destination: sets it. On the loop's thread, never
  /// inside `Device::submit`. Memory that is taken so late, and has been in use before, is most likely still
  /// in the processor's cache.
  virtual void takeMemory() {}

  Nbd::Command command = Nbd::Command::read;
  std::uint16_t flags = 0;  ///< Nbd::CommandFlag; what the device does not offer is the asker's mistake
  std::uint64_t offset = 0;
  std::uint64_t length = 0;                     ///< bytes; up to Device::maximumLength
  std::span<std::byte> destination;             ///< of a READ: `length` bytes, or none so far
  std::span<const std::byte> payload;           ///< of a WRITE: `length` bytes
  std::vector<Nbd::Extent>* extents = nullptr;  ///< of a BLOCK_STATUS: where the answer goes

 private:
  friend class Connection;
  friend class Device;

  // While it is in the hands of a connection.
  std::uint64_t cookie_ = 0;
  std::size_t unsent_ = 0;                 ///< bytes of header and payload that the kernel has not taken
  std::optional<Nbd::Error> answer_;       ///< came before all of it was sent
  Nbd::Error error_ = Nbd::Error::none;    ///< of an error chunk, until the reply's last chunk
  std::vector<std::byte> compressed_;      ///< of a WRITE that goes compressed: what is sent for the payload
  std::optional<Nbd::ReadReply> reading_;  ///< of a READ: what has come
};

}  // namespace Nbdd::Remote
