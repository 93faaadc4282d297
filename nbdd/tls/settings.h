#pragma once

#include <string>
#include <vector>

#include "nbd/constants.h"

namespace Nbdd::Tls {

/// How the server secures its connections, as the operator has it.
struct ServerSettings {
  Nbd::TlsMode mode = Nbd::TlsMode::off;
  /// Where the X.509 files are, by the names that NBD tools give them: server-cert.pem, server-key.pem,
  /// ca-cert.pem. Empty: no certificate.
  std::string directory;
  /// The file of pre-shared keys, as psktool writes it. Empty: none.
  std::string keys;
  /// Whether a client must show a certificate that ca-cert.pem vouches for, or know a key.
  bool clientCertificates = false;
  /// The clients that may come, by a name in their certificate or that of their key. Empty: all that prove
  /// who they are.
  std::vector<std::string> clients;

  friend bool operator==(const ServerSettings&, const ServerSettings&) = default;
};

/// The same for the connections of imports.
struct ImportSettings {
  Nbd::TlsMode mode = Nbd::TlsMode::off;
  /// ca-cert.pem, by which servers are verified (without it the system's authorities), and client-cert.pem
  /// and client-key.pem, if servers ask for them. Empty: the system's authorities alone.
  std::string directory;
  /// The file of pre-shared keys, and which of them to use. Servers are then known by the key instead.
  std::string keys;
  std::string user;
  /// Whether a server's certificate must be made out to the name or address by which it was reached.
  bool verifyName = true;

  friend bool operator==(const ImportSettings&, const ImportSettings&) = default;
};

}  // namespace Nbdd::Tls
