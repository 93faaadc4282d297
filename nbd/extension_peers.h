#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "nbd/bytes.h"
#include "nbd/constants.h"
#include "nbd/extension.h"

/// Who stands behind the two machines of the handshake when the extension is spoken: the machines carry
/// requests and answers, these give them their meaning.
namespace Nbd::Extension {

/// A request, without its version.
struct Question {
  Kind kind = Kind::hello;
  std::vector<std::byte> body = {};
};

/// A server's no: one of the error replies that every client understands, and a sentence for people.
struct Refusal {
  ReplyType type = ReplyType::unsupported;
  std::string text = {};

  friend bool operator==(const Refusal&, const Refusal&) = default;
};

// --- The server's side

/// The answer to one request, as it comes about: any number of messages, and then the end or a refusal.
class Answer {
 public:
  enum class Step : std::uint8_t {
    message,  // the body of one was stored
    end,
    refusal,
    wait,  // not yet
  };

  virtual ~Answer() = default;

  /// Brings the next piece: stores into `body`, which is empty, at most maxExtensionBody bytes of a message.
  /// Not called again behind the end or a refusal.
  [[nodiscard]] virtual Step next(std::vector<std::byte>& body) = 0;

  /// What the refusal is, behind that step.
  [[nodiscard]] virtual Refusal refusal() const { return {}; }
};

/// Answers one client's requests, and may remember from one to the next what it has to.
///
/// An answer that is not there yet may `wait`: the machine tells its caller, who calls advance() again when
/// the handler has given him notice, in a way that is between the two of them. Called on the connection's
/// thread; must not block.
class Handler {
 public:
  virtual ~Handler() = default;

  /// Begins to answer. `body` lives only as long as the call. Never null.
  [[nodiscard]] virtual std::unique_ptr<Answer> answer(Kind kind, Bytes body) = 0;
};

/// An answer that is known at once: these messages, or one, or none.
[[nodiscard]] std::unique_ptr<Answer> answered(std::vector<std::vector<std::byte>> bodies);
[[nodiscard]] std::unique_ptr<Answer> answered(std::vector<std::byte> body);
[[nodiscard]] std::unique_ptr<Answer> answered();
[[nodiscard]] std::unique_ptr<Answer> refused(Refusal refusal);
/// The same with entries, in as few messages as hold them; each is put together when it is sent.
[[nodiscard]] std::unique_ptr<Answer> answered(std::shared_ptr<const std::vector<ExportEntry>> exports);
[[nodiscard]] std::unique_ptr<Answer> answered(std::shared_ptr<const std::vector<Property>> properties);

// --- The client's side

/// What a client asks in one handshake, request by request, each of which may depend on the answers to those
/// before. Called by one machine.
class Dialogue {
 public:
  virtual ~Dialogue() = default;

  /// The next request; nothing when all is asked.
  [[nodiscard]] virtual std::optional<Question> next() = 0;
  /// The version in which it is asked; of no interest to a hello.
  [[nodiscard]] virtual std::uint16_t version() const = 0;
  /// One message of the answer. False if it is not what the protocol allows: then the handshake fails.
  [[nodiscard]] virtual bool take(Bytes body) = 0;
  /// The end of the answer. False likewise.
  [[nodiscard]] virtual bool acknowledged() = 0;
  virtual void refused(Refusal refusal) = 0;
  /// When all is asked: whether nothing else is wanted of the server, so that the client leaves.
  [[nodiscard]] virtual bool suffices() const { return false; }
};

}  // namespace Nbd::Extension
