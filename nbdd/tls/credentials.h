#pragma once

#include <gnutls/gnutls.h>

#include <expected>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "nbdd/tls/key_file.h"
#include "nbdd/tls/settings.h"

namespace Nbdd::Tls {

/// Owns what GnuTLS allocates.
template <auto release>
struct Releaser {
  template <class T>
  void operator()(T* object) const {
    release(object);
  }
};
template <class Handle, auto release>
using Owner = std::unique_ptr<std::remove_pointer_t<Handle>, Releaser<release>>;

/// What one side proves itself with and verifies the other by, read from its files. Immutable: sessions on
/// any number of threads share it, and those that began with it keep it when the files are read again.
class Credentials {
 public:
  Credentials(const Credentials&) = delete;
  Credentials& operator=(const Credentials&) = delete;
  ~Credentials();

  /// Reads the files that `settings` name. A failure is a sentence that names the file and says what to do.
  /// What will soon be wrong with them (a certificate that runs out) is logged.
  static std::expected<std::shared_ptr<const Credentials>, std::string> load(const ServerSettings& settings);
  static std::expected<std::shared_ptr<const Credentials>, std::string> load(const ImportSettings& settings);

  bool isServer() const { return server_; }
  /// Whether the peer must prove who it is.
  bool demandsProof() const { return demandsProof_; }
  /// Whether a server's certificate must be made out to its name.
  bool verifiesName() const { return verifiesName_; }
  /// Whether the peer may come by this name.
  bool admits(const std::vector<std::string>& names) const;

  // For sessions:
  gnutls_priority_t priorities() const { return priorities_.get(); }
  gnutls_certificate_credentials_t certificates() const { return certificates_.get(); }
  const Keys* keys() const { return hasKeys_ ? &keys_ : nullptr; }
  gnutls_psk_server_credentials_t serverKeys() const { return serverKeys_.get(); }
  gnutls_psk_client_credentials_t clientKey() const { return clientKey_.get(); }

 private:
  explicit Credentials(bool server) : server_(server) {}
  std::expected<void, std::string> loadCertificates(const std::string& directory);
  std::expected<void, std::string> loadOwnCertificate(const std::string& directory);
  std::expected<void, std::string> loadAuthorities(const std::string& directory);
  std::expected<void, std::string> loadKeys(const std::string& file);
  std::expected<void, std::string> chooseKey(const std::string& file, const std::string& user);
  std::expected<void, std::string> choosePriorities();

  const bool server_;
  bool demandsProof_ = false;
  bool verifiesName_ = true;
  bool hasKeys_ = false;
  std::vector<std::string> admitted_;
  Keys keys_;
  Owner<gnutls_priority_t, &gnutls_priority_deinit> priorities_;
  Owner<gnutls_certificate_credentials_t, &gnutls_certificate_free_credentials> certificates_;
  Owner<gnutls_psk_server_credentials_t, &gnutls_psk_free_server_credentials> serverKeys_;
  Owner<gnutls_psk_client_credentials_t, &gnutls_psk_free_client_credentials> clientKey_;
};

}  // namespace Nbdd::Tls
