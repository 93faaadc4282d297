#include "tests/remote/scripted_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "nbd/server_handshake.h"

namespace Nbdd::Remote {

void ScriptedServer::Peer::send(Nbd::Bytes bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(socket_.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return;  // the client has left: the script sees it when it receives
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
}

Wire::Buffer ScriptedServer::Peer::receive(std::size_t length) {
  Wire::Buffer bytes(length);
  std::size_t done = std::min(length, surplus_.size());
  std::copy_n(surplus_.begin(), done, bytes.begin());
  surplus_.erase(surplus_.begin(), surplus_.begin() + static_cast<std::ptrdiff_t>(done));
  while (done < length) {
    const ssize_t count = ::recv(socket_.number(), bytes.data() + done, length - done, 0);
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  bytes.resize(done);
  return bytes;
}

bool ScriptedServer::Peer::handshake(const Nbd::ExportView& view, Nbd::HeaderStyle best) {
  Wire::Directory directory;
  directory.add(view);
  Nbd::ServerHandshake handshake(directory, {.structuredReplies = best != Nbd::HeaderStyle::simple,
                                             .extendedHeaders = best == Nbd::HeaderStyle::extended});
  Wire::Buffer output;
  handshake.greet(output);
  Wire::Buffer input;
  for (;;) {
    const auto progress = handshake.advance(input, output);
    input.erase(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(progress.consumed));
    send(output);
    output.clear();
    if (progress.state == Nbd::ServerHandshake::State::transmission) break;
    if (progress.state != Nbd::ServerHandshake::State::negotiating) return false;
    if (progress.consumed == 0) {
      const Wire::Buffer more = receive(1);
      if (more.empty()) return false;
      input.insert(input.end(), more.begin(), more.end());
    }
  }
  surplus_ = std::move(input);
  headers_ = handshake.agreement().headers;
  allocationContext_ = handshake.agreement().allocationContext.value_or(0);
  return true;
}

std::optional<ScriptedServer::Peer::Received> ScriptedServer::Peer::receiveRequest() {
  const auto request = receiveRequestAlone();
  if (!request || request->type == Nbd::Command::disconnect) return std::nullopt;
  const std::size_t length = Nbd::payloadLength(*request, headers_);
  Wire::Buffer payload = receive(length);
  if (payload.size() != length) return std::nullopt;
  return Received{*request, std::move(payload)};
}

std::optional<Nbd::Request> ScriptedServer::Peer::receiveRequestAlone() {
  const std::size_t size = Nbd::requestSizeOf(headers_);
  const Wire::Buffer bytes = receive(size);
  if (bytes.size() != size) return std::nullopt;
  const std::span all(bytes);
  return headers_ == Nbd::HeaderStyle::extended
             ? Nbd::decodeExtendedRequest(all.first<Nbd::extendedRequestSize>())
             : Nbd::decodeRequest(all.first<Nbd::requestSize>());
}

void ScriptedServer::Peer::replySimply(const Nbd::Request& request, Nbd::Error error, Nbd::Bytes data) {
  std::array<std::byte, Nbd::simpleReplySize> bytes;
  Nbd::encodeSimpleReply(bytes, request.cookie, error);
  send(bytes);
  send(data);
}

void ScriptedServer::Peer::sendData(const Nbd::Request& request, std::uint64_t offset, Nbd::Bytes data,
                                    bool done) {
  std::array<std::byte, 64> bytes;
  const std::size_t size = Nbd::ReplyEncoder(headers_).dataHeader(
      bytes, request, done ? Nbd::ReplyFlag::done : 0, offset, data.size());
  send(std::span(bytes).first(size));
  send(data);
}

void ScriptedServer::Peer::sendHole(const Nbd::Request& request, std::uint64_t offset, std::uint32_t length,
                                    bool done) {
  std::array<std::byte, 64> bytes;
  const std::size_t size =
      Nbd::ReplyEncoder(headers_).hole(bytes, request, done ? Nbd::ReplyFlag::done : 0, offset, length);
  send(std::span(bytes).first(size));
}

void ScriptedServer::Peer::sendNone(const Nbd::Request& request) {
  std::array<std::byte, Nbd::ReplyEncoder::maxVerdictSize> bytes;
  send(std::span(bytes).first(Nbd::ReplyEncoder(headers_).success(bytes, request)));
}

void ScriptedServer::Peer::sendError(const Nbd::Request& request, Nbd::Error error, bool done) {
  std::array<std::byte, Nbd::ReplyEncoder::maxVerdictSize> bytes;
  const std::size_t size = Nbd::ReplyEncoder(headers_).failure(bytes, request, error, "a reason");
  if (!done) bytes[5] = std::byte{0};  // the flags of the chunk
  send(std::span(bytes).first(size));
}

void ScriptedServer::Peer::awaitEnd() {
  while (!receive(std::size_t{64} * 1024).empty()) {
  }
}

ScriptedServer::ScriptedServer(std::vector<Script> scripts)
    : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), scripts_(std::move(scripts)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(listener_.number(), generic, length) != 0 || ::listen(listener_.number(), 64) != 0 ||
      ::getsockname(listener_.number(), generic, &length) != 0) {
    throw std::runtime_error("no socket to listen on");
  }
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { accept(); });
}

