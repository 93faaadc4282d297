#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "nbdd/reservations/key.h"

// The exchange by which a client shows that it knows a server's reservation password, and the server that it
// knows it too, without either telling it: SCRAM-SHA-256 (RFC 7677), and over TLS SCRAM-SHA-256-PLUS with the
// channel binding tls-exporter (RFC 9266). There is one account, so the user name has no meaning.

namespace Nbdd::Reservations {

/// What a server keeps of its password: enough to check it, and of no use to log in with.
struct Verifier {
  static constexpr std::size_t saltSize = 16;

  Octets<saltSize> salt{};
  std::uint32_t iterations = 0;
  Key storedKey;
  Key serverKey;

  friend bool operator==(const Verifier&, const Verifier&) = default;
};

/// The octets that are the same on both ends of one TLS channel and on no other (RFC 9266); nothing without
/// TLS.
using ChannelBinding = std::optional<std::string>;

/// The form in which a password is used (SASLprep, RFC 4013): equal passwords are then equal octets, however
/// they were typed. Nothing if it cannot be one: empty, too long, or with characters that are not allowed.
std::optional<std::string> preparePassword(std::string_view password);

/// Makes what a server keeps of a prepared password, with a new salt. Slow by purpose.
Verifier makeVerifier(const std::string& prepared, std::uint32_t iterations);

/// The first answer of a server, as far as a client has to know it beforehand.
struct ServerFirst {
  std::string salt;
  std::uint32_t iterations = 0;

  friend bool operator==(const ServerFirst&, const ServerFirst&) = default;
};

/// Reads it. Nothing if it is malformed, or asks for fewer iterations than are safe or for more than are
/// sane: either would be an attack, on the password or on our processor.
std::optional<ServerFirst> parseServerFirst(std::string_view text);

/// The server's part of one exchange.
class ScramServer {
 public:
  ScramServer(Verifier verifier, ChannelBinding binding);
  ~ScramServer();
  ScramServer(ScramServer&&) noexcept;
  ScramServer& operator=(ScramServer&&) noexcept;

  /// Takes the client's first message and gives the answer; nothing if it is malformed.
  std::optional<std::string> begin(std::string_view clientFirst);

  enum class Verdict : std::uint8_t { accepted, wrongPassword, malformed };
  struct Outcome {
    Verdict verdict = Verdict::malformed;
    std::string serverFinal = {};  ///< if it was accepted
    Key leaseKey = {};             ///< likewise: known to both ends now
  };
  /// Takes the client's second and last message. Once, after `begin` gave an answer.
  Outcome finish(std::string_view clientFinal);

 private:
  struct Exchange;
  std::unique_ptr<Exchange> exchange_;
};

/// The client's part of one exchange.
class ScramClient {
 public:
  explicit ScramClient(ChannelBinding binding);
  ~ScramClient();
  ScramClient(ScramClient&&) noexcept;
  ScramClient& operator=(ScramClient&&) noexcept;

  std::string begin();

  /// Takes the server's first message and gives the answer; nothing if it is not acceptable. Slow by purpose:
  /// as `makeVerifier`.
  std::optional<std::string> answer(std::string_view serverFirst, const std::string& prepared);

  /// Whether the server's last message shows that it knows the password too.
  bool verify(std::string_view serverFinal);

  /// After `answer`: the key that the server will have too, if it accepts.
  const Key& leaseKey() const;

 private:
  struct Exchange;
  std::unique_ptr<Exchange> exchange_;
};

}  // namespace Nbdd::Reservations
