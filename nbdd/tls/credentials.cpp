#include "nbdd/tls/credentials.h"

#include <fmt/core.h>
#include <gnutls/x509.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <system_error>
#include <utility>

#include "nbdd/config/read_file.h"
#include "nbdd/limits.h"
#include "nbdd/log/log.h"
#include "nbdd/tls/channel.h"

namespace Nbdd::Tls {

namespace {

using Loaded = std::expected<void, std::string>;

// TLS 1.2 and 1.3, ciphers that authenticate what they encrypt, keys that nobody can find out later. The
// fastest cipher that is still as good as any stands first, and it is the server who chooses. The group that
// clients begin with stands first too: another one would cost a round trip.
constexpr std::string_view commonPriorities =
    "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2:-RSA"
    ":-CIPHER-ALL:+AES-128-GCM:+AES-256-GCM:+CHACHA20-POLY1305"
    ":-GROUP-ALL:+GROUP-X25519:+GROUP-SECP256R1:+GROUP-SECP384R1:+GROUP-SECP521R1:+GROUP-FFDHE3072"
    ":%SERVER_PRECEDENCE";

std::unexpected<std::string> fail(const std::filesystem::path& file, std::string_view what) {
  return std::unexpected(fmt::format("{}: {}", escaped(file.native()), what));
}

std::string_view reason(int error) { return ::gnutls_strerror(error); }

std::expected<std::string, std::string> read(const std::filesystem::path& file) {
  auto text = readFile(file, Limits::tlsFileLength);
  if (text) return std::move(*text);
  if (text.error() == EFBIG) {
    return fail(file,
                fmt::format("the file is longer than {} bytes: it is no PEM file", Limits::tlsFileLength));
  }
  return fail(file, fmt::format("it cannot be read ({}): correct that, or turn TLS off in the configuration",
                                std::generic_category().message(text.error())));
}

gnutls_datum_t datum(const std::string& text) {
  // The library only reads it.
  return {.data = reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())),
          .size = static_cast<unsigned int>(text.size())};
}

/// Whoever may read the key may pass for us.
void warnOfReaders(const std::filesystem::path& file) {
  struct stat status{};
  if (::stat(file.c_str(), &status) == 0 && (status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
    log(LogLevel::warning, "tls-key-readable", "{} can be read by others than its owner: chmod 0600 it",
        escaped(file.native()));
  }
}

/// Says in good time that a certificate runs out; a wrong one is the other side's to refuse.
void warnOfDates(const std::filesystem::path& file, const std::string& pem) {
  gnutls_x509_crt_t* list = nullptr;
  unsigned int count = 0;
  const gnutls_datum_t data = datum(pem);
  if (::gnutls_x509_crt_list_import2(&list, &count, &data, GNUTLS_X509_FMT_PEM, 0) < 0) return;
  const std::time_t now = std::time(nullptr);
  const std::time_t soon = now + std::time_t{Limits::certificateWarningDays} * 24 * 3600;
  for (unsigned int index = 0; index < count; ++index) {
    const std::time_t ends = ::gnutls_x509_crt_get_expiration_time(list[index]);
    const std::time_t begins = ::gnutls_x509_crt_get_activation_time(list[index]);
    if (ends < now) {
      log(LogLevel::warning, "certificate-expired", "{} has expired: the other side will refuse it",
          escaped(file.native()));
    } else if (begins > now) {
      log(LogLevel::warning, "certificate-not-yet", "{} is not valid yet: the other side will refuse it",
          escaped(file.native()));
    } else if (ends < soon) {
      log(LogLevel::warning, "certificate-expires", "{} expires in less than {} days", escaped(file.native()),
          Limits::certificateWarningDays);
    }
    ::gnutls_x509_crt_deinit(list[index]);
  }
  ::gnutls_free(static_cast<void*>(list));
}

template <class Handle>
void adopt(auto& owner, int (*allocate)(Handle*)) {
  Handle handle = nullptr;
  if (allocate(&handle) < 0) throw std::bad_alloc();
  owner.reset(handle);
}

}  // namespace

Credentials::~Credentials() {
  for (auto& [name, key] : keys_) ::gnutls_memset(key.data(), 0, key.size());
}

std::expected<std::shared_ptr<const Credentials>, std::string> Credentials::load(
    const ServerSettings& settings) {
  std::shared_ptr<Credentials> made(new Credentials(true));
  made->demandsProof_ = settings.clientCertificates || !settings.clients.empty();
  made->admitted_ = settings.clients;
  Loaded loaded;
  if (!settings.directory.empty()) loaded = made->loadCertificates(settings.directory);
  if (loaded && !settings.keys.empty()) loaded = made->loadKeys(settings.keys);
  if (loaded) loaded = made->choosePriorities();
  if (!loaded) return std::unexpected(std::move(loaded.error()));
  return made;
}

std::expected<std::shared_ptr<const Credentials>, std::string> Credentials::load(
    const ImportSettings& settings) {
  std::shared_ptr<Credentials> made(new Credentials(false));
  made->demandsProof_ = true;
  made->verifiesName_ = settings.verifyName;
  Loaded loaded = settings.keys.empty() ? made->loadCertificates(settings.directory)
                                        : made->chooseKey(settings.keys, settings.user);
  if (loaded) loaded = made->choosePriorities();
  if (!loaded) return std::unexpected(std::move(loaded.error()));
  return made;
}

