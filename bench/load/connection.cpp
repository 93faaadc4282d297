#include "bench/load/connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

#include "nbd/reply.h"
#include "nbd/request.h"

namespace Bench {

namespace {

// As much as stays in a processor's own cache while it is thrown away.
constexpr std::size_t inputSize = std::size_t{256} * 1024;

// Linux gives a client 28,000 ports to each address and port of a server.
constexpr std::size_t connectionsPerAddress = 20'000;

std::string lastError(const std::string& what) {
  return what + ": " + std::generic_category().message(errno);
}

bool isLoopback(const Target& target) {
  const auto& address = reinterpret_cast<const sockaddr_in&>(target.address);
  return target.address.ss_family == AF_INET && ntohl(address.sin_addr.s_addr) >> 24 == 127;
}

/// Gives the socket the address that the connection of that number comes from. False: errno says why not.
bool bindToSource(int socket, std::size_t number) {
  const int on = 1;
  sockaddr_in source{};
  source.sin_family = AF_INET;
  source.sin_addr.s_addr =
      htonl(INADDR_LOOPBACK + static_cast<std::uint32_t>(number / connectionsPerAddress));
  return ::setsockopt(socket, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on) == 0 &&
         ::bind(socket, reinterpret_cast<const sockaddr*>(&source), sizeof source) == 0;
}

}  // namespace

Workspace::Workspace() : input(inputSize), random(std::random_device()()) {}

std::expected<std::unique_ptr<Connection>, std::string> Connection::open(const Target& target,
                                                                         std::size_t number) {
  Nbdd::Io::FileDescriptor socket(
      ::socket(target.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) {
    return std::unexpected(lastError("no socket"));
  }
  const int on = 1;
  static_cast<void>(::setsockopt(socket.number(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on));
  if (number >= connectionsPerAddress && isLoopback(target) && !bindToSource(socket.number(), number)) {
    return std::unexpected(lastError("no source address"));
  }
  if (::connect(socket.number(), reinterpret_cast<const sockaddr*>(&target.address), target.addressLength) !=
          0 &&
      errno != EINPROGRESS) {
    return std::unexpected(lastError("no connection"));
  }
  return std::unique_ptr<Connection>(new Connection(std::move(socket), target.exportName));
}

Connection::Connection(Nbdd::Io::FileDescriptor socket, const std::string& exportName)
    : socket_(std::move(socket)),
      handshake_(std::make_unique<Nbd::ClientHandshake>(Nbd::ClientHandshake::Wish{
          .exportName = exportName, .structuredReplies = false, .allocationContext = false})) {}

void Connection::onReady(Workspace& workspace) {
  if (!unsent_.empty()) {
    sendUnsent();
  }
  if (state_ == State::negotiating) {
    negotiate(workspace);
  } else if (state_ != State::failed && load_.reads) {
    receive(workspace);
  }
}

void Connection::negotiate(Workspace& workspace) {
  while (state_ == State::negotiating) {
    const ssize_t count = ::recv(socket_.number(), workspace.input.data(), workspace.input.size(), 0);
    if (count <= 0) {
      if (count == 0) {
        fail("the server hung up during the handshake");
      } else if (errno != EAGAIN) {
        fail(lastError("handshake"));
      }
      return;
    }
    workspace.output.clear();
    const Nbd::Bytes input = std::span(workspace.input).first(static_cast<std::size_t>(count));
    const auto [consumed, state] = handshake_->advance(input, workspace.output);
    send(workspace.output);
    if (state == Nbd::ClientHandshake::State::transmission) {
      size_ = handshake_->agreement().remote.size.value_or(0);
      handshake_.reset();
      if (consumed < input.size()) {
        fail("the server spoke without being asked");
      } else if (state_ != State::failed) {
        state_ = State::standing;
      }
    } else if (state != Nbd::ClientHandshake::State::negotiating) {
      fail(handshake_->failure().message);
    }
  }
}

void Connection::begin(const Load& load, Workspace& workspace) {
  if (size_ < load.blockSize) {
    fail("the export is smaller than one request");
    return;
  }
  load_ = load;
  state_ = State::loading;
  sent_.assign(load.depth, {});
  workspace.payload.resize(load.blockSize);
  workspace.output.clear();
  now_ = Clock::now();
  for (std::size_t slot = 0; slot < sent_.size(); ++slot) {
    issue(slot, workspace);
  }
  send(workspace.output);
}

void Connection::ask(const Load& load, Workspace& workspace) {
  once_ = true;
  begin({.depth = 1, .blockSize = load.blockSize, .write = load.write}, workspace);
}

void Connection::receive(Workspace& workspace) {
  while (state_ != State::failed) {
    const ssize_t count = ::recv(socket_.number(), workspace.input.data(), workspace.input.size(), 0);
    if (count <= 0) {
      if (count == 0) {
        fail("the server hung up");
      } else if (errno != EAGAIN) {
        fail(lastError("receiving"));
      }
      return;
    }
    now_ = Clock::now();
    workspace.output.clear();
    const auto received = static_cast<std::size_t>(count);
    take(std::span(workspace.input).first(received), workspace);
    send(workspace.output);
    if (received < workspace.input.size()) {
      return;  // it is empty; what comes now is a new edge
    }
  }
}

void Connection::take(Nbd::Bytes bytes, Workspace& workspace) {
  while (!bytes.empty() && state_ != State::failed) {
    if (dataLeft_ > 0) {
      const std::size_t count = std::min(dataLeft_, bytes.size());
      dataLeft_ -= count;
      bytes = bytes.subspan(count);
      if (dataLeft_ == 0) {
        complete(workspace);
      }
      continue;
    }
    const std::size_t count = std::min(header_.size() - headerFilled_, bytes.size());
    std::ranges::copy(bytes.first(count), header_.begin() + static_cast<std::ptrdiff_t>(headerFilled_));
    headerFilled_ += count;
    bytes = bytes.subspan(count);
    if (headerFilled_ == header_.size()) {
      headerFilled_ = 0;
      takeHeader(workspace);
    }
  }
}

void Connection::takeHeader(Workspace& workspace) {
  const std::optional<Nbd::SimpleReply> reply = Nbd::decodeSimpleReply(header_);
  if (!reply || reply->cookie >= sent_.size() || sent_[reply->cookie] == Clock::time_point()) {
    fail("the server answered what was not asked");
    return;
  }
  slot_ = reply->cookie;
  const bool succeeded = reply->error == Nbd::Error::none;
  workspace.errors += succeeded ? 0 : 1;
  if (succeeded && !load_.write) {
    dataLeft_ = load_.blockSize;
  } else {
    complete(workspace);
  }
}

/// The reply of `slot_` is here: counts it and sends the next request in its place.
void Connection::complete(Workspace& workspace) {
  if (workspace.measuring) {
    ++requests_;
    workspace.latencies.add(now_ - sent_[slot_]);
  }
  if (once_) {
    sent_[slot_] = {};
    state_ = State::standing;
    once_ = false;
  } else {
    issue(slot_, workspace);
  }
}

void Connection::issue(std::size_t slot, Workspace& workspace) {
  std::uniform_int_distribution<std::uint64_t> block(0, size_ / load_.blockSize - 1);
  const Nbd::Request request{.type = load_.write ? Nbd::Command::write : Nbd::Command::read,
                             .cookie = slot,
                             .offset = block(workspace.random) * load_.blockSize,
                             .length = load_.blockSize};
  std::vector<std::byte>& output = workspace.output;
  const std::size_t offset = output.size();
  output.resize(offset + Nbd::requestSize);
  Nbd::encodeRequest(std::span<std::byte, Nbd::requestSize>(output.data() + offset, Nbd::requestSize),
                     request);
  if (load_.write) {
    output.insert(output.end(), workspace.payload.begin(), workspace.payload.end());
  }
  sent_[slot] = now_;
}

void Connection::send(std::vector<std::byte>& output) {
  if (output.empty() || state_ == State::failed) {
    return;
  }
  if (!unsent_.empty()) {
    unsent_.insert(unsent_.end(), output.begin(), output.end());
    return;
  }
  const ssize_t count = ::send(socket_.number(), output.data(), output.size(), MSG_NOSIGNAL);
  if (count < 0 && errno != EAGAIN) {
    fail(lastError("sending"));
  } else if (count < static_cast<ssize_t>(output.size())) {
    unsent_.assign(output.begin() + std::max<ssize_t>(count, 0), output.end());
  }
}

void Connection::sendUnsent() {
  std::vector<std::byte> output = std::exchange(unsent_, {});
  send(output);
}

void Connection::fail(std::string why) {
  state_ = State::failed;
  failure_ = std::move(why);
}

}  // namespace Bench
