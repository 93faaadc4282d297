#include "nbdd/remote/dialler.h"

#include <fmt/core.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

#include "nbdd/limits.h"
#include "nbdd/log/log.h"
#include "nbdd/tls/handshake.h"

namespace Nbdd::Remote {

namespace {

using Control::Failure;
using Control::FailureCode;
using Nbd::ClientHandshake;

/// Wakes a signal when a socket that is being connected is, or cannot be.
class Connecting final : public Io::EventHandler {
 public:
  Connecting(Io::EventLoop& loop, int socket, Io::Signal& wake) : loop_(loop), socket_(socket), wake_(wake) {
    error_ = loop.watch(socket, EPOLLOUT, *this);
  }
  Connecting(const Connecting&) = delete;
  Connecting& operator=(const Connecting&) = delete;
  ~Connecting() override { loop_.unwatch(socket_, *this); }

  void onEvents(std::uint32_t /*events*/) override {
    socklen_t length = sizeof error_;
    if (::getsockopt(socket_, SOL_SOCKET, SO_ERROR, &error_, &length) != 0) error_ = errno;
    done_ = true;
    loop_.unwatch(socket_, *this);
    wake_.notify();
  }
  bool done() const { return done_ || error_ != 0; }
  int error() const { return error_; }

 private:
  Io::EventLoop& loop_;
  int socket_;
  Io::Signal& wake_;
  int error_ = 0;
  bool done_ = false;
};

void setOption(int socket, int level, int name, int value) {
  // Each is a matter of speed or patience, none of correctness.
  static_cast<void>(::setsockopt(socket, level, name, &value, sizeof value));
}

void prepare(int socket) {
  constexpr int probes = 4;
  constexpr auto silence = static_cast<int>(Limits::silentPath.count());
  setOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
  setOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
  setOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, silence / 2);
  setOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, silence / 2 / probes);
  setOption(socket, IPPROTO_TCP, TCP_KEEPCNT, probes);
  setOption(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, silence * 1000);
}

FailureCode codeOf(const ClientHandshake::Failure& failure) {
  if (failure.noTls) return FailureCode::remoteWithoutTls;
  if (failure.isRefusal && failure.reply == Nbd::ReplyType::tlsRequired) return FailureCode::remoteDemandsTls;
  if (!failure.isRefusal) return FailureCode::remoteProtocolError;
  return failure.reply == Nbd::ReplyType::unknown ? FailureCode::noSuchRemoteExport
                                                  : FailureCode::remoteRefused;
}

std::string reason(int error) { return std::generic_category().message(error); }

}  // namespace

Dialler::Patience Dialler::usualPatience() {
  return {.whole = Limits::dialTime, .address = Limits::connectTime};
}

Dialler::Dialler(Io::EventLoop& loop, Place place, Patience patience, Security security)
    : loop_(loop),
      place_(std::move(place)),
      patience_(patience),
      security_(std::move(security)),
      wake_(loop),
      deadline_(loop, [this] { end(Verdict::timeUp); }),
      addressDeadline_(loop, [this] {
        addressTimeUp_ = true;
        wake_.notify();
      }) {}

void Dialler::cancel() { end(Verdict::cancelled); }

void Dialler::end(Verdict verdict) {
  if (verdict_ != Verdict::goOn) return;
  verdict_ = verdict;
  wake_.notify();
  if (stream_ != nullptr) stream_->shutDown();  // wakes whoever waits for it, from the loop
}

std::unexpected<Failure> Dialler::failure(FailureCode code, std::string_view what) const {
  const bool needsBrackets = place_.host.contains(':');
  return std::unexpected(
      Failure{code, fmt::format("{}{}{} port {}: {}", needsBrackets ? "[" : "", escaped(place_.host),
                                needsBrackets ? "]" : "", place_.port, what)});
}

std::unexpected<Failure> Dialler::interrupted(std::string_view what) const {
  return verdict_ == Verdict::cancelled ? failure(FailureCode::interrupted, "the attempt was given up")
                                        : failure(FailureCode::remoteTimeout, what);
}

Io::Task<DialResult> Dialler::dial(ClientHandshake::Wish wish) {
  if (verdict_ == Verdict::goOn) deadline_.start(patience_.whole);
  Io::Task<Addresses> resolving = resolve();
  Addresses addresses = co_await resolving;
  if (!addresses) co_return std::unexpected(std::move(addresses.error()));
  auto connecting = connect(std::move(*addresses));
  auto socket = co_await connecting;
  if (!socket) co_return std::unexpected(std::move(socket.error()));
  Dialled dialled;
  dialled.stream = std::make_unique<Io::Stream>(loop_, std::move(*socket));
  stream_ = dialled.stream.get();
  Io::Task<DialResult> negotiating = negotiate(std::move(dialled), std::move(wish));
  DialResult result = co_await negotiating;
  stream_ = nullptr;
  deadline_.cancel();
  if (result && verdict_ != Verdict::goOn) co_return interrupted("the handshake took too long");
  co_return result;
}

Io::Task<Addresses> Dialler::resolve() {
  std::vector<SocketAddress> numeric = parseAddress(place_.host, place_.port);
  if (!numeric.empty()) co_return numeric;
  Lookup lookup(loop_, wake_, place_.host, place_.port);
  while (!lookup.done()) {
    if (verdict_ != Verdict::goOn) co_return interrupted("its name was not found in time");
    Io::Signal::Waiting waiting = wake_.wait();
    co_await waiting;
  }
  co_return lookup.take();
}