Loaded Credentials::loadCertificates(const std::string& directory) {
  adopt(certificates_, &::gnutls_certificate_allocate_credentials);
  const bool mustHaveOwn = server_;
  const std::filesystem::path own = std::filesystem::path(directory) / "client-cert.pem";
  std::error_code ignored;
  if (mustHaveOwn || (!directory.empty() && std::filesystem::exists(own, ignored))) {
    if (auto loaded = loadOwnCertificate(directory); !loaded) return loaded;
  }
  if (server_ && !demandsProof_) return {};
  return loadAuthorities(directory);
}

Loaded Credentials::loadOwnCertificate(const std::string& directory) {
  const std::filesystem::path place(directory);
  const std::filesystem::path certificateFile = place / (server_ ? "server-cert.pem" : "client-cert.pem");
  const std::filesystem::path keyFile = place / (server_ ? "server-key.pem" : "client-key.pem");
  const auto certificate = read(certificateFile);
  if (!certificate) return std::unexpected(certificate.error());
  auto key = read(keyFile);
  if (!key) return std::unexpected(key.error());
  warnOfReaders(keyFile);
  const gnutls_datum_t certificateData = datum(*certificate);
  const gnutls_datum_t keyData = datum(*key);
  const int result = ::gnutls_certificate_set_x509_key_mem2(certificates_.get(), &certificateData, &keyData,
                                                            GNUTLS_X509_FMT_PEM, nullptr, 0);
  ::gnutls_memset(key->data(), 0, key->size());
  if (result < 0) {
    return fail(certificateFile,
                fmt::format("it is no certificate that goes with {} ({}): put the right files there",
                            escaped(keyFile.filename().native()), reason(result)));
  }
  warnOfDates(certificateFile, *certificate);
  return {};
}

Loaded Credentials::loadAuthorities(const std::string& directory) {
  const std::filesystem::path file = std::filesystem::path(directory) / "ca-cert.pem";
  std::error_code ignored;
  if (!server_ && (directory.empty() || !std::filesystem::exists(file, ignored))) {
    if (const int result = ::gnutls_certificate_set_x509_system_trust(certificates_.get()); result < 0) {
      return fail(file,
                  fmt::format("it is not there, and the system names no authorities ({})", reason(result)));
    }
    return {};
  }
  const auto authorities = read(file);
  if (!authorities) return std::unexpected(authorities.error());
  const gnutls_datum_t data = datum(*authorities);
  const int result = ::gnutls_certificate_set_x509_trust_mem(certificates_.get(), &data, GNUTLS_X509_FMT_PEM);
  if (result <= 0)
    return fail(file, "there is no certificate of an authority in it: put the right file there");
  warnOfDates(file, *authorities);
  return {};
}

Loaded Credentials::loadKeys(const std::string& file) {
  auto text = read(file);
  if (!text) return std::unexpected(text.error());
  warnOfReaders(file);
  auto keys = parseKeys(*text);
  ::gnutls_memset(text->data(), 0, text->size());
  if (!keys) return fail(file, keys.error());
  keys_ = std::move(*keys);
  hasKeys_ = true;
  if (server_) {
    adopt(serverKeys_, &::gnutls_psk_allocate_server_credentials);
    ::gnutls_psk_set_server_credentials_function2(serverKeys_.get(), &Channel::findKey);
  }
  return {};
}

Loaded Credentials::chooseKey(const std::string& file, const std::string& user) {
  if (auto loaded = loadKeys(file); !loaded) return loaded;
  const auto key = keys_.find(user);
  if (key == keys_.end()) return fail(file, fmt::format("there is no key of \"{}\" in it", escaped(user)));
  adopt(clientKey_, &::gnutls_psk_allocate_client_credentials);
  const gnutls_datum_t data{.data = reinterpret_cast<unsigned char*>(key->second.data()),
                            .size = static_cast<unsigned int>(key->second.size())};
  const int result =
      ::gnutls_psk_set_client_credentials(clientKey_.get(), user.c_str(), &data, GNUTLS_PSK_KEY_RAW);
  if (result < 0) return fail(file, fmt::format("the key cannot be used ({})", reason(result)));
  return {};
}

Loaded Credentials::choosePriorities() {
  std::string text(commonPriorities);
  if (certificates_ == nullptr) text += ":-KX-ALL";
  if (hasKeys_) text += ":+ECDHE-PSK:+DHE-PSK";
  gnutls_priority_t made = nullptr;
  if (const int result = ::gnutls_priority_init(&made, text.c_str(), nullptr); result < 0) {
    return std::unexpected(
        fmt::format("TLS cannot be used: GnuTLS does not know its ciphers ({})", reason(result)));
  }
  priorities_.reset(made);
  return {};
}

bool Credentials::admits(const std::vector<std::string>& names) const {
  return admitted_.empty() || std::ranges::any_of(names, [&](const std::string& name) {
           return std::ranges::find(admitted_, name) != admitted_.end();
         });
}

}  // namespace Nbdd::Tls