ScriptedServer::~ScriptedServer() {
  ::shutdown(listener_.number(), SHUT_RDWR);
  acceptor_.join();
  for (std::thread& thread : threads_) thread.join();
}

int ScriptedServer::connections() const {
  const std::lock_guard lock(mutex_);
  return connections_;
}

void ScriptedServer::accept() {
  for (;;) {
    Io::FileDescriptor socket(::accept4(listener_.number(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket) return;
    const int noDelay = 1;
    ::setsockopt(socket.number(), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    const timeval patience{.tv_sec = 20, .tv_usec = 0};
    ::setsockopt(socket.number(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    ::setsockopt(socket.number(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    std::size_t index = 0;
    {
      const std::lock_guard lock(mutex_);
      index = std::min(static_cast<std::size_t>(connections_++), scripts_.size() - 1);
    }
    threads_.emplace_back([this, index, socket = std::move(socket)]() mutable {
      Peer peer(std::move(socket));
      scripts_[index](peer);
    });
  }
}

MemoryExport::MemoryExport(std::size_t size) : content_(size) {
  view.name = "memory";
  view.size = size;
  view.transmissionFlags = Nbd::TransmissionFlag::hasFlags | Nbd::TransmissionFlag::sendFlush |
                           Nbd::TransmissionFlag::sendFua | Nbd::TransmissionFlag::sendTrim |
                           Nbd::TransmissionFlag::sendWriteZeroes;
}

Wire::Buffer MemoryExport::content() const {
  const std::lock_guard lock(mutex_);
  return content_;
}

void MemoryExport::serve(ScriptedServer::Peer& peer) {
  if (!peer.handshake(view, headers)) return;
  while (const auto received = peer.receiveRequest()) {
    if (before && !before(received->request)) return;
    answer(peer, *received);
  }
}

void MemoryExport::answer(ScriptedServer::Peer& peer, const ScriptedServer::Peer::Received& received) {
  const Nbd::Request& request = received.request;
  const std::lock_guard lock(mutex_);
  const auto range =
      std::span(content_).subspan(request.offset, request.type == Nbd::Command::flush ? 0 : request.length);
  switch (request.type) {
    case Nbd::Command::read:
      return peer.sendData(request, request.offset, range, true);
    case Nbd::Command::write:
      std::ranges::copy(received.payload, range.begin());
      break;
    case Nbd::Command::writeZeroes:
    case Nbd::Command::trim:
      std::ranges::fill(range, std::byte{});
      break;
    case Nbd::Command::blockStatus: {
      const Nbd::Extent extent{.length = request.length, .status = 0};
      std::array<std::byte, 128> bytes;
      const std::size_t size = Nbd::ReplyEncoder(peer.headers())
                                   .blockStatus(bytes, request, Nbd::ReplyFlag::done,
                                                peer.allocationContext(), std::span(&extent, 1));
      return peer.send(std::span(bytes).first(size));
    }
    default:
      break;
  }
  peer.sendNone(request);
}

}  // namespace Nbdd::Remote
