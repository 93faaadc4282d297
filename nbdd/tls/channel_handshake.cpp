// How a channel comes to be: what it agrees on with the other side, and whom it takes the other side for.
// What passes afterwards is in channel.cpp.

#include <fmt/core.h>
#include <fmt/ranges.h>
#include <gnutls/crypto.h>
#include <gnutls/x509.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "nbdd/log/log.h"
#include "nbdd/tls/channel.h"

namespace Nbdd::Tls {

namespace {

// Names of one certificate that are looked at.
constexpr unsigned int mostNames = 64;

Channel& channelOf(gnutls_session_t session) {
  return *static_cast<Channel*>(::gnutls_session_get_ptr(session));
}

struct Reason {
  unsigned int bit;
  std::string_view words;
};

// The first that holds is told.
constexpr Reason reasons[] = {
    {GNUTLS_CERT_EXPIRED, "it has expired"},
    {GNUTLS_CERT_NOT_ACTIVATED, "it is not valid yet"},
    {GNUTLS_CERT_REVOKED, "it was revoked"},
    {GNUTLS_CERT_UNEXPECTED_OWNER, "it is made out to another name"},
    {GNUTLS_CERT_PURPOSE_MISMATCH, "it is for another purpose"},
    {GNUTLS_CERT_INSECURE_ALGORITHM, "its signature is of a kind that can be forged"},
    {GNUTLS_CERT_SIGNER_NOT_FOUND, "no authority that is trusted here has signed it"},
    {GNUTLS_CERT_SIGNER_NOT_CA, "who signed it is no authority"},
    {GNUTLS_CERT_SIGNATURE_FAILURE, "its signature is wrong"},
};

std::string_view whyUntrusted(unsigned int status) {
  const auto* const reason =
      std::ranges::find_if(reasons, [status](const Reason& each) { return (status & each.bit) != 0; });
  return reason == std::end(reasons) ? "it cannot be verified" : reason->words;
}

bool isNumericAddress(const std::string& host) {
  return host.find(':') != std::string::npos || host.find_first_not_of("0123456789.") == std::string::npos;
}

}  // namespace

std::string Peer::description() const {
  std::string text = fmt::format("{}, {}", version, cipher);
  if (!names.empty()) text += fmt::format(", client {}", escaped(names.front()));
  return text;
}

Channel::Channel(Io::Stream& stream, std::shared_ptr<const Credentials> credentials, std::string host)
    : stream_(stream), credentials_(std::move(credentials)), host_(std::move(host)) {
  const bool server = credentials_->isServer();
  gnutls_session_t made = nullptr;
  check(::gnutls_init(&made, (server ? GNUTLS_SERVER : GNUTLS_CLIENT) | GNUTLS_NONBLOCK | GNUTLS_NO_TICKETS));
  session_.reset(made);
  check(::gnutls_priority_set(made, credentials_->priorities()));
  if (credentials_->certificates() != nullptr) {
    check(::gnutls_credentials_set(made, GNUTLS_CRD_CERTIFICATE, credentials_->certificates()));
  }
  if (credentials_->serverKeys() != nullptr) {
    check(::gnutls_credentials_set(made, GNUTLS_CRD_PSK, credentials_->serverKeys()));
  }
  if (credentials_->clientKey() != nullptr) {
    check(::gnutls_credentials_set(made, GNUTLS_CRD_PSK, credentials_->clientKey()));
  }
  if (server) {
    ::gnutls_certificate_server_set_request(
        made, credentials_->demandsProof() ? GNUTLS_CERT_REQUIRE : GNUTLS_CERT_IGNORE);
  } else if (!host_.empty() && !isNumericAddress(host_)) {
    // A name that TLS cannot carry is not told; whether the certificate has it is looked at all the same.
    static_cast<void>(::gnutls_server_name_set(made, GNUTLS_NAME_DNS, host_.data(), host_.size()));
  }
  ::gnutls_session_set_ptr(made, this);
  ::gnutls_session_set_verify_function(made, &Channel::verify);
  ::gnutls_handshake_set_timeout(made, 0);  // time is the caller's business
  ::gnutls_transport_set_ptr(made, this);
  ::gnutls_transport_set_pull_function(made, &Channel::pull);
  ::gnutls_transport_set_pull_timeout_function(made, &Channel::pullWaits);
  ::gnutls_transport_set_push_function(made, &Channel::push);
}

/// For calls that fail for want of memory alone.
void Channel::check(int result) const {
  if (result < 0) throw std::bad_alloc();
}

Channel::~Channel() = default;

// --- What GnuTLS asks for

int Channel::findKey(gnutls_session_t session, const gnutls_datum_t* name, gnutls_datum_t* key) {
  const Keys& keys = *channelOf(session).credentials_->keys();
  const auto found = keys.find(std::string_view(reinterpret_cast<const char*>(name->data), name->size));
  // Who has no key gets one that nobody knows: whether a name is known here is not told.
  const std::size_t size = found == keys.end() ? std::size_t{32} : found->second.size();
  key->data = static_cast<unsigned char*>(::gnutls_malloc(size));
  if (key->data == nullptr) return -1;
  key->size = static_cast<unsigned int>(size);
  if (found == keys.end()) return ::gnutls_rnd(GNUTLS_RND_KEY, key->data, size) < 0 ? -1 : 0;
  std::memcpy(key->data, found->second.data(), size);
  return 0;
}

int Channel::verify(gnutls_session_t session) {
  Channel& channel = channelOf(session);
  const bool server = channel.credentials_->isServer();
  std::array<gnutls_typed_vdata_st, 2> wanted{};
  wanted[0].type = GNUTLS_DT_KEY_PURPOSE_OID;
  wanted[0].data = reinterpret_cast<unsigned char*>(
      const_cast<char*>(server ? GNUTLS_KP_TLS_WWW_CLIENT : GNUTLS_KP_TLS_WWW_SERVER));
  wanted[1].type = GNUTLS_DT_DNS_HOSTNAME;
  wanted[1].data = reinterpret_cast<unsigned char*>(const_cast<char*>(channel.host_.c_str()));
  const bool byName = !server && channel.credentials_->verifiesName();
  unsigned int status = 0;
  const int result = ::gnutls_certificate_verify_peers(session, wanted.data(), byName ? 2 : 1, &status);
  if (result == 0 && status == 0) return 0;
  channel.refused_ = true;
  channel.alert_ =
      (status & GNUTLS_CERT_EXPIRED) != 0 ? GNUTLS_A_CERTIFICATE_EXPIRED : GNUTLS_A_BAD_CERTIFICATE;
  channel.failure_ =
      fmt::format("its certificate is not accepted: {}",
                  result < 0 ? std::string_view(::gnutls_strerror(result)) : whyUntrusted(status));
  return GNUTLS_E_CERTIFICATE_ERROR;
}

// --- The handshake

void Channel::give(std::span<const std::byte> bytes) {
  input_.erase(input_.begin(), input_.end() - static_cast<std::ptrdiff_t>(source_.size()));
  input_.insert(input_.end(), bytes.begin(), bytes.end());
  source_ = input_;
}

Channel::Step Channel::shakeHands() {
  for (;;) {
    const int result = ::gnutls_handshake(session_.get());
    if (result == 0) {
      // What came behind the handshake is for receive().
      input_ = std::vector<std::byte>(source_.begin(), source_.end());
      source_ = {};
      if (isAdmitted()) return Step::done;
      failHandshake(GNUTLS_E_CERTIFICATE_ERROR);
      return Step::failed;
    }
    if (result == GNUTLS_E_AGAIN && source_.empty()) return Step::needsInput;
    if (::gnutls_error_is_fatal(result) != 0) {
      failHandshake(result);
      return Step::failed;
    }
  }
}

/// What GnuTLS does not look at by itself: that the other side is known by what it had to be known by, and is
/// one of those who may come.
bool Channel::isAdmitted() {
  if (credentials_->clientKey() != nullptr && ::gnutls_auth_get_type(session_.get()) != GNUTLS_CRD_PSK) {
    failure_ = "it did not prove that it knows the key";
  } else if (credentials_->isServer() && credentials_->demandsProof()) {
    const std::vector<std::string> names = peerNames();
    unsigned int count = 0;
    const bool proved = ::gnutls_auth_get_type(session_.get()) == GNUTLS_CRD_PSK ||
                        (::gnutls_certificate_get_peers(session_.get(), &count) != nullptr && count > 0);
    if (!proved) {
      failure_ = "it did not prove who it is";
    } else if (!credentials_->admits(names)) {
      failure_ = fmt::format("none of its names is one of the clients that may come: {}",
                             escaped(fmt::format("{}", fmt::join(names, ", "))));
    }
  }
  if (failure_.empty()) return true;
  refused_ = true;
  alert_ = GNUTLS_A_ACCESS_DENIED;
  return false;
}

void Channel::failHandshake(int result) {
  if (refused_) {
    static_cast<void>(::gnutls_alert_send(session_.get(), GNUTLS_AL_FATAL, alert_));
    return;
  }
  if (result == GNUTLS_E_FATAL_ALERT_RECEIVED) {
    const char* const name = ::gnutls_alert_get_name(::gnutls_alert_get(session_.get()));
    failure_ = fmt::format("the other side refused: {}", name == nullptr ? "it does not say why" : name);
    return;
  }
  static_cast<void>(::gnutls_alert_send_appropriate(session_.get(), result));
  failure_ = result == GNUTLS_E_CERTIFICATE_REQUIRED || result == GNUTLS_E_NO_CERTIFICATE_FOUND
                 ? "it showed no certificate"
                 : ::gnutls_strerror(result);
}

std::vector<std::string> Channel::peerNames() const {
  std::vector<std::string> names;
  if (::gnutls_auth_get_type(session_.get()) == GNUTLS_CRD_PSK) {
    if (const char* const name = ::gnutls_psk_server_get_username(session_.get())) names.emplace_back(name);
    return names;
  }
  unsigned int count = 0;
  const gnutls_datum_t* const chain = ::gnutls_certificate_get_peers(session_.get(), &count);
  if (chain == nullptr || count == 0) return names;
  gnutls_x509_crt_t handle = nullptr;
  if (::gnutls_x509_crt_init(&handle) < 0) return names;
  const Owner<gnutls_x509_crt_t, &gnutls_x509_crt_deinit> certificate(handle);
  if (::gnutls_x509_crt_import(handle, chain, GNUTLS_X509_FMT_DER) < 0) return names;
  std::array<char, 512> text{};
  std::size_t size = text.size();
  if (::gnutls_x509_crt_get_dn_by_oid(handle, GNUTLS_OID_X520_COMMON_NAME, 0, 0, text.data(), &size) == 0) {
    names.emplace_back(text.data(), size);
  }
  for (unsigned int index = 0; index < mostNames; ++index) {
    size = text.size();
    const int type = ::gnutls_x509_crt_get_subject_alt_name(handle, index, text.data(), &size, nullptr);
    if (type == GNUTLS_E_REQUESTED_DATA_NOT_AVAILABLE) break;
    if (type == GNUTLS_SAN_DNSNAME || type == GNUTLS_SAN_RFC822NAME || type == GNUTLS_SAN_URI) {
      names.emplace_back(text.data(), size);
    }
  }
  return names;
}

Peer Channel::peer() const {
  const auto orNothing = [](const char* text) { return std::string(text == nullptr ? "" : text); };
  return {.version = orNothing(::gnutls_protocol_get_name(::gnutls_protocol_get_version(session_.get()))),
          .cipher = orNothing(::gnutls_cipher_get_name(::gnutls_cipher_get(session_.get()))),
          .names = credentials_->isServer() ? peerNames() : std::vector<std::string>()};
}

std::vector<std::byte> Channel::channelBinding() const {
  // Without the extended master secret two connections of TLS 1.2 can be made to have the same bytes.
  const bool unique = ::gnutls_protocol_get_version(session_.get()) >= GNUTLS_TLS1_3 ||
                      ::gnutls_session_ext_master_secret_status(session_.get()) != 0;
  gnutls_datum_t bytes{};
  if (!unique || ::gnutls_session_channel_binding(session_.get(), GNUTLS_CB_TLS_EXPORTER, &bytes) < 0)
    return {};
  const auto* const begin = reinterpret_cast<const std::byte*>(bytes.data);
  std::vector<std::byte> copy(begin, begin + bytes.size);
  ::gnutls_free(bytes.data);
  return copy;
}

}  // namespace Nbdd::Tls
