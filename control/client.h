#pragma once

// A synchronous client of the control socket.
//
// `call` does one operation. For many operations that do not depend on each other, `queue` each and then
// `receive` each, in the same order: the calls travel together, and so do the replies.
//
// What is known of an operation whose connection failed: after serviceUnavailable it was certainly not done,
// because its message never reached the service whole; after answerLost, timeout or interrupted it may have
// been done. After any of these, and after protocolError, the client is closed and every further call is
// refused.

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "control/codec.h"
#include "control/descriptor.h"
#include "control/framing.h"
#include "control/interface.h"
#include "control/limits.h"
#include "control/message.h"
#include "control/methods.h"

namespace Control {

/// Whether values of these types are what the operation takes, in its order.
template <class Row, class... Given>
concept TakenBy = std::same_as<std::tuple<Given...>, typename Row::Inputs>;

/// One connection to a service. For one thread at a time.
class Client {
 public:
  using Clock = std::chrono::steady_clock;

  /// Connects to the Unix socket at `path`, waiting at most until `deadline` while the service has its hands
  /// full. Fails with serviceUnavailable when nothing listens there, accessDenied, timeout or
  /// invalidArgument.
  static Result<Client> connect(const std::string& path, Clock::time_point deadline);

  /// Takes over a connected stream socket.
  explicit Client(Descriptor socket) : socket_(std::move(socket)) {}

  /// How long one answer may take. A minute unless set.
  void setTimeout(Clock::duration timeout) { timeout_ = timeout; }

  /// Watches `descriptor` (-1: none) while it waits for an answer; when it becomes readable, the wait ends
  /// with `interrupted`. It is not read, and stays the caller's.
  void setInterruption(int descriptor) { interruption_ = descriptor; }

  /// Whether calls can be made.
  bool isOpen() const { return static_cast<bool>(socket_); }

  /// Whether the next message has arrived already, so that receiving it does not wait.
  bool hasMessage() { return framing_.hasMessage(); }

  void close() { socket_.reset(); }

  /// Does one operation, for example `client.call(Methods::exportInfo, id)`. No queued call may be
  /// outstanding.
  template <class... Arguments, class... Given>
  Result<typename Method<Arguments...>::Output> call(const Method<Arguments...>& method,
                                                     const Given&... inputs) {
    if (auto queued = queue(method, inputs...); !queued) return std::unexpected(std::move(queued.error()));
    return receive(method);
  }

  /// Writes the call down; it is sent, with all others that wait, when the next answer is received. Fails
  /// with invalidArgument, and queues nothing, for text that is not UTF-8 or a call that is too long.
  template <class... Arguments, class... Given>
    requires TakenBy<Method<Arguments...>, Given...>
  Result<void> queue(const Method<Arguments...>& method, const Given&... inputs) {
    using Row = Method<Arguments...>;
    JsonWriter writer;
    writer.beginObject();
    writer.key("method");
    writer.string(std::string(interfaceName) + "." + std::string(method.name));
    if constexpr (Row::inputCount > 0) {
      writer.key("parameters");
      writer.beginObject();
      auto name = method.inputs.begin();
      (encodeMember(writer, (name++)->name, inputs), ...);
      writer.endObject();
    }
    writer.endObject();
    return enqueue(std::move(writer));
  }

  /// Sends what is queued, as far as the socket takes it without waiting; failures show at the next
  /// `receive`.
  void flush();

  /// The answer to the oldest queued call that was not answered yet, which was one of `method`.
  template <class... Arguments>
  Result<typename Method<Arguments...>::Output> receive(const Method<Arguments...>& method) {
    using Output = typename Method<Arguments...>::Output;
    const auto message = receiveMessage();
    if (!message) return std::unexpected(message.error());
    const auto reply = parseReply(*message);
    if (!reply) {
      if (reply.error().code == FailureCode::protocolError) close();
      return std::unexpected(reply.error());
    }
    if constexpr (std::is_void_v<Output>) {
      return {};
    } else {
      Output output{};
      Complaint complaint;
      if (!decodeMember(reply->parameters, method.output, Presence::required, output, complaint)) {
        close();
        return std::unexpected(Failure{FailureCode::protocolError,
                                       "the service's answer has no valid \"" + complaint.path() + "\""});
      }
      return output;
    }
  }

  /// Queues a message as it stands, without the NUL that ends it. For tools and tests.
  Result<void> queueMessage(std::string_view message);

  /// The next message from the service, without its NUL; good until the next call of a member that is not
  /// const.
  Result<std::string_view> receiveMessage();

 private:
  Result<void> enqueue(JsonWriter writer);
  Result<std::string_view> awaitMessage();
  Result<void> sendQueued();
  Result<void> receiveMore();
  Result<void> wait(Clock::time_point deadline);
  Failure connectionEnded(bool reset);

  Descriptor socket_;
  int interruption_ = -1;
  Clock::duration timeout_ = std::chrono::minutes(1);
  std::string queued_;           // not sent yet, from sent_ on
  std::size_t sent_ = 0;         // how much of queued_ is sent
  std::size_t outstanding_ = 0;  // calls without an answer
  Framing framing_{Limits::replyLength};
};

}  // namespace Control
