#include "nbdd/tls/handshake.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <coroutine>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include "nbdd/limits.h"

namespace Nbdd::Tls {

namespace {

using Step = Channel::Step;

/// A thread that only greets newcomers stands back behind those that serve.
void standBack() {
  constexpr int niceness = 10;
  thread_local const bool done = ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), niceness) == 0;
  static_cast<void>(done);
}

/// Awaits one step of the handshake, made on the pool; nothing if it was given up before.
class StepAside {
 public:
  StepAside(Aside& aside, Io::EventLoop& loop, Channel& channel)
      : aside_(aside), loop_(loop), channel_(channel) {}

  bool await_ready() const noexcept { return false; }
  void await_suspend(std::coroutine_handle<> waiter) {
    aside_.deadline.pause();
    aside_.pool.submit([this, waiter] {
      standBack();
      if (!aside_.givenUp.stop_requested()) step_ = channel_.shakeHands();
      loop_.post([this, waiter] {
        aside_.deadline.resume();
        waiter.resume();
      });
    });
  }
  std::optional<Step> await_resume() const noexcept { return step_; }

 private:
  Aside& aside_;
  Io::EventLoop& loop_;
  Channel& channel_;
  std::optional<Step> step_;
};

/// Awaits that all of the channel's words are with the socket. False: they never will be.
Io::Task<bool> sendAll(Io::Stream& stream, Channel& channel) {
  for (;;) {
    channel.flush();
    if (channel.flushed()) co_return !channel.broken();
    Io::Stream::Waiting writable = stream.writable();
    co_await writable;
  }
}

/// Awaits what the other side says. 0 or an errno.
Io::Task<int> receiveMore(Io::Stream& stream, Channel& channel) {
  std::vector<std::byte> memory(Limits::tlsHandshakeInput);
  for (;;) {
    const ssize_t count = stream.receiveFromSocket(memory);
    if (count > 0) {
      channel.give(std::span(memory).first(static_cast<std::size_t>(count)));
      co_return 0;
    }
    if (count != -EAGAIN) co_return count == 0 ? ECONNRESET : static_cast<int>(-count);
    memory = {};  // a thousand that wait hold nothing
    Io::Stream::Waiting readable = stream.readable();
    const Io::Stream::Wake wake = co_await readable;
    if (wake == Io::Stream::Wake::interrupted) co_return EINTR;
    memory.resize(Limits::tlsHandshakeInput);
  }
}

}  // namespace

Io::Task<std::expected<Peer, std::string>> shakeHands(Io::Stream& stream, std::optional<Aside> aside,
                                                      std::shared_ptr<const Credentials> credentials,
                                                      std::string host) {
  auto channel = std::make_unique<Channel>(stream, std::move(credentials), std::move(host));
  for (;;) {
    std::optional<Step> step;
    if (aside) {
      StepAside stepAside(*aside, stream.loop(), *channel);
      step = co_await stepAside;
    } else {
      step = channel->shakeHands();
    }
    if (!step) co_return std::unexpected("it was given up");
    Io::Task<bool> sending = sendAll(stream, *channel);
    const bool sent = co_await sending;
    if (step == Step::failed) co_return std::unexpected(channel->failure());
    if (!sent) co_return std::unexpected("the other side has ended the connection");
    if (step == Step::done) break;
    Io::Task<int> receiving = receiveMore(stream, *channel);
    const int error = co_await receiving;
    if (error == ECONNRESET) co_return std::unexpected("the other side has ended the connection");
    if (error == EINTR) co_return std::unexpected("it was given up");
    if (error != 0) co_return std::unexpected(std::generic_category().message(error));
  }
  Peer peer = channel->peer();
  stream.secure(std::move(channel));
  co_return peer;
}

}  // namespace Nbdd::Tls
