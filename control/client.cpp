#include "control/client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace Control {

namespace {

std::string reasonOf(int error) { return std::generic_category().message(error); }

std::unexpected<Failure> failure(FailureCode code, std::string message) {
  return std::unexpected(Failure{code, std::move(message)});
}

Failure connectFailure(int error, const std::string& path) {
  switch (error) {
    case ENOENT:
    case ECONNREFUSED:
    case ENOTDIR:
      return {FailureCode::serviceUnavailable, "no service listens at " + path};
    case EACCES:
    case EPERM:
      return {FailureCode::accessDenied, "no permission to use " + path};
    case EAGAIN:
      return {FailureCode::timeout, "the service at " + path + " takes no connection"};
    default:
      return {FailureCode::serviceUnavailable, "cannot connect to " + path + ": " + reasonOf(error)};
  }
}

}  // namespace

Result<Client> Client::connect(const std::string& path, Clock::time_point deadline) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    return failure(FailureCode::invalidArgument, "the path of the control socket is too long: " + path);
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) return failure(FailureCode::serviceUnavailable, "cannot make a socket: " + reasonOf(errno));

  // Connecting waits only while the listener's queue is full, and for no longer than the send timeout.
  for (;;) {
    const auto left = std::max<Clock::duration>(deadline - Clock::now(), std::chrono::milliseconds(1));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    const auto rest = std::chrono::duration_cast<std::chrono::microseconds>(left - seconds);
    const timeval timeout{.tv_sec = seconds.count(), .tv_usec = rest.count()};
    ::setsockopt(socket.number(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    if (::connect(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) break;
    if (errno != EINTR) return std::unexpected(connectFailure(errno, path));
  }
  return Client(std::move(socket));
}

Result<void> Client::enqueue(JsonWriter writer) {
  if (writer.isDistorted()) {
    return failure(FailureCode::invalidArgument, "a text is not valid UTF-8, or a flag has no meaning");
  }
  if (writer.depth() > Limits::depth) return failure(FailureCode::invalidArgument, "a value nests too deep");
  const std::string message = writer.take();
  if (message.size() > Limits::requestLength) {
    return failure(FailureCode::invalidArgument, "the call is longer than the service takes");
  }
  return queueMessage(message);
}

Result<void> Client::queueMessage(std::string_view message) {
  if (!isOpen()) return failure(FailureCode::serviceUnavailable, "the connection to the service is closed");
  queued_.append(message);
  queued_ += '\0';
  ++outstanding_;
  return {};
}

Result<std::string_view> Client::receiveMessage() {
  if (!isOpen()) return failure(FailureCode::serviceUnavailable, "the connection to the service is closed");
  auto message = awaitMessage();
  if (message) {
    outstanding_ -= outstanding_ > 0 ? 1 : 0;
  } else {
    close();
  }
  return message;
}

Result<std::string_view> Client::awaitMessage() {
  const auto deadline = Clock::now() + timeout_;
  for (;;) {
    if (const auto message = framing_.next()) return *message;
    if (framing_.isTooLong()) return failure(FailureCode::protocolError, "the service's answer is too long");
    if (Clock::now() > deadline) return failure(FailureCode::timeout, "the service did not answer in time");
    const bool sending = !queued_.empty();
    if (auto sent = sendQueued(); !sent) return std::unexpected(std::move(sent.error()));
    if (framing_.hasMessage()) continue;
    // Right after a call was sent its answer cannot be there yet: asking for it would be in vain.
    if (sending) {
      if (auto ready = wait(deadline); !ready) return std::unexpected(std::move(ready.error()));
    }
    const std::size_t before = framing_.arrived();
    if (auto received = receiveMore(); !received) return std::unexpected(std::move(received.error()));
    if (!sending && framing_.arrived() == before) {
      if (auto ready = wait(deadline); !ready) return std::unexpected(std::move(ready.error()));
    }
  }
}

void Client::flush() {
  if (isOpen()) std::ignore = sendQueued();
}

// Sends what the socket takes now.
Result<void> Client::sendQueued() {
  while (sent_ < queued_.size()) {
    const ssize_t count =
        ::send(socket_.number(), queued_.data() + sent_, queued_.size() - sent_, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count >= 0) {
      sent_ += static_cast<std::size_t>(count);
    } else if (errno == EAGAIN) {
      return {};
    } else if (errno != EINTR) {
      // A service that turns a client away says why before it closes; that is worth more than "broken pipe".
      if (auto received = receiveMore(); received && framing_.hasPartialMessage()) return {};
      return std::unexpected(connectionEnded(/*reset=*/true));
    }
  }
  queued_.clear();
  sent_ = 0;
  return {};
}

// Takes what has arrived.
Result<void> Client::receiveMore() {
  for (;;) {
    const auto room = framing_.prepare();
    const ssize_t count = ::recv(socket_.number(), room.data(), room.size(), MSG_DONTWAIT);
    if (count > 0) {
      framing_.commit(static_cast<std::size_t>(count));
      return {};
    }
    if (count == 0) return std::unexpected(connectionEnded(/*reset=*/false));
    if (errno == EAGAIN) return {};
    if (errno != EINTR) return std::unexpected(connectionEnded(/*reset=*/true));
  }
}

// Waits until there is something to receive or room to send, or `deadline` has come.
Result<void> Client::wait(Clock::time_point deadline) {
  std::array<pollfd, 2> entries{};
  entries[0].fd = socket_.number();
  entries[0].events = static_cast<short>(POLLIN | (queued_.empty() ? 0 : POLLOUT));
  entries[1].fd = interruption_;
  entries[1].events = POLLIN;
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    const auto milliseconds = std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, 3'600'000);
    const int count = ::poll(entries.data(), entries.size(), static_cast<int>(milliseconds));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0)
      return failure(FailureCode::internalError, "cannot wait for the service: " + reasonOf(errno));
    if (entries[0].revents != 0) return {};
    if (entries[1].revents != 0)
      return failure(FailureCode::interrupted, "the wait for the service was interrupted");
    if (count == 0 && left.count() <= 0)
      return failure(FailureCode::timeout, "the service did not answer in time");
  }
}

// A Unix socket is reset when its peer closes it with bytes unread. If they belong to the only call that is
// outstanding, its last byte is among them, and the service cannot have begun it.
Failure Client::connectionEnded(bool reset) {
  const bool unsent = sent_ < queued_.size();
  if (unsent || outstanding_ == 0 || (reset && outstanding_ == 1)) {
    return {FailureCode::serviceUnavailable, "the service has closed the connection"};
  }
  return {FailureCode::answerLost, "the service closed the connection before it answered"};
}

}  // namespace Control
