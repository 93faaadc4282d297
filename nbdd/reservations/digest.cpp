#include "nbdd/reservations/digest.h"

#include <gnutls/crypto.h>
#include <gnutls/gnutls.h>

#include <system_error>

#include "nbd/bytes.h"

namespace Nbdd::Reservations {

namespace {

/// The library refuses only where the system has no randomness or the policy of the host forbids SHA-256:
/// there is nothing to go on with.
void require(int result, const char* what) {
  if (result < 0) throw std::system_error(std::make_error_code(std::errc::not_supported), what);
}

gnutls_datum_t datum(std::span<const std::byte> octets) {
  // The library reads from it only, and has no word for that.
  return {.data = const_cast<unsigned char*>(reinterpret_cast<const unsigned char*>(octets.data())),
          .size = static_cast<unsigned int>(octets.size())};
}

}  // namespace

Digest& Digest::field(std::span<const std::byte> octets) {
  Nbd::appendBig(message_, static_cast<std::uint32_t>(octets.size()));
  message_.insert(message_.end(), octets.begin(), octets.end());
  return *this;
}

Octets<Key::size> Digest::take() const {
  Octets<Key::size> digest;
  require(::gnutls_hmac_fast(GNUTLS_MAC_SHA256, key_.octets().data(), key_.octets().size(), message_.data(),
                             message_.size(), digest.data()),
          "HMAC-SHA-256");
  return digest;
}

Key stretch(std::string_view password, std::span<const std::byte> salt, std::uint32_t iterations) {
  Key key;
  const gnutls_datum_t secret = datum(std::as_bytes(std::span(password)));
  const gnutls_datum_t seasoning = datum(salt);
  require(::gnutls_pbkdf2(GNUTLS_MAC_SHA256, &secret, &seasoning, iterations, key.octets().data(),
                          key.octets().size()),
          "PBKDF2");
  return key;
}

void fillRandomly(std::span<std::byte> octets) {
  require(::gnutls_rnd(GNUTLS_RND_KEY, octets.data(), octets.size()), "random numbers");
}

bool isSame(std::span<const std::byte, Key::size> one, std::span<const std::byte, Key::size> other) {
  return ::gnutls_memcmp(one.data(), other.data(), one.size()) == 0;
}

}  // namespace Nbdd::Reservations
