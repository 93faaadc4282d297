#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "nbd/reply_encoder.h"
#include "nbd/request.h"
#include "nbdd/io/file_descriptor.h"
#include "tests/support/wire.h"

namespace Nbdd::Remote {

/// A server on loopback that does what a test tells it to, good or bad. Each connection runs the next of its
/// scripts on a thread of its own; the last script serves all further connections.
class ScriptedServer {
 public:
  /// One accepted connection. Blocking; nothing waits longer than some seconds.
  class Peer {
   public:
    explicit Peer(Io::FileDescriptor socket) : socket_(std::move(socket)) {}

    void send(Nbd::Bytes bytes);
    /// So many bytes, or fewer if the client ends its side before.
    Wire::Buffer receive(std::size_t length);
    /// Serves the handshake for the export `view`; false if the client left. Refuses headers beyond `best`.
    bool handshake(const Nbd::ExportView& view, Nbd::HeaderStyle best = Nbd::HeaderStyle::extended);
    Nbd::HeaderStyle headers() const { return headers_; }
    std::uint32_t allocationContext() const { return allocationContext_; }

    struct Received {
      Nbd::Request request;
      Wire::Buffer payload;
    };
    /// Nothing when the client has ended.
    std::optional<Received> receiveRequest();

    /// The same, without the data behind it.
    std::optional<Nbd::Request> receiveRequestAlone();

    void replySimply(const Nbd::Request& request, Nbd::Error error, Nbd::Bytes data = {});
    void sendData(const Nbd::Request& request, std::uint64_t offset, Nbd::Bytes data, bool done);
    void sendHole(const Nbd::Request& request, std::uint64_t offset, std::uint32_t length, bool done);
    void sendNone(const Nbd::Request& request);
    void sendError(const Nbd::Request& request, Nbd::Error error, bool done);
    /// Waits until the client has ended its side.
    void awaitEnd();
    void close() { socket_.reset(); }

   private:
    Io::FileDescriptor socket_;
    Wire::Buffer surplus_;  // came with the last word of the handshake
    Nbd::HeaderStyle headers_ = Nbd::HeaderStyle::simple;
    std::uint32_t allocationContext_ = 0;
  };
  using Script = std::function<void(Peer&)>;

  explicit ScriptedServer(std::vector<Script> scripts);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  std::uint16_t port() const { return port_; }
  int connections() const;

 private:
  void accept();

  Io::FileDescriptor listener_;
  std::uint16_t port_ = 0;
  std::vector<Script> scripts_;
  mutable std::mutex mutex_;
  int connections_ = 0;
  std::vector<std::thread> threads_;
  std::thread acceptor_;
};

/// A whole export in memory, as a script: serves all commands until the client ends.
class MemoryExport {
 public:
  explicit MemoryExport(std::size_t size);

  Nbd::ExportView view;
  Nbd::HeaderStyle headers = Nbd::HeaderStyle::extended;
  void serve(ScriptedServer::Peer& peer);
  Wire::Buffer content() const;
  /// Called before each request is carried out; false closes the connection instead.
  std::function<bool(const Nbd::Request&)> before;

 private:
  void answer(ScriptedServer::Peer& peer, const ScriptedServer::Peer::Received& received);

  mutable std::mutex mutex_;
  Wire::Buffer content_;
};

}  // namespace Nbdd::Remote