Io::Task<std::expected<Io::FileDescriptor, Failure>> Dialler::connect(std::vector<SocketAddress> addresses) {
  int error = ETIMEDOUT;
  for (const SocketAddress& address : addresses) {
    Io::FileDescriptor socket(
        ::socket(address.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket) {
      error = errno;
      continue;
    }
    prepare(socket.number());
    Io::Task<int> connecting = connectTo(address, socket.number());
    error = co_await connecting;
    if (error == 0) co_return socket;
    if (verdict_ != Verdict::goOn) co_return interrupted("it cannot be reached");
  }
  if (error == ECONNREFUSED) co_return failure(FailureCode::connectionRefused, "nothing listens there");
  if (error == ETIMEDOUT) co_return failure(FailureCode::remoteTimeout, "it cannot be reached");
  co_return failure(FailureCode::connectionFailed, reason(error));
}

/// Yields 0 or an errno.
Io::Task<int> Dialler::connectTo(SocketAddress address, int socket) {
  if (::connect(socket, address.get(), address.length) == 0) co_return 0;
  if (errno != EINPROGRESS) co_return errno;
  addressTimeUp_ = false;
  addressDeadline_.start(patience_.address);
  Connecting connecting(loop_, socket, wake_);
  while (!connecting.done() && !addressTimeUp_ && verdict_ == Verdict::goOn) {
    Io::Signal::Waiting waiting = wake_.wait();
    co_await waiting;
  }
  addressDeadline_.cancel();
  co_return connecting.done() ? connecting.error() : ETIMEDOUT;
}

Io::Task<DialResult> Dialler::negotiate(Dialled dialled, ClientHandshake::Wish wish) {
  wish.tls = security_.mode;
  ClientHandshake handshake(std::move(wish));
  std::vector<std::byte> output;
  for (;;) {
    const ClientHandshake::Progress progress = handshake.advance(dialled.received, output);
    dialled.received.erase(dialled.received.begin(),
                           dialled.received.begin() + static_cast<std::ptrdiff_t>(progress.consumed));
    Io::Task<bool> sending = sendAll(output);
    const bool sent = co_await sending;
    if (progress.state == ClientHandshake::State::failed) {
      co_return refused(handshake.failure());
    }
    if (progress.state == ClientHandshake::State::transmission ||
        progress.state == ClientHandshake::State::finished) {
      dialled.agreement = handshake.agreement();
      dialled.exports = handshake.exports();
      co_return dialled;
    }
    if (sent && progress.state == ClientHandshake::State::startTls) {
      auto securing = secure();
      auto secured = co_await securing;
      if (!secured) co_return std::unexpected(std::move(secured.error()));
      handshake.secured(output);
      unheard_ = true;
      continue;  // nothing was received yet; what is to be sent is sent
    }
    bool going = sent;
    if (going) {
      Io::Task<bool> receiving = receiveMore(dialled.received);
      going = co_await receiving;
    }
    if (verdict_ != Verdict::goOn) co_return interrupted("the server says nothing");
    if (!going) co_return closed();
    unheard_ = false;
  }
}

std::unexpected<Failure> Dialler::refused(const ClientHandshake::Failure& why) const {
  const FailureCode code = codeOf(why);
  // What the server says about it, if anything, does not say what to do here.
  return failure(code, code == FailureCode::remoteDemandsTls
                           ? "the server demands TLS, and the configuration has none for imports"
                           : escaped(why.message));
}

// By TLS 1.3 a client hears that it is not accepted only when it has long been done with its part.
std::unexpected<Failure> Dialler::closed() const {
  if (!unheard_) return failure(FailureCode::connectionFailed, "the server closed the connection");
  return failure(
      FailureCode::tlsFailed,
      "the server ended the connection when TLS was made: it may not accept the certificate or key");
}

Io::Task<std::expected<void, Failure>> Dialler::secure() {
  auto shaking = Tls::shakeHands(*stream_, std::nullopt, security_.credentials, place_.host);
  const std::expected<Tls::Peer, std::string> peer = co_await shaking;
  if (verdict_ != Verdict::goOn) co_return interrupted("the TLS handshake took too long");
  if (!peer) co_return failure(FailureCode::tlsFailed, fmt::format("TLS has failed: {}", peer.error()));
  co_return std::expected<void, Failure>();
}

Io::Task<bool> Dialler::sendAll(std::vector<std::byte>& output) {
  std::size_t sent = 0;
  while (sent < output.size()) {
    const ssize_t count = stream_->send(std::span(output).subspan(sent));
    if (count > 0) {
      sent += static_cast<std::size_t>(count);
    } else if (count != -EAGAIN) {
      co_return false;
    } else {
      Io::Stream::Waiting writable = stream_->writable();
      co_await writable;
    }
  }
  output.clear();
  co_return true;
}

Io::Task<bool> Dialler::receiveMore(std::vector<std::byte>& received) {
  std::array<std::byte, 16 * 1024> memory;
  while (verdict_ == Verdict::goOn) {
    const ssize_t count = stream_->receive(memory);
    if (count > 0) {
      received.insert(received.end(), memory.begin(), memory.begin() + count);
      co_return true;
    }
    if (count != -EAGAIN) co_return false;
    Io::Stream::Waiting readable = stream_->readable();
    co_await readable;
  }
  co_return false;
}

}  // namespace Nbdd::Remote
